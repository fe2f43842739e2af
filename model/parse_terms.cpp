// Terms of the standard form, one after the other, into rows of the factor and term tables.
// Routines: ADD_FACTOR_ROW, ADD_COMPONENT_ROWS, ADD_SPECIAL_TERM_FROM_JPTR, ADD_INTERACTION_FROM_JPTR, ADD_TERM_FROM_JPTR,
// FLATTEN_INTERACTION, LOOP_OVER_TERMS_FROM_JPTR, PARSE_MODEL_FORMULA_FROM_JPTR, AS_PICKDS.
#include "model/parse_terms.h"

#include <algorithm>

#include "base/text.h"
#include "model/design_functions.h"
#include "model/formula_nodes.h"
#include "model/formula_text.h"
#include "model/function_catalogue.h"
#include "model/named_definitions.h"
#include "model/request.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

constexpr std::int64_t most_factors = 10000;  // a term code keeps a factor row in its last four digits
constexpr std::size_t longest_name = 2048;

/// Positions of pol, leg and spl in the list of design functions: several columns from one covariate.
constexpr std::int64_t kinds_of_columns[] = {8, 14, 4};

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
  copy.labels.clear();
  copy.name = component.name;
  copy.structure = component.structure;
  copy.init = component.init;
  if (!component.arguments.empty()) copy.arguments = component.arguments;
  copy.order = component.order;
  if (component.second > 0) copy.second = component.second;
  copy.dist = component.dist;
  copy.matrix = component.matrix;
  parser.factors.rows.push_back(std::move(copy));
  return parser.factors.count();
}

bool is_mv(const MODEL_PARSER& parser, const JsonNode& node)
{
  return parser.mv > 0 && plain_name(node) == parser.communication.VARIABLE_NAME_MV;
}

/// L_ADD_ZERO: the row of the zero term, one null equation, if that is what a name stands for; else 0.
std::int64_t L_ADD_ZERO(ERROR_HANDLER& eh, MODEL_PARSER& parser, const std::string& name)
{
  const Frame here{eh, __func__};
  constexpr std::string_view names[] = {"Zero", "Zero_", "zero", "zero_"};
  if (std::find(std::begin(names), std::end(names), name) == std::end(names)) return 0;
  if (!parser.data_read)
    eh.warning(text(name, " is assumed to have 1 levels. If more, specify the factor levels when defining the variables"));
  return ADD_FACTOR_ROW(eh, parser,
                        {.name = name,
                         .kind = static_cast<std::int64_t>(DesignKind::zero),
                         .is_factor = true,
                         .levels = 1,
                         .arguments = {1.0}});
}

/// L_NAME_PEDIGREE: a plain pedigree factor in the random part has the relationship matrix as its structure.
void L_NAME_PEDIGREE(ERROR_HANDLER& eh, const MODEL_PARSER& parser, COMPONENT& component)
{
  const Frame here{eh, __func__};
  const FACTOR_ROW& row = parser.factors.row(component.row);
  if (row.variable > 0 && row.kind == 0 && parser.variables.row(row.variable).is_pedigree_factor) component.structure = "nrm";
}

/// L_READ_ELEMENT: the components that one element of an interaction, or a term without any, may stand for.
ALTERNATIVES L_READ_ELEMENT(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, Block block)
{
  const Frame here{eh, __func__};
  if (node.find("linked") != nullptr) {
    eh.error(text("check definition for model term ", shown_name(parser, node)));
    eh.continuation(text(parser.communication.LINK_FUN_NAME, "() is a term by itself, not part of another"));
    return {};
  }
  if (node.find("function") != nullptr) return ADD_FUNCTION_FROM_JPTR(eh, parser, node, block);
  ALTERNATIVES plain{ADD_SPECIAL_TERM_FROM_JPTR(eh, parser, node)};
  if (!eh.terminate() && block == Block::random) L_NAME_PEDIGREE(eh, parser, plain.front());
  return plain;
}

