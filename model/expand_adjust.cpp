// What single functions ask of the rest of the request: offset, grp, at, sat, str and the distance models; vm() and dsum() have
// files of their own.
#include <algorithm>

#include "base/text.h"
#include "model/expand_model.h"
#include "model/formula_nodes.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

/// The description of a variable, of any dataset or of the data file; described tells whether there is any
/// description.
const JsonNode* find_variable(const JsonNode& root, std::string_view name, bool& described)
{
  described = false;
  const JsonNode* found = nullptr;
  const auto look_in = [&](const JsonNode* variables) {
    if (variables == nullptr) return;
    described = described || variables->size() > 0;
    for (const auto& variable : variables->children()) {
      const JsonNode* own = variable->find("name");
      if (found == nullptr && own != nullptr && own->is_text(name)) found = variable.get();
    }
  };
  look_in(root.find("variables"));
  for (const JsonNode* model : models_of(root)) look_in(model->find("variables"));
  if (const JsonNode* file = root.find("data_file")) look_in(file->find("variables"));
  if (const JsonNode* datasets = root.find("dataset"))
    for (const auto& dataset : datasets->children()) look_in(dataset->find("variables"));
  return found;
}

/// The levels of a variable as far as its description tells them.
struct VariableLevels {
  std::int64_t count = 0;            // 0: only the data tell
  const JsonNode* labels = nullptr;  // null: none given
  std::int64_t indexed_from = 1;

  std::int64_t find(std::string_view label) const
  {
    if (labels == nullptr) return 0;
    for (std::int64_t k = 0; k < static_cast<std::int64_t>(labels->children().size()); ++k)
      if (labels->children()[static_cast<std::size_t>(k)]->is_text(label)) return k + 1;
    return 0;
  }
};

/// L_FIND_VAR_LEVELS: looks up what is told of a variable's levels.
VariableLevels L_FIND_VAR_LEVELS(ERROR_HANDLER& eh, const JsonNode& root, std::string_view name)
{
  const Frame here{eh, __func__};
  bool described = false;
  const JsonNode* variable = find_variable(root, name, described);
  VariableLevels levels;
  if (variable == nullptr) {
    if (described) eh.error(text("variable ", name, " is not in the supplied dataset"));
    return levels;
  }
  if (const JsonNode* labels = variable->find("factor_labels");
      labels != nullptr && labels->is(JsonType::array) && !labels->packed()) {
    levels.labels = labels;
    levels.count = labels->size();
  }
  if (const JsonNode* count = variable->find("number_of_levels"))
    levels.count = std::max(levels.count, count->integer());
  if (const JsonNode* from = variable->find("factor_labels_indexed_from");
      from != nullptr && from->is(JsonType::integer))
    levels.indexed_from = from->integer();
  return levels;
}

/// L_CONVERT_JPTR_VALUE_TO_LEVEL_ID: turns a level, given by number or label, into its number; a label that
/// only the data know stays.
void L_CONVERT_JPTR_VALUE_TO_LEVEL_ID(ERROR_HANDLER& eh, const VariableLevels& levels,
                                      std::string_view variable, JsonNode& value)
{
  const Frame here{eh, __func__};
  if (value.is(JsonType::integer)) {
    if (levels.count > 0 && (value.integer() < 1 || value.integer() > levels.count))
      eh.error(text("expecting a value between 1 and ", levels.count));
  } else if (value.is(JsonType::string)) {
    if (const std::int64_t level = levels.find(value.text()); level > 0) {
      value.set(level);
    } else if (levels.labels != nullptr) {
      eh.error(text(value.text(), " is not a valid level for variable ", variable));
    }
  } else {
    eh.error("invalid factor level supplied, expected either an integer or string");
  }
}

/// L_ADJUST_AT: writes the levels of at() and sat() as numbers, keeping the term as the user wrote it for
/// output.
void L_ADJUST_AT(ERROR_HANDLER& eh, const COMMUNICATION& communication, const JsonNode& root, JsonNode& term)
{
  const Frame here{eh, __func__};
  JsonNode& function = *term.find("function");
  JsonNode* argument = find_argument(function, "lvls");
  const JsonNode* variable = find_argument(function, "variable_name")->find("value");
  if (argument == nullptr || !is_supplied(*argument) || plain_name(*variable).empty()) return;
  const std::string name(plain_name(*variable));
  const std::string shown = GET_FACNAME_FROM_JPTR(eh, communication, term);
  // Traits and records are no variables of the data: their levels are told where the model is read.
  const bool reserved = name == communication.VARIABLE_NAME_TRAIT || name == communication.VARIABLE_NAME_UNITS;
  const VariableLevels levels = reserved ? VariableLevels{} : L_FIND_VAR_LEVELS(eh, root, name);
  if (eh.terminate()) return;
  JsonNode& value = *argument->find("value");
  if (value.is(JsonType::array)) {
    value.unpack();
    for (const auto& level : value.children()) {
      L_CONVERT_JPTR_VALUE_TO_LEVEL_ID(eh, levels, name, *level);
      if (eh.terminate()) return;
    }
  } else {
    L_CONVERT_JPTR_VALUE_TO_LEVEL_ID(eh, levels, name, value);
    if (eh.terminate()) return;
  }
  if (term.find("user_facing_factor_name") == nullptr) term.add_value("user_facing_factor_name", shown);
}

