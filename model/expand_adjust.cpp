// What single functions ask of the rest of the request: offset, grp, vm, at, sat and dsum.
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
  if (const JsonNode* model = root.find("model")) look_in(model->find("variables"));
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
  const VariableLevels levels = L_FIND_VAR_LEVELS(eh, root, name);
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

/// L_FIND_MATRIX_ENTRY: the entry of grm_file for a matrix, added when there is none.
JsonNode* L_FIND_MATRIX_ENTRY(ERROR_HANDLER& eh, JsonNode& root, const std::string& source)
{
  const Frame here{eh, __func__};
  JsonNode* list = root.find("grm_file");
  if (list == nullptr) list = &root.add("grm_file", JsonType::array);
  if (list->is(JsonType::object)) {
    std::unique_ptr<JsonNode> entry = list->clone();
    entry->name.clear();
    list->set_array();
    list->add(std::move(entry));
  }
  if (!list->is(JsonType::array) || (list->packed() && list->number_count() > 0)) {
    REPORT_JSON_ERROR(eh, *list, {"an object", "an array of objects"});
    return nullptr;
  }
  for (const auto& entry : list->children()) {
    const JsonNode* name = entry->find("name");
    if (name == nullptr || !name->is_text(source)) continue;
    if (const JsonNode* type = entry->find("type")) {
      const bool known = type->is_text("ft_data") || type->is_text("ft_csv") || type->is_text("ft_text");
      if (!known) {
        eh.error(text("unexpected type in grm_file node, with name = ", source));
        return nullptr;
      }
    }
    return entry.get();
  }
  JsonNode& entry = list->add("", JsonType::object);
  entry.add_value("name", source);
  entry.add_value("type", "ft_data");
  return &entry;
}

template <class Value>
void set_key(JsonNode& object, std::string_view key, Value value)
{
  if (JsonNode* node = object.find(key)) {
    node->set(std::move(value));
  } else {
    object.add_value(std::string(key), std::move(value));
  }
}

/// L_ADJUST_VM: connects a factor to its structure matrix, which gets an entry among the matrix files.
void L_ADJUST_VM(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root, JsonNode& term)
{
  const Frame here{eh, __func__};
  JsonNode& function = *term.find("function");
  if (function.find("arguments")->size() < 2) {
    eh.error("was expecting at least two arguments");
    return;
  }
  const std::string shown = GET_FACNAME_FROM_JPTR(eh, communication, term);
  const JsonNode* source = find_argument(function, "source")->find("value");
  if (!source->is(JsonType::string)) {
    REPORT_JSON_ERROR(eh, *source, {"the name of a matrix"});
    return;
  }
  const std::string matrix = source->text();
  const std::string kind = find_argument(function, "singG")->find("value")->text();
  if (!equal_nocase(kind, "PD") && !equal_nocase(kind, "ND") && !equal_nocase(kind, "PSD")) {
    eh.error(text("invalid value supplied for singG: ", kind, ", was expecting one of: PD, ND or PSD"));
    return;
  }
  JsonNode* entry = L_FIND_MATRIX_ENTRY(eh, root, matrix);
  if (eh.terminate()) return;
  set_key(*entry, "giv", text(matrix, ".vm"));
  if (equal_nocase(kind, "ND")) set_key(*entry, "nsd", true);
  if (equal_nocase(kind, "PSD")) set_key(*entry, "psd", true);
  if (const JsonNode* ldet = supplied_value(function, "ldet")) set_key(*entry, "ldet", ldet->number());
  if (const JsonNode* invert = supplied_value(function, "invert"))
    set_key(*entry, "invert", invert->logical());
  set_key(term, "user_facing_factor_name", shown);
}

/// L_ADJUST_DSUM: checks that the levels of dsum() are a vector, or a vector for each term of its sum.
/// The sum itself is written out where its sections are formed, since only the data tell all levels.
void L_ADJUST_DSUM(ERROR_HANDLER& eh, const COMMUNICATION& communication, const JsonNode& term)
{
  const Frame here{eh, __func__};
  const JsonNode& function = *term.find("function");
  JsonNode sum(JsonType::object);
  const JsonNode* terms = API_FORMULA_STRING_TO_JPTR(
      eh, communication, &sum, find_argument(function, "model")->find("value")->text(), "terms");
  const JsonNode* levels = supplied_value(function, "levels");
  if (eh.terminate() || levels == nullptr) return;
  const auto vectors =
      std::count_if(levels->children().begin(), levels->children().end(),
                    [](const auto& element) { return element->is(JsonType::array); });
  if (!levels->is(JsonType::array) || (vectors > 0 && vectors != levels->size())) {
    eh.error("expected the levels argument to either be a vector or a vector of vectors");
  } else if (vectors > 0 && vectors != terms->size()) {
    eh.error("expected the number of elements in the levels argument to match the number of terms");
    eh.continuation(text("number of terms: ", terms->size(), ", number of elements in levels: ", vectors));
  }
}

/// L_ADJUST_OFFSET: takes an offset out of the terms to a place of its own in the model.
void L_ADJUST_OFFSET(ERROR_HANDLER& eh, JsonNode& root, std::unique_ptr<JsonNode> term)
{
  const Frame here{eh, __func__};
  const JsonNode* arguments = term->find("function")->find("arguments");
  if (arguments == nullptr || arguments->size() == 0) {
    eh.error("was expecting at least one argument");
    return;
  }
  JsonNode& model = *root.find("model");
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

void API_ADJUST_FUNCTION(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root,
                         JsonNode& term)
{
  const Frame here{eh, __func__};
  const std::string_view name = function_name(*term.find("function"));
  if (name == "vm") {
    L_ADJUST_VM(eh, communication, root, term);
  } else if (name == "at" || name == "sat") {
    L_ADJUST_AT(eh, communication, root, term);
  } else if (name == "dsum") {
    L_ADJUST_DSUM(eh, communication, term);
  }
}

void API_ADJUST_TERMS(ERROR_HANDLER& eh, JsonNode& root, JsonNode& list)
{
  const Frame here{eh, __func__};
  for (std::size_t k = 0; k < list.children().size();) {
    JsonNode& term = *list.children()[k];
    if (is_call_of(term, "offset") && !has_flag(term, "drop")) {
      L_ADJUST_OFFSET(eh, root, list.detach(&term));
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