/// L_CHECK_EXPANSION: complains of an interaction in which two functions expand.
void L_CHECK_EXPANSION(ERROR_HANDLER& eh, const MODEL_PARSER& parser, const std::vector<ALTERNATIVES>& elements,
                       const JsonNode& node)
{
  const Frame here{eh, __func__};
  std::vector<std::string> into_terms, into_columns;
  for (const ALTERNATIVES& element : elements) {
    if (element.size() > 1) into_terms.push_back(element.front().name);
    if (element.empty()) continue;
    const std::int64_t kind = parser.factors.row(element.front().row).kind;
    if (std::find(std::begin(kinds_of_columns), std::end(kinds_of_columns), kind) != std::end(kinds_of_columns))
      into_columns.push_back(element.front().name);
  }
  const std::vector<std::string>& expanding = into_terms.size() > 1 ? into_terms : into_columns;
  if (expanding.size() < 2) return;
  eh.error("can only have one function in an interaction that expands to multiple terms");
  eh.continuation(text("the interaction ", GET_FACNAME_FROM_JPTR(eh, parser.communication, node),
                       " has expanding functions: ", join(expanding, ", ")));
}

}  // namespace

std::string shown_name(const MODEL_PARSER& parser, const JsonNode& node)
{
  return user_facing_name(parser.communication, node);
}

std::string joined_name(const MODEL_PARSER& parser, const std::vector<COMPONENT>& components)
{
  std::string name;
  for (const COMPONENT& component : components) {
    if (!name.empty()) name += parser.communication.INTERACTION_SYMBOL;
    name += component.name;
  }
  return name;
}

std::int64_t ADD_FACTOR_ROW(ERROR_HANDLER& eh, MODEL_PARSER& parser, FACTOR_ROW row)
{
  const Frame here{eh, __func__};
  const auto is_own = [](const FACTOR_ROW& r) { return !r.copy && r.kind != kind_linked; };
  for (std::int64_t i = 1; is_own(row) && i <= parser.factors.count(); ++i)
    if (const FACTOR_ROW& present = parser.factors.row(i); is_own(present) && present.kind == row.kind && present.name == row.name) return i;
  if (parser.factors.count() >= most_factors - 1) {
    eh.error(text("the model has too many factors, at most ", most_factors, " are possible"));
    return 0;
  }
  parser.factors.rows.push_back(std::move(row));
  return parser.factors.count();
}

std::int32_t ADD_COMPONENT_ROWS(ERROR_HANDLER& eh, MODEL_PARSER& parser, const std::vector<COMPONENT>& components)
{
  const Frame here{eh, __func__};
  if (components.size() == 1 && components[0].structure.empty()) return static_cast<std::int32_t>(components[0].row);
  std::int64_t first = 0;
  for (const COMPONENT& component : components) {
    const std::int64_t row = L_ADD_COPY(eh, parser, component);
    if (eh.terminate()) return 0;
    if (first == 0) first = row;
  }
  return static_cast<std::int32_t>(10000 * static_cast<std::int64_t>(components.size()) + first);
}

void AS_PICKDS(ERROR_HANDLER& eh, const MODEL_PARSER& parser, const std::string& name)
{
  const Frame here{eh, __func__};
  const std::string call(trim(std::string_view(name).substr(0, name.find('('))));
  if (trim(name).empty()) {
    eh.error(text("\"", name, "\" is not a valid/complete model term"));
  } else if (name.size() > longest_name) {
    eh.error(text("model term name \"", name.substr(0, 60), " ...\" is too long"));
  } else if (is_numeric(name)) {
    eh.error(text("unexpected value [", name, "], maybe !r is missing from the model line"));
  } else if (call.size() < name.size()) {  // a call that is written where a name belongs
    if (!GET_MODEL_FUNCTION_INFO(eh, call).NAME.empty()) {
      eh.error(text(name, " not successfully parsed"));
      return;
    }
    const std::size_t open = name.find('(') + 1;
    const std::string inside(trim(std::string_view(name).substr(open, name.find(')') - open)));
    const std::int64_t row = parser.variables.find(inside);
    if (call == "nrm" && row > 0 && !parser.variables.row(row).is_pedigree_factor) {
      eh.error(text("nrm() may only be used on a factor defined with  !P; not ", inside));  // sic
      return;
    }
    eh.error(text("unrecognised function in model term ", name));
    if (!GET_MODEL_FUNCTION_INFO(eh, lower(call)).NAME.empty()) eh.continuation("model functions are all lower case!");
  } else if (!CHECK_VARIABLE_NAME_VALIDITY(eh, parser.communication, name, true, true)) {
    eh.error(text(name, " is not a valid variable name"));
  } else {
    eh.error(text("unknown term (", name, ") in the model"));
  }
}

