// The residual part: a row of the term table for each section, without equations.  Routine: PARSE_RESIDUAL_FROM_JPTR.
#include <set>

#include "base/text.h"
#include "model/parse_terms.h"
#include "model/request.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

/// L_ADD_SECTION: the section of one list of components, of which at most one is a condition.
void L_ADD_SECTION(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, const std::vector<COMPONENT>& components)
{
  const Frame here{eh, __func__};
  TERM_ROW term{.block = Block::residual, .name = joined_name(parser, components)};
  std::vector<COMPONENT> structure;
  bool good = true;
  for (const COMPONENT& component : components) {
    if (parser.factors.row(component.row).kind != kind_section) {
      good = good && component.row != parser.mu;
      structure.push_back(component);
    } else {
      good = good && term.condition == 0;
      term.condition = component.row;
    }
  }
  if (!good || structure.empty()) {
    eh.error(text("unacceptable residual term: ", term.name));
    return;
  }
  if (node.is(JsonType::object)) term.initial_values = &node;
  term.code = ADD_COMPONENT_ROWS(eh, parser, structure);
  parser.terms.rows.push_back(std::move(term));
}

}  // namespace

void PARSE_RESIDUAL_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& part)
{
  const Frame here{eh, __func__};
  const JsonNode* terms = part.find("terms");
  if (terms == nullptr || !terms->is(JsonType::array) || terms->size() == 0) {
    REPORT_JSON_ERROR(eh, part, "terms");
    return;
  }
  const std::size_t first = parser.terms.rows.size();
  for (const auto& node : terms->children()) {
    if (node->find("linked") != nullptr || plain_name(*node) == parser.communication.VARIABLE_NAME_MV) {
      eh.error(text("unacceptable residual term: ", shown_name(parser, *node)));
      return;
    }
    std::vector<std::vector<COMPONENT>> sections;
    if (node->find("interaction") != nullptr) {
      sections = ADD_INTERACTION_FROM_JPTR(eh, parser, *node, Block::residual);
    } else if (node->find("function") != nullptr) {
      for (COMPONENT& component : ADD_FUNCTION_FROM_JPTR(eh, parser, *node, Block::residual))
        sections.push_back({std::move(component)});
    } else {
      sections.push_back({ADD_SPECIAL_TERM_FROM_JPTR(eh, parser, *node)});
    }
    const std::size_t added = parser.terms.rows.size();
    for (const std::vector<COMPONENT>& components : sections) {
      if (eh.terminate()) return;
      L_ADD_SECTION(eh, parser, *node, components);
    }
    if (!eh.terminate() && has_flag(*node, "drop")) DROP_TERMS(eh, parser, first, added);
    if (eh.terminate()) return;
  }

  if (parser.terms.rows.size() == first) {
    eh.error("should not have been able to remove all the terms");
    return;
  }
  // A record belongs to one section alone.
  std::set<std::pair<std::int64_t, double>> conditions;  // factor and level
  for (std::size_t t = first; t < parser.terms.rows.size(); ++t) {
    const TERM_ROW& term = parser.terms.rows[t];
    const FACTOR_ROW* condition = term.condition > 0 ? &parser.factors.row(term.condition) : nullptr;
    const bool several = parser.terms.rows.size() - first > 1;
    const bool known = condition != nullptr && condition->arguments.front() > 0;  // else the data have to tell the level
    if (several && (condition == nullptr || (known && !conditions.insert({condition->source, condition->arguments.front()}).second))) {
      eh.error(text("unacceptable residual term: ", term.name));
      eh.continuation(term.condition == 0 ? "each section needs the records that it is for, by sat() or dsum()"
                                          : "there is more than one section for the same records");
      return;
    }
  }
}

}  // namespace tolvan
