// Terms that share one structure, str(): the terms in consecutive rows of the term table, the structure in rows of its own.
// Routines: ADD_LINKED_TERMS_FROM_JPTR, AS_NEXTFACT.
#include "base/text.h"
#include "model/design_functions.h"
#include "model/parse_terms.h"
#include "model/request.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

/// L_CHECK_DEFINITION: the complaint about a structure that can not be read.
void L_CHECK_DEFINITION(ERROR_HANDLER& eh, const std::string& shown, const std::string& why)
{
  const Frame here{eh, __func__};
  eh.error(text("check definition for model term ", shown));
  eh.continuation(why);
}

/// AS_NEXTFACT: the factor row of the next component of a structure.  Its argument is a number of levels, or a factor whose
/// levels it has; a factor by itself stands for an identity, a pedigree factor for its relationship matrix.
FACTOR_ROW AS_NEXTFACT(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, const std::string& shown, Block block)
{
  const Frame here{eh, __func__};
  FACTOR_ROW row{.kind = kind_linked, .is_factor = true};
  const JsonNode* function = node.find("function");
  if (function == nullptr) {
    const std::string name(plain_name(node));
    row.source = parser.variables.find(name);
    if (row.source == 0) {
      eh.error(text("unrecognised factor ", name));
      eh.continuation(text("when processing ", shown));
      return row;
    }
    row.name = name;
    row.structure = parser.variables.row(row.source).is_pedigree_factor ? "nrm" : "id";
  } else {
    const std::string_view name = function_name(*function);
    if (is_design_function(name) || name == "at" || name == "sat") {
      L_CHECK_DEFINITION(eh, shown, text(name, "() can not stand in the structure of linked terms"));
      return row;
    }
    const JsonNode* arguments = function->find("arguments");
    const JsonNode* size = arguments == nullptr || arguments->size() == 0 ? nullptr : arguments->children().front()->find("value");
    if (size == nullptr) {
      eh.error(text("Unrecognised argument in ", shown));
      return row;
    }
    // The other arguments are read as of any call; a number in the place of the factor is then the number of levels.
    std::unique_ptr<JsonNode> call = node.clone();
    if (size->is(JsonType::integer)) {
      row.levels = size->integer();
      call->find("function")->find("arguments")->children().front()->find("value")->set(parser.communication.VARIABLE_NAME_UNITS);
    } else if (!plain_name(*size).empty() && parser.variables.find(plain_name(*size)) == 0) {
      eh.error(text("unrecognised factor ", plain_name(*size)));
      eh.continuation(text("when processing ", shown));
      return row;
    }
    const ALTERNATIVES read = ADD_FUNCTION_FROM_JPTR(eh, parser, *call, block);
    if (eh.terminate()) return row;
    if (read.size() != 1 || read.front().structure.empty()) {
      L_CHECK_DEFINITION(eh, shown, text(name, "() can not stand in the structure of linked terms"));
      return row;
    }
    const COMPONENT& component = read.front();
    if (size->is(JsonType::integer) && row.levels < 1) {
      L_CHECK_DEFINITION(eh, shown, text("a component of its structure has ", row.levels, " levels"));
      return row;
    }
    row.name = GET_FACNAME_FROM_JPTR(eh, parser.communication, node);
    if (!size->is(JsonType::integer)) row.source = component.row;
    row.structure = component.structure;
    row.init = component.init;
    row.arguments = component.arguments;
    row.order = component.order;
    row.second = component.second;
    row.dist = component.dist;
    row.matrix = component.matrix;
  }
  if (row.source > 0 && !parser.factors.row(row.source).is_factor) {
    L_CHECK_DEFINITION(eh, shown, text(parser.factors.row(row.source).name, " is a variate"));
    return row;
  }
  row.copy = row.source > 0;
  if (row.copy) row.variable = parser.factors.row(row.source).variable;
  return row;
}

}  // namespace

void ADD_LINKED_TERMS_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, Block block)
{
  const Frame here{eh, __func__};
  const JsonNode* linked = node.find("linked");
  const std::string shown = shown_name(parser, node);
  if (!linked->is(JsonType::array) || linked->size() == 0) {
    REPORT_JSON_ERROR(eh, node, "linked");
    return;
  }
  const JsonNode* structure = node.find("structure");
  if (structure == nullptr || structure->size() != 1) {
    L_CHECK_DEFINITION(eh, shown, "its structure has to be one product of variance functions");
    return;
  }
  if (block != Block::random) {
    L_CHECK_DEFINITION(eh, shown, "terms share a structure in the random part of the model alone");
    return;
  }

  const std::size_t head = parser.terms.rows.size();
  LOOP_OVER_TERMS_FROM_JPTR(eh, parser, *linked, block);
  if (eh.terminate()) return;
  if (parser.terms.rows.size() == head) {
    REPORT_JSON_ERROR(eh, node, "linked");
    return;
  }
  for (std::size_t t = head; t < parser.terms.rows.size(); ++t) {
    TERM_ROW& term = parser.terms.rows[t];
    const auto [from, to] = term.components();
    bool named = term.linked_head >= 0;
    for (std::int64_t i = from; i <= to; ++i) {
      // A pedigree factor takes its relationship matrix by itself: here the shared structure says what it is.
      FACTOR_ROW& row = parser.factors.row(i);
      if (row.structure == "nrm") row.structure.clear();
      named = named || !row.structure.empty();
    }
    if (named) {
      L_CHECK_DEFINITION(eh, shown, text("the term ", term.name, " has a structure of its own"));
      return;
    }
  }

  std::vector<const JsonNode*> components;
  const JsonNode& product = *structure->children().front();
  if (product.find("interaction") != nullptr) {
    FLATTEN_INTERACTION(eh, *product.find("interaction"), components);
  } else {
    components.push_back(&product);
  }
  std::vector<FACTOR_ROW> added;
  for (const JsonNode* component : components) {
    if (eh.terminate()) return;
    added.push_back(AS_NEXTFACT(eh, parser, *component, shown, block));
  }
  if (eh.terminate()) return;
  const std::int64_t first = parser.factors.count() + 1;
  for (FACTOR_ROW& row : added) {
    ADD_FACTOR_ROW(eh, parser, std::move(row));
    if (eh.terminate()) return;
  }
  for (std::size_t t = head; t < parser.terms.rows.size(); ++t) {
    TERM_ROW& term = parser.terms.rows[t];
    term.linked_head = static_cast<std::int64_t>(head);
    term.structure_first = first;
    term.structure_last = parser.factors.count();
    term.initial_values = &node;  // values are those of the structure
  }
}

}  // namespace tolvan
