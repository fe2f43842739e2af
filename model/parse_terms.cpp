#include "model/parse_terms.h"

#include "base/text.h"
#include "model/design_functions.h"
#include "model/formula_nodes.h"
#include "model/function_catalogue.h"
#include "model/request.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

constexpr std::int64_t most_factors = 10000;  // a term code keeps a factor row in its last four digits

/// The name that output shows for a term node.
std::string shown_name(ERROR_HANDLER& eh, const MODEL_PARSER& parser, const JsonNode& node)
{
  const JsonNode* given = node.find("user_facing_factor_name");
  if (given != nullptr && given->is(JsonType::string)) return given->text();
  return GET_FACNAME_FROM_JPTR(eh, parser.communication, node);
}

/// L_ADD_COPY: adds the factor row of a component that must stand behind another or carries a structure;
/// gives its number.
std::int64_t L_ADD_COPY(ERROR_HANDLER& eh, MODEL_PARSER& parser, const COMPONENT& component)
{
  const Frame here{eh, __func__};
  if (parser.factors.count() >= most_factors - 1) {
    eh.error(text("the model has too many factors, at most ", most_factors, " are possible"));
    return 0;
  }
  FACTOR_ROW copy = parser.factors.row(component.row);
  copy.source = component.row;
  copy.copy = true;
  copy.name = component.name;
  copy.structure = component.structure;
  copy.init = component.init;
  parser.factors.rows.push_back(std::move(copy));
  return parser.factors.count();
}

/// What stands for a variable in an argument: its name, or the node of a call.
bool is_term_argument(const JsonNode* value)
{
  return value != nullptr && (value->is(JsonType::string) || !plain_name(*value).empty() || value->find("function") != nullptr);
}

bool is_mv(const MODEL_PARSER& parser, const JsonNode& node)
{
  return parser.mv > 0 && plain_name(node) == parser.communication.VARIABLE_NAME_MV;
}

}  // namespace

std::int64_t ADD_FACTOR_ROW(ERROR_HANDLER& eh, MODEL_PARSER& parser, FACTOR_ROW row)
{
  const Frame here{eh, __func__};
  for (std::int64_t i = 1; i <= parser.factors.count(); ++i)
    if (const FACTOR_ROW& present = parser.factors.row(i); !present.copy && present.name == row.name) return i;
  if (parser.factors.count() >= most_factors - 1) {
    eh.error(text("the model has too many factors, at most ", most_factors, " are possible"));
    return 0;
  }
  parser.factors.rows.push_back(std::move(row));
  return parser.factors.count();
}

COMPONENT ADD_ARGUMENT_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& function,
                                 std::string_view argument, const std::string& shown, Block block)
{
  const Frame here{eh, __func__};
  const JsonNode* value = supplied_value(function, argument);
  if (!is_term_argument(value)) {
    eh.error(text("Unrecognised argument in ", shown));
    return {};
  }
  COMPONENT component = value->find("function") != nullptr ? ADD_FUNCTION_FROM_JPTR(eh, parser, *value, block)
                                                           : ADD_SPECIAL_TERM_FROM_JPTR(eh, parser, *value);
  if (eh.terminate()) eh.continuation(text("when processing ", shown));
  return component;
}

COMPONENT ADD_SPECIAL_TERM_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node)
{
  const Frame here{eh, __func__};
  const COMMUNICATION& words = parser.communication;
  COMPONENT component{.name = GET_FACNAME_FROM_JPTR(eh, words, node)};
  const std::string& name = component.name;
  component.row = parser.variables.find(name);
  if (component.row > 0) return component;
  if (name == words.VARIABLE_NAME_MU) {
    component.row = parser.mu;
  } else if (name == words.VARIABLE_NAME_UNITS) {
    component.row = parser.units;
  } else if (name == words.VARIABLE_NAME_TRAIT) {
    eh.not_implemented(
        text("the factor ", name, " in a model with one response variable is not implemented"));
  } else if (name == words.VARIABLE_NAME_MV) {
    eh.error(text(name, " can not be used as part of an interaction or as an argument to a function call"));
  } else if (!CHECK_VARIABLE_NAME_VALIDITY(eh, words, name, true, true)) {
    eh.error(text(name, " is not a valid variable name"));
  } else {
    eh.error(text("unknown term (", name, ") in the model"));
  }
  return component;
}

