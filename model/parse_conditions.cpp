// Terms at some levels of a factor: at() and sat().  Routine: ADD_CONDITION_FROM_JPTR.
#include <algorithm>

#include "base/text.h"
#include "model/parse_terms.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

/// One level that a call names: its number, or a label that only the data know.
struct ASKED_LEVEL {
  double value = 0.0;
  std::string label;
};

/// L_READ_LEVELS: the levels that a call names; none where it means all.
std::vector<ASKED_LEVEL> L_READ_LEVELS(ERROR_HANDLER& eh, const JsonNode& function)
{
  const Frame here{eh, __func__};
  std::vector<ASKED_LEVEL> levels;
  const JsonNode* value = supplied_value(function, "lvls");
  if (value == nullptr) return levels;
  const auto add = [&](const JsonNode& level) {
    if (level.is_number()) {
      levels.push_back({.value = level.number()});
    } else {
      levels.push_back({.label = std::string(plain_name(level))});
    }
  };
  if (!value->is(JsonType::array)) {
    add(*value);
  } else if (value->packed()) {
    for (std::int64_t k = 0; k < value->number_count(); ++k) levels.push_back({.value = value->number(k)});
  } else {
    for (const auto& level : value->children()) add(*level);
  }
  return levels;
}

/// The label of a level, else its number.
std::string level_text(const FACTOR_ROW& factor, const VARIABLE* variable, double value)
{
  const auto level = static_cast<std::int64_t>(value);
  if (variable != nullptr && level >= 1 && level <= variable->labels.size()) return variable->labels.label(level);
  if (level >= 1 && level <= std::ssize(factor.labels)) return factor.labels[static_cast<std::size_t>(level - 1)];
  return text(value);
}

/// L_FIND_LEVEL: the number of a label, once the data have told all labels; 0 before.
double L_FIND_LEVEL(ERROR_HANDLER& eh, MODEL_PARSER& parser, const VARIABLE& variable, const ASKED_LEVEL& asked)
{
  const Frame here{eh, __func__};
  if (asked.label.empty()) {
    if (parser.data_read && (asked.value < 1 || asked.value > static_cast<double>(variable.levels)))
      eh.error(text("expecting a value between 1 and ", variable.levels));
    return asked.value;
  }
  std::int64_t level = variable.labels.find(asked.label);
  // Without labels the text of a level is its number, as it is shown.
  if (variable.type == FieldType::integer_factor_1_to_n && variable.labels.size() == 0 && read_integer(asked.label, level))
    level = level >= variable.indexed_from && level - variable.indexed_from < variable.levels ? level - variable.indexed_from + 1 : 0;
  if (level == 0 && parser.data_read) eh.error(text(asked.label, " is not a valid level for variable ", variable.name));
  return static_cast<double>(level);
}

}  // namespace

ALTERNATIVES ADD_CONDITION_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, Block block)
{
  const Frame here{eh, __func__};
  const JsonNode& function = *node.find("function");
  const std::string shown = shown_name(parser, node);
  const JsonNode* arguments = function.find("arguments");
  if (arguments->size() > 2) {
    eh.error(text(arguments->size(), " arguments were supplied, we were expecting at most 2"));
    return {};
  }
  const COMPONENT factor = ADD_ARGUMENT_FROM_JPTR(eh, parser, function, "variable_name", shown, block);
  if (eh.terminate()) return {};
  const FACTOR_ROW base = parser.factors.row(factor.row);
  const bool of_data = base.variable > 0 && base.kind == 0 && base.is_factor;
  const VARIABLE* variable = of_data ? &parser.variables.row(base.variable) : nullptr;

  if (variable != nullptr && !parser.data_read) parser.info.waits_for_levels = true;  // to see that the levels exist

  std::vector<ASKED_LEVEL> asked = L_READ_LEVELS(eh, function);
  const bool all = asked.empty();
  if (all && variable != nullptr && parser.data_read) {
    for (std::int64_t level = 1; level <= variable->levels; ++level) asked.push_back({.value = static_cast<double>(level)});
  } else if (all && variable != nullptr) {
    asked.push_back({});  // one row holds the place
  } else if (all && base.reserved == Reserved::trait) {
    for (std::int64_t level = 1; level <= base.levels; ++level) asked.push_back({.value = static_cast<double>(level)});
  }
  if (asked.empty()) {
    eh.error(text("Unrecognised argument in ", shown));
    eh.continuation(text("the levels of ", base.name, " have to be named"));
    return {};
  }

  ALTERNATIVES read;
  const COMMUNICATION& words = parser.communication;
  const JsonNode* levels = supplied_value(function, "lvls");
  const bool as_written = levels != nullptr && !levels->is(JsonType::array);
  for (const ASKED_LEVEL& level : asked) {
    const bool waiting = all && !parser.data_read && variable != nullptr;
    double value = level.value;
    if (variable != nullptr && !waiting) value = L_FIND_LEVEL(eh, parser, *variable, level);
    if (variable == nullptr && !level.label.empty()) {
      const auto known = std::find(base.labels.begin(), base.labels.end(), level.label);
      value = static_cast<double>(known - base.labels.begin() + 1);
      if (known == base.labels.end()) eh.error(text(level.label, " is not a valid level for variable ", base.name));
    } else if (base.reserved == Reserved::trait && (value < 1 || value > static_cast<double>(base.levels))) {
      eh.error(text("expecting a value between 1 and ", base.levels));
    }
    if (eh.terminate()) {
      eh.continuation(text("when processing ", shown));
      return {};
    }
    COMPONENT component{.name = shown};
    if (!as_written && !waiting) {
      component.name = text(function_name(function), words.FUN_OPEN_BRACE, base.name, words.FUN_ARG_SEP,
                            level_text(base, variable, value), words.FUN_CLOSE_BRACE);
    }
    component.row = ADD_FACTOR_ROW(eh, parser, {.name = component.name,
                                                .kind = block == Block::residual ? kind_section : kind_at,
                                                .source = factor.row,
                                                .variable = base.variable,
                                                .levels = 1,
                                                .arguments = {value}});
    if (eh.terminate()) return {};
    read.push_back(std::move(component));
  }
  return read;
}

}  // namespace tolvan
