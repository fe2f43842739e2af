// Names that the request defines beside the model.  Routines: ADD_GROUP, ADD_DEFINED_FACTOR, READ_KNOTS, HANDLE_SPLINE,
// HANDLE_CONTRAST_SUBGROUP_GROUP.
#include "model/named_definitions.h"

#include "base/text.h"
#include "data/request_values.h"
#include "model/design_functions.h"
#include "model/request.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

/// The objects under a key, one alone or a list.
std::vector<const JsonNode*> entries(const JsonNode* list)
{
  std::vector<const JsonNode*> found;
  if (list == nullptr) return found;
  if (list->is(JsonType::object)) found.push_back(list);
  if (list->is(JsonType::array) && !list->packed())
    for (const auto& entry : list->children())
      if (entry->is(JsonType::object)) found.push_back(entry.get());
  return found;
}

bool is_named(const JsonNode& entry, std::string_view key, std::string_view name)
{
  const JsonNode* value = given_value(entry, key);
  return value != nullptr && plain_name(*value) == name;
}

/// L_DEFINED_ON: the factor row of the variable that a definition is on; 0 with an error.
std::int64_t L_DEFINED_ON(ERROR_HANDLER& eh, const MODEL_PARSER& parser, const JsonNode& entry, std::string_view name)
{
  const Frame here{eh, __func__};
  const JsonNode* value = given_value(entry, "variable");
  const std::string_view variable = value == nullptr ? std::string_view() : plain_name(*value);
  const std::int64_t row = parser.variables.find(variable);
  if (row == 0) {
    eh.error(text("check definition for model term ", name));
    eh.continuation(variable.empty() ? "it names no variable" : text("there is no variable ", variable));
  }
  return row;
}

/// L_ADD_CONTRAST: a covariate with a given value for each level of a factor.
std::int64_t L_ADD_CONTRAST(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& entry, std::string_view name)
{
  const Frame here{eh, __func__};
  const std::int64_t row = L_DEFINED_ON(eh, parser, entry, name);
  if (row == 0) return 0;
  std::vector<double> values = GET_VALUE_FROM_JPTR_REALS(eh, entry, "values");
  if (eh.terminate()) return 0;
  if (values.empty() || !parser.factors.row(row).is_factor) {
    eh.error(text("check definition for model term ", name));
    eh.continuation(values.empty() ? std::string("it has no values")
                                   : text(parser.factors.row(row).name, " has no levels"));
    return 0;
  }
  return ADD_FACTOR_ROW(eh, parser,
                        {.name = std::string(name),
                         .kind = static_cast<std::int64_t>(DesignKind::lin),
                         .source = row,
                         .variable = parser.factors.row(row).variable,
                         .levels = 1,
                         .arguments = std::move(values)});
}

/// L_CHECK_ENTRIES: checks the definitions under a key: objects with a variable that there is and a list of numbers.
///   numbers   the key of the list;  least   how many numbers there must be
void L_CHECK_ENTRIES(ERROR_HANDLER& eh, const JsonNode& request, const VARIABLE_TABLE& variables, std::string_view key,
                     std::string_view numbers, std::int64_t least)
{
  const Frame here{eh, __func__};
  const JsonNode* list = given_value(request, key);
  if (list == nullptr) return;
  const std::vector<const JsonNode*> found = entries(list);
  const bool whole = list->is(JsonType::object) || (list->is(JsonType::array) && std::ssize(found) == list->size());
  if (!whole) {
    REPORT_JSON_ERROR(eh, *list, {"an object", "an array of objects"});
    return;
  }
  for (const JsonNode* entry : found) {
    for (const auto& child : entry->children())
      if (child->name != "name" && child->name != "variable" && child->name != numbers)
        eh.warning(text(json_path(*child), " is not a recognised key"));
    const std::string variable = GET_VALUE_FROM_JPTR_STRING(eh, *entry, "variable", true).value_or("");
    const std::vector<double> values = GET_VALUE_FROM_JPTR_REALS(eh, *entry, numbers);
    if (eh.terminate()) return;
    if (variables.find(variable) == 0) {
      REPORT_JSON_ERROR(eh, *entry->find("variable"), {"the name of a variable"});
    } else if (std::ssize(values) < least) {
      eh.error(text(json_path(*entry), " needs at least ", least, " ", numbers, ", it has ", values.size()));
    }
    if (eh.terminate()) return;
  }
}

}  // namespace

