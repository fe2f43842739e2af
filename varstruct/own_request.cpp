// What a request says of structures that a user's own program forms.  Routine: SETUP_OWN_PROGRAMS.
#include <algorithm>
#include <cmath>

#include "base/text.h"
#include "model/request.h"
#include "varstruct/initial_values.h"
#include "varstruct/labels.h"
#include "varstruct/model_catalogue.h"
#include "varstruct/own_program.h"
#include "varstruct/structure_parameters.h"

namespace tolvan {

namespace {

constexpr std::int64_t own_selector = 7, own_code = 7, diagonal_code = 8, identity_code = 0;
constexpr std::int64_t most_parameters = 99999;  // as many as the files of the exchange can tell

/// One entry of the request.
struct OWN_ENTRY {
  std::string term, component;
  OWN_PROGRAM program;
  bool diagonal = false;
  std::int64_t parameters = 1;
  std::vector<double> values;  // as many; empty: the default
};

/// L_TEXT: reads a text of an entry; it stays as it was where the key is absent.
void L_TEXT(ERROR_HANDLER& eh, const JsonNode& entry, std::string_view key, std::string& out)
{
  const Frame here{eh, __func__};
  const JsonNode* node = entry.find(key);
  if (node == nullptr || node->is(JsonType::null)) return;
  if (node->is(JsonType::string)) {
    out = node->text();
  } else {
    REPORT_JSON_ERROR(eh, *node, {"a string"});
  }
}
/// L_INTEGER: the same for a whole number.
void L_INTEGER(ERROR_HANDLER& eh, const JsonNode& entry, std::string_view key, std::int64_t& out)
{
  const Frame here{eh, __func__};
  const JsonNode* node = entry.find(key);
  if (node == nullptr || node->is(JsonType::null)) return;
  if (node->is(JsonType::integer)) {
    out = node->integer();
  } else {
    REPORT_JSON_ERROR(eh, *node, {"an integer"});
  }
}

/// L_READ_ENTRY: reads one entry.
void L_READ_ENTRY(ERROR_HANDLER& eh, const JsonNode& node, OWN_ENTRY& entry)
{
  const Frame here{eh, __func__};
  if (!node.is(JsonType::object) || node.find("term") == nullptr) {
    REPORT_JSON_ERROR(eh, node, {"an object with the keys term, program and values"});
    return;
  }
  std::string form = "plain";
  for (const auto& [key, to] : {std::pair<std::string_view, std::string*>{"term", &entry.term},
                                {"component", &entry.component},
                                {"program", &entry.program.program},
                                {"file", &entry.program.file},
                                {"form", &form}}) {
    L_TEXT(eh, node, key, *to);
    if (eh.terminate()) return;
  }
  L_INTEGER(eh, node, "control", entry.program.control);
  if (eh.terminate()) return;
  L_INTEGER(eh, node, "parameters", entry.parameters);
  if (eh.terminate()) return;
  if (form != "plain" && form != "diagonal" && form != "inverse") {
    REPORT_JSON_ERROR(eh, *node.find("form"), {"plain, diagonal or inverse"});
    return;
  }
  entry.diagonal = form == "diagonal";
  entry.program.inverse = form == "inverse";
  if (is_blank(entry.program.file)) entry.program.file = "own";

  const JsonNode* values = node.find("values");
  if (values != nullptr && values->is_number()) {
    entry.values.push_back(values->number());
  } else if (values != nullptr && values->is(JsonType::array) && values->packed()) {
    for (std::int64_t k = 0; k < values->number_count(); ++k) entry.values.push_back(values->number(k));
  } else if (values != nullptr && !values->is(JsonType::null)) {
    REPORT_JSON_ERROR(eh, *values, {"a list of numbers"});
    return;
  }
  if (!entry.values.empty()) entry.parameters = static_cast<std::int64_t>(entry.values.size());
  const bool finite = std::all_of(entry.values.begin(), entry.values.end(), [](double x) { return std::isfinite(x); });
  if (!finite || entry.parameters < 1 || entry.parameters > most_parameters)
    REPORT_JSON_ERROR(eh, node, {text("1 to ", most_parameters, " parameters with finite values")});
}

/// L_FIND_ROW: the row that the program is to form; null with an error.
STRUCTURE_ROW* L_FIND_ROW(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const OWN_ENTRY& entry, const PARAMETER_RANGE& range)
{
  const Frame here{eh, __func__};
  if (range.rows == nullptr) {
    eh.error(text("no structure vector set up for ", entry.term, ", cannot apply variance structure qualifiers"));
    return nullptr;
  }
  STRUCTURE_ROW* found = nullptr;
  for (std::int64_t r = range.first_row; r < range.first_row + range.row_count; ++r) {
    STRUCTURE_ROW& row = (*range.rows)[static_cast<std::size_t>(r)];
    const bool meant = entry.component.empty()
                           ? range.row_count == 1
                           : row.factor > 0 && (component_label(factors.row(row.factor)) == entry.component ||
                                                factors.row(row.factor).shown() == entry.component);
    if (meant) found = &row;
  }
  if (found == nullptr) {
    eh.error(text("unable to find which block of struc values are associated with ", entry.term));
    eh.continuation(entry.component.empty() ? std::string("it has several components: name the one that the program forms")
                                            : text("none of its components is ", entry.component));
    return nullptr;
  }
  if (found->model == identity_code && found->matrix == nullptr) return found;
  eh.error(text("a program can form a component of ", entry.term, " only where the model says id() or nothing"));
  return nullptr;
}

/// Puts parameters into the vector in the place of those of a row.
void replace_parameters(VARIANCE_MODEL& model, STRUCTURE_ROW& row, const std::vector<VARIANCE_PARAMETER>& parameters)
{
  const std::int64_t first = row.first, behind = row.first + row.parameters;
  const std::int64_t more = static_cast<std::int64_t>(parameters.size()) - row.parameters;
  model.parameters.erase(model.parameters.begin() + first, model.parameters.begin() + behind);
  model.parameters.insert(model.parameters.begin() + first, parameters.begin(), parameters.end());
  const auto move = [&](std::int64_t& at) {
    if (at >= behind) at += more;
  };
  for (auto* rows : {&model.rows, &model.residual}) {
    for (STRUCTURE_ROW& other : *rows) {
      if (&other == &row) continue;
      move(other.first);
      move(other.scale);
    }
  }
  for (RESIDUAL_SECTION& section : model.sections) move(section.scale);
  move(model.residual_parameter);
  row.parameters += more;
}

}  // namespace

void SETUP_OWN_PROGRAMS(ERROR_HANDLER& eh, const JsonNode& request, const FACTOR_TABLE& factors, const TERM_TABLE& terms,
                        VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  const JsonNode* list = request.find("own");
  if (list == nullptr || list->is(JsonType::null)) return;
  std::vector<const JsonNode*> nodes;
  if (list->is(JsonType::array) && !list->packed()) {
    for (const auto& child : list->children()) nodes.push_back(child.get());
  } else {
    nodes.push_back(list);
  }
  for (const JsonNode* node : nodes) {
    OWN_ENTRY entry;
    L_READ_ENTRY(eh, *node, entry);
    if (eh.terminate()) return;
    STRUCTURE_ROW* row = L_FIND_ROW(eh, factors, entry, find_structure(factors, terms, model, entry.term));
    if (eh.terminate()) return;
    if (row->parameters > 0 && row->first == model.residual_parameter) {
      eh.error(text("a program cannot form the whole residual ", entry.term, ", whose variance would be lost"));
      return;
    }
    const COMPONENT_MODEL& own = component_models[own_selector];
    std::vector<VARIANCE_PARAMETER> parameters = default_parameters(own, row->size, entry.parameters, 0, {.gamma = model.gamma});
    for (std::size_t k = 0; k < entry.values.size(); ++k) parameters[k].value = entry.values[k];
    for (VARIANCE_PARAMETER& p : parameters) p.start = p.value;
    replace_parameters(model, *row, parameters);
    row->model = entry.diagonal ? diagonal_code : own_code;
    row->selector = own_selector;
    row->order = entry.parameters;
    row->scale = -1;
    row->own = static_cast<std::int64_t>(model.own_programs.size());
    model.own_programs.push_back(std::move(entry.program));
  }
}

}  // namespace tolvan