/// L_DIST_2_COORD: the coordinates handed to a distance model are a vector of numbers, also when there is only one.
void L_DIST_2_COORD(ERROR_HANDLER& eh, JsonNode& argument)
{
  const Frame here{eh, __func__};
  if (!is_supplied(argument)) return;
  JsonNode& value = *argument.find("value");
  if (value.is_number()) {
    const double only = value.number();
    value.set_array();
    value.append_number(only);
  }
  bool numbers = value.is(JsonType::array) && value.size() > 0;
  if (numbers && !value.packed())
    for (const auto& element : value.children()) numbers = numbers && element->is_number();
  if (!numbers) eh.error("expected a vector of reals for argument \"dist");  // sic
}

/// L_ADJUST_STR: gives str() its terms under "linked" and the product of its structure under "structure"; true if a call
/// within it failed.
bool L_ADJUST_STR(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root, JsonNode& term,
                  TermPlace place)
{
  const Frame here{eh, __func__};
  const JsonNode& function = *term.find("function");
  ++place.depth;
  struct Part {
    std::string_view argument;
    const char* key;
    bool keep;  // what the formula layer made stays
  };
  for (const Part& p : {Part{"form", "linked", true}, Part{"vmodel", "structure", false}}) {
    if (p.keep && term.find(p.key) != nullptr) continue;
    term.remove(p.key);
    const std::string text = find_argument(function, p.argument)->find("value")->text();
    JsonNode* list = API_FORMULA_STRING_TO_JPTR(eh, communication, &term, text, p.key);
    if (eh.terminate()) return false;
    API_PROCESS_MODEL_FUNCTIONS(eh, communication, root, *list, place);
    if (eh.terminate()) return true;
  }
  return false;
}

/// L_ADJUST_OFFSET: takes an offset out of the terms to a place of its own in their model.
void L_ADJUST_OFFSET(ERROR_HANDLER& eh, JsonNode& model, std::unique_ptr<JsonNode> term)
{
  const Frame here{eh, __func__};
  const JsonNode* arguments = term->find("function")->find("arguments");
  if (arguments == nullptr || arguments->size() == 0) {
    eh.error("was expecting at least one argument");
    return;
  }
  if (model.find("offset") != nullptr) {
    eh.error("multiple offsets have been supplied in the model, was only expecting one");
    return;
  }
  term->name = "offset";
  model.add(std::move(term));
}

/// L_ADJUST_GRP: leaves the variable alone in the place of grp(variable).
void L_ADJUST_GRP(ERROR_HANDLER& eh, JsonNode& term)
{
  const Frame here{eh, __func__};
  const JsonNode* value = find_argument(*term.find("function"), "variable_name")->find("value");
  const std::string name(plain_name(*value));
  if (name.empty()) return;
  eh.warning(text("the use of the grp function is not required. This term will be treated as if just ", name,
                  " was supplied instead"));
  const bool dropped = has_flag(term, "drop");
  term.set(name);
  if (!dropped) return;
  term.set_object();
  term.add_value("term_name", name);
  term.add_value("drop", true);
}

bool is_call_of(const JsonNode& term, std::string_view name)
{
  const JsonNode* function = term.find("function");
  return function != nullptr && function_name(*function) == name;
}

}  // namespace

bool API_ADJUST_FUNCTION(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root,
                         JsonNode& term, const TermPlace& place)
{
  const Frame here{eh, __func__};
  JsonNode& function = *term.find("function");
  const std::string_view name = function_name(function);
  if (name == "vm" || name == "ric" || name == "ide") {
    API_ADJUST_VM(eh, communication, root, term);
  } else if (name == "at" || name == "sat") {
    L_ADJUST_AT(eh, communication, root, term);
  } else if (name == "dsum") {
    API_CHECK_DSUM(eh, communication, term);
  } else if (name == communication.LINK_FUN_NAME) {
    return L_ADJUST_STR(eh, communication, root, term, place);
  } else if (JsonNode* dist = find_argument(function, "dist")) {
    L_DIST_2_COORD(eh, *dist);
  }
  return false;
}

void API_ADJUST_TERMS(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root, JsonNode& list,
                      std::string_view part)
{
  const Frame here{eh, __func__};
  API_EXPAND_DSUM(eh, communication, root, list, part);
  if (eh.terminate()) return;
  for (std::size_t k = 0; k < list.children().size();) {
    JsonNode& term = *list.children()[k];
    if (is_call_of(term, "offset") && !has_flag(term, "drop")) {
      L_ADJUST_OFFSET(eh, *list.parent()->parent(), list.detach(&term));  // the part of the list, its model
      if (eh.terminate()) return;
      continue;
    }
    if (is_call_of(term, "grp")) L_ADJUST_GRP(eh, term);
    if (JsonNode* factors = term.find("interaction")) {
      for (const auto& factor : factors->children())
        if (is_call_of(*factor, "grp")) L_ADJUST_GRP(eh, *factor);
    }
    ++k;
  }
}

}  // namespace tolvan