void HANDLE_SPLINE(ERROR_HANDLER& eh, const JsonNode& request, const VARIABLE_TABLE& variables)
{
  const Frame here{eh, __func__};
  L_CHECK_ENTRIES(eh, request, variables, "spline", "points", 3);
}

void HANDLE_CONTRAST_SUBGROUP_GROUP(ERROR_HANDLER& eh, const JsonNode& request, const VARIABLE_TABLE& variables)
{
  const Frame here{eh, __func__};
  L_CHECK_ENTRIES(eh, request, variables, "contrast", "values", 1);
  if (eh.terminate()) return;
  for (const JsonNode* entry : entries(given_value(request, "contrast"))) {
    GET_VALUE_FROM_JPTR_STRING(eh, *entry, "name", true);
    if (eh.terminate()) return;
  }
}

const JsonNode* find_definition(const JsonNode& request, std::string_view key, std::string_view name)
{
  for (const JsonNode* entry : entries(given_value(request, key)))
    if (is_named(*entry, "name", name)) return entry;
  return nullptr;
}

std::int64_t ADD_GROUP(ERROR_HANDLER& eh, MODEL_PARSER& parser, std::string_view name)
{
  const Frame here{eh, __func__};
  FACTOR_ROW row{.name = std::string(name), .kind = static_cast<std::int64_t>(DesignKind::vec), .is_factor = true};
  if (!name.empty())
    for (const std::int64_t member : parser.variables.members(name)) row.arguments.push_back(static_cast<double>(member));
  if (row.arguments.empty()) {
    const std::int64_t variable = parser.variables.find(name);
    if (variable == 0) return 0;
    row.name = text("vect(", name, ")");
    row.arguments.push_back(static_cast<double>(variable));
  }
  // The variables are the first rows of the factor table.
  row.levels = std::ssize(row.arguments);
  return ADD_FACTOR_ROW(eh, parser, std::move(row));
}

std::int64_t ADD_DEFINED_FACTOR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const std::string& name)
{
  const Frame here{eh, __func__};
  if (const std::int64_t group = ADD_GROUP(eh, parser, name); group > 0 || eh.terminate()) return group;
  if (const JsonNode* entry = find_definition(parser.request, "contrast", name)) return L_ADD_CONTRAST(eh, parser, *entry, name);
  if (const JsonNode* entry = find_definition(parser.request, "mbf", name)) {
    const std::int64_t variable = L_DEFINED_ON(eh, parser, *entry, name);
    if (variable == 0) return 0;
    return ADD_FACTOR_ROW(eh, parser,
                          {.name = std::string(name),
                           .kind = static_cast<std::int64_t>(DesignKind::mbf),
                           .source = variable,
                           .variable = parser.factors.row(variable).variable,
                           .is_factor = true});
  }
  return 0;
}

void READ_KNOTS(ERROR_HANDLER& eh, const MODEL_PARSER& parser, std::string_view variable, std::vector<double>& knots)
{
  const Frame here{eh, __func__};
  const JsonNode* options = given_value(parser.request, "options");
  const JsonNode* lists[] = {given_value(parser.request, "spline"),
                             options == nullptr ? nullptr : given_value(*options, "knot_points")};
  for (const JsonNode* list : lists) {
    for (const JsonNode* entry : entries(list)) {
      if (!is_named(*entry, "variable", variable)) continue;
      const std::vector<double> points = GET_VALUE_FROM_JPTR_REALS(eh, *entry, "points");
      if (points.empty() && !eh.terminate()) eh.error(text("the knots of spl(", variable, ") have no points"));
      knots.insert(knots.end(), points.begin(), points.end());
      return;
    }
  }
  // The option may also be a plain list of numbers, for every spline.
  if (lists[1] == nullptr || !lists[1]->is(JsonType::array) || !entries(lists[1]).empty()) return;
  const std::vector<double> points = GET_VALUE_FROM_JPTR_REALS(eh, *options, "knot_points");
  knots.insert(knots.end(), points.begin(), points.end());
}

}  // namespace tolvan