COMPONENT ADD_SPECIAL_TERM_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node)
{
  const Frame here{eh, __func__};
  const COMMUNICATION& words = parser.communication;
  COMPONENT component{.name = GET_FACNAME_FROM_JPTR(eh, words, node)};
  const std::string& name = component.name;
  component.row = parser.variables.find(name);
  if (component.row > 0) {
    for (const char* key : {"contrast", "mbf"}) {
      if (parser.data_read || find_definition(parser.request, key, name) == nullptr) continue;
      eh.warning(text("ambiguous model term \"", name, "\" is taken as \"variable ", name, "\" and not \"", key, " ", name, "\""));
    }
    return component;
  }
  if (name == words.VARIABLE_NAME_MU) {
    component.row = parser.mu;
  } else if (name == words.VARIABLE_NAME_UNITS) {
    component.row = parser.units;
  } else if (name == words.VARIABLE_NAME_TRAIT) {
    component.row = parser.info.trait;
    if (component.row == 0) eh.error(text("the factor ", name, " needs a model with several response variables"));
  } else if (name == words.VARIABLE_NAME_MV) {
    eh.error(text(name, " can not be used as part of an interaction or as an argument to a function call"));
  } else {
    component.row = ADD_DEFINED_FACTOR(eh, parser, name);
    if (component.row == 0 && !eh.terminate()) component.row = L_ADD_ZERO(eh, parser, name);
    if (component.row == 0 && !eh.terminate()) AS_PICKDS(eh, parser, name);
  }
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

std::vector<std::vector<COMPONENT>> ADD_INTERACTION_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser,
                                                              const JsonNode& node, Block block)
{
  const Frame here{eh, __func__};
  std::vector<const JsonNode*> elements;
  FLATTEN_INTERACTION(eh, *node.find("interaction"), elements);
  std::vector<ALTERNATIVES> read;
  for (const JsonNode* element : elements) {
    if (eh.terminate()) return {};
    read.push_back(L_READ_ELEMENT(eh, parser, *element, block));
  }
  if (eh.terminate()) return {};
  L_CHECK_EXPANSION(eh, parser, read, node);
  if (eh.terminate()) return {};
  std::size_t count = 1;
  for (const ALTERNATIVES& element : read) count = std::max(count, element.size());
  std::vector<std::vector<COMPONENT>> terms(count);
  for (std::size_t t = 0; t < count; ++t)
    for (const ALTERNATIVES& element : read) terms[t].push_back(element[element.size() > 1 ? t : 0]);
  return terms;
}

void ADD_TERM_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, Block block)
{
  const Frame here{eh, __func__};
  if (is_mv(parser, node)) {
    parser.info.has_mv = true;  // its row follows behind all others
    return;
  }
  std::vector<std::vector<COMPONENT>> terms;
  if (node.find("interaction") != nullptr) {
    terms = ADD_INTERACTION_FROM_JPTR(eh, parser, node, block);
  } else {
    for (COMPONENT& component : L_READ_ELEMENT(eh, parser, node, block)) terms.push_back({std::move(component)});
  }
  if (eh.terminate()) return;
  for (const std::vector<COMPONENT>& components : terms) {
    TERM_ROW term{.block = block, .name = joined_name(parser, components)};
    if (node.is(JsonType::object)) term.initial_values = &node;
    term.code = ADD_COMPONENT_ROWS(eh, parser, components);
    if (eh.terminate()) return;
    parser.terms.rows.push_back(std::move(term));
  }
}

void LOOP_OVER_TERMS_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& list, Block block)
{
  const Frame here{eh, __func__};
  const std::size_t part = parser.terms.rows.size();
  for (const auto& node : list.children()) {
    const std::size_t first = parser.terms.rows.size();
    if (node->find("linked") != nullptr) {
      ADD_LINKED_TERMS_FROM_JPTR(eh, parser, *node, block);
    } else {
      ADD_TERM_FROM_JPTR(eh, parser, *node, block);
    }
    if (!eh.terminate() && has_flag(*node, "drop")) DROP_TERMS(eh, parser, part, first);
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