COMPONENT ADD_FUNCTION_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, Block block)
{
  const Frame here{eh, __func__};
  const JsonNode& function = *node.find("function");
  const std::string_view name = function_name(function);
  const std::string shown = shown_name(eh, parser, node);
  const JsonNode* arguments = function.find("arguments");
  if (arguments == nullptr || arguments->size() == 0) {
    eh.error(text("invalid function call in model (", shown, "), no arguments supplied"));
    return {};
  }
  if (GET_MODEL_FUNCTION_INFO(eh, name).NAME.empty()) {
    eh.error(text("unknown term (", shown, ") in the model"));
    return {};
  }
  if (is_design_function(name)) return ADD_DESIGN_FUNCTION(eh, parser, node, shown, block);
  const bool identity = name == "id" || name == "idv";
  const JsonNode* factor = supplied_value(function, "variable_name");
  if (!identity || block != Block::random || factor == nullptr ||
      (!factor->is(JsonType::string) && plain_name(*factor).empty())) {
    eh.not_implemented(text("the model function ", name, "() in term ", shown, " is not implemented yet"));
    return {};
  }
  COMPONENT component = ADD_SPECIAL_TERM_FROM_JPTR(eh, parser, *factor);
  if (eh.terminate()) {
    eh.continuation(text("when processing ", shown));
    return {};
  }
  component.name = shown;
  component.structure = name;
  if (supplied_value(function, "init") != nullptr)
    component.init = GET_VALUE_FROM_JPTR_REALS(eh, *find_argument(function, "init"), "value");
  return component;
}

void FLATTEN_INTERACTION(ERROR_HANDLER& eh, const JsonNode& interaction, std::vector<const JsonNode*>& out,
                         std::int64_t depth)
{
  const Frame here{eh, __func__};
  if (depth > deepest_call) {
    eh.error(text("interactions are nested deeper than ", deepest_call, " levels"));
    return;
  }
  for (const auto& element : interaction.children()) {
    if (const JsonNode* inner = element->find("interaction")) {
      FLATTEN_INTERACTION(eh, *inner, out, depth + 1);
      if (eh.terminate()) return;
    } else {
      out.push_back(element.get());
    }
  }
}

std::vector<COMPONENT> ADD_INTERACTION_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser,
                                                 const JsonNode& node, Block block)
{
  const Frame here{eh, __func__};
  std::vector<const JsonNode*> elements;
  FLATTEN_INTERACTION(eh, *node.find("interaction"), elements);
  std::vector<COMPONENT> components;
  for (const JsonNode* element : elements) {
    if (eh.terminate()) break;
    components.push_back(element->find("function") != nullptr
                             ? ADD_FUNCTION_FROM_JPTR(eh, parser, *element, block)
                             : ADD_SPECIAL_TERM_FROM_JPTR(eh, parser, *element));
  }
  return components;
}

void ADD_TERM_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, Block block)
{
  const Frame here{eh, __func__};
  TERM_ROW term;
  term.block = block;
  if (node.is(JsonType::object)) term.initial_values = &node;
  if (is_mv(parser, node)) {
    parser.info.has_mv = true;  // its row follows behind all others
    return;
  }
  if (node.find("linked") != nullptr) {
    eh.not_implemented(
        text("the model function str() in term ", shown_name(eh, parser, node), " is not implemented yet"));
    return;
  }
  std::vector<COMPONENT> components;
  if (node.find("interaction") != nullptr) {
    components = ADD_INTERACTION_FROM_JPTR(eh, parser, node, block);
  } else if (node.find("function") != nullptr) {
    components.push_back(ADD_FUNCTION_FROM_JPTR(eh, parser, node, block));
  } else {
    components.push_back(ADD_SPECIAL_TERM_FROM_JPTR(eh, parser, node));
  }
  if (eh.terminate()) return;
  term.name = shown_name(eh, parser, node);

  if (components.size() == 1 && components[0].structure.empty()) {
    term.code = static_cast<std::int32_t>(components[0].row);
  } else {
    std::int64_t first = 0;
    for (const COMPONENT& component : components) {
      const std::int64_t row = L_ADD_COPY(eh, parser, component);
      if (eh.terminate()) return;
      if (first == 0) first = row;
    }
    term.code = static_cast<std::int32_t>(10000 * static_cast<std::int64_t>(components.size()) + first);
  }
  parser.terms.rows.push_back(std::move(term));
}

void LOOP_OVER_TERMS_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& list, Block block)
{
  const Frame here{eh, __func__};
  for (const auto& node : list.children()) {
    if (has_flag(*node, "drop")) continue;  // the terms that it drops have gone before
    ADD_TERM_FROM_JPTR(eh, parser, *node, block);
    if (eh.terminate()) return;
  }
}

void PARSE_MODEL_FORMULA_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& part, Block block)
{
  const Frame here{eh, __func__};
  const JsonNode* terms = part.find("terms");
  if (terms == nullptr || !terms->is(JsonType::array)) {
    REPORT_JSON_ERROR(eh, part, "terms");
    return;
  }
  LOOP_OVER_TERMS_FROM_JPTR(eh, parser, *terms, block);
}

}  // namespace tolvan
