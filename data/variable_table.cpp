// The table of variables.  Routines: NEW_AIDTIN, PROCESS_NUMBER_OF_LEVELS, UPDATE_NUMBER_OF_LEVELS, INITFLL,
// GET_LEVEL_NAME.
#include "data/variable_table.h"

#include <algorithm>
#include <array>
#include <limits>
#include <unordered_set>

#include "base/text.h"
#include "data/label_text.h"
#include "data/request_values.h"
#include "data/variable_groups.h"
#include "model/request.h"

namespace tolvan {

namespace {

struct TypeWord {
  std::string_view word;
  FieldType type;
  FieldContent content = FieldContent::number;
};
constexpr std::array field_types = {
    TypeWord{"vt_variate", FieldType::variate},
    TypeWord{"vt_string_factor", FieldType::string_factor},
    TypeWord{"vt_integer_factor", FieldType::integer_factor},
    TypeWord{"vt_integer_factor_1_to_n", FieldType::integer_factor_1_to_n},
    TypeWord{"vt_date", FieldType::variate, FieldContent::date},
    TypeWord{"vt_time", FieldType::variate, FieldContent::time},
};

constexpr std::int64_t most_levels = std::numeric_limits<std::int32_t>::max();

void read_field_type(ERROR_HANDLER& eh, const JsonNode& description, VARIABLE& variable)
{
  const JsonNode* node = given_value(description, "field_type");
  if (node == nullptr) return;
  for (const TypeWord& known : field_types) {
    if (node->is_text(known.word)) {
      variable.type = known.type;
      variable.content = known.content;
      return;
    }
  }
  REPORT_JSON_ERROR(eh, *node,
                    {field_types[0].word, field_types[1].word, field_types[2].word, field_types[3].word});
}

/// An integer of at least a least value; target keeps its value where the key is absent.
void read_integer(ERROR_HANDLER& eh, const JsonNode& description, std::string_view key, std::int64_t least,
                  std::string_view expected, std::int64_t& target)
{
  const JsonNode* node = given_value(description, key);
  if (node == nullptr) return;
  if (!node->is(JsonType::integer) || node->integer() < least || node->integer() > most_levels) {
    REPORT_JSON_ERROR(eh, *node, {expected});
    return;
  }
  target = node->integer();
}

void read_flag(ERROR_HANDLER& eh, const JsonNode& description, std::string_view key, bool& target)
{
  const JsonNode* node = given_value(description, key);
  if (node == nullptr) return;
  if (node->is(JsonType::logical)) {
    target = node->logical();
  } else if (node->is_text(no_value_supplied)) {
    target = true;
  } else {
    REPORT_JSON_ERROR(eh, *node, {"true", "false"});
  }
}

void read_name(ERROR_HANDLER& eh, const JsonNode& description, std::string_view key, std::string& target)
{
  const JsonNode* node = given_value(description, key);
  if (node == nullptr) return;
  if (node->is(JsonType::string)) {
    target = node->text();
  } else {
    REPORT_JSON_ERROR(eh, *node, {"a string"});
  }
}

/// The request around a description.
const JsonNode* root_of(const JsonNode& description)
{
  const JsonNode* root = &description;
  while (root->parent() != nullptr) root = root->parent();
  return root;
}

/// The description of a dataset of the request; null if there is none of that name.
JsonNode* dataset_named(const JsonNode* root, const std::string& name)
{
  JsonNode* found = nullptr;
  for (const auto& child : root->children()) {
    if (child->name != "dataset") continue;
    for (JsonNode* dataset : list_entries(*child)) {
      const JsonNode* known = given_value(*dataset, "name");
      if (known != nullptr && known->is_text(name)) found = dataset;  // the last description counts
    }
  }
  return found;
}

/// L_READ_RECODING: takes the labels of the matrix that a factor has to follow.
void L_READ_RECODING(ERROR_HANDLER& eh, const JsonNode& description, VARIABLE& variable)
{
  const Frame here{eh, __func__};
  std::string source;
  read_name(eh, description, "recode_factor_labels_from", source);
  if (eh.terminate()) return;
  read_name(eh, description, "recode_factor_labels_because", variable.recode_because);
  if (eh.terminate() || source.empty()) return;
  if (!variable.is_factor()) {
    eh.error(text("the levels of ", variable.name, " can not follow those of ", source, ", it is a variate"));
    return;
  }
  const JsonNode* dataset = dataset_named(root_of(description), source);
  JsonNode* columns = dataset == nullptr ? nullptr : dataset->find("variables");
  if (columns == nullptr) {
    REPORT_JSON_ERROR(eh, *description.find("recode_factor_labels_from"), {"the name of a dataset with variables"});
    return;
  }
  for (const JsonNode* column : list_entries(*columns)) {
    const JsonNode* label = given_value(*column, "name");
    variable.recode_labels.push_back(label == nullptr ? std::string() : label->text());
  }
}

/// Adds one declared label, cut like the labels of the data.
void add_label(ERROR_HANDLER& eh, VARIABLE& variable, std::string_view label)
{
  const std::string_view kept = cut_label(label, variable.label_length);
  if (kept.size() < label.size()) {
    eh.note(text("Truncating label \"", label, ". Reset label length with !LL"));  // sic
    eh.continuation(text("of variable ", variable.name, ", its label_length is ", variable.label_length));
  }
  if (variable.labels.find(kept) != 0) {
    eh.error(text("the factor label ", kept, " of variable ", variable.name, " is not unique"));
    return;
  }
  variable.labels.find_or_add(kept);
}

void read_factor_labels(ERROR_HANDLER& eh, const JsonNode& description, VARIABLE& variable)
{
  const JsonNode* node = given_value(description, "factor_labels");
  if (node == nullptr || (node->is(JsonType::array) && node->size() == 0)) return;
  if (!variable.is_factor()) {
    eh.warning(text("the factor labels of ", variable.name, " are not used, it is a variate"));
    return;
  }
  if (!node->is(JsonType::array)) {
    REPORT_JSON_ERROR(eh, *node, {"an array of strings"});
    return;
  }
  if (node->packed()) {
    for (std::int64_t k = 0; k < node->number_count(); ++k) {
      add_label(eh, variable, node->is_integer(k) ? text(node->integer(k)) : real_text(node->number(k)));
      if (eh.terminate()) return;
    }
  } else {
    for (const auto& label : node->children()) {
      if (label->is(JsonType::string)) {
        add_label(eh, variable, label->text());
      } else if (label->is_number()) {
        add_label(eh, variable, json_text(*label));
      } else {
        REPORT_JSON_ERROR(eh, *label, {"a string"});
      }
      if (eh.terminate()) return;
    }
  }
  variable.labels_fixed = true;
}

/// L_READ_VARIABLE: reads what one description tells of its variable alone.
///   names   of the variables before it
void L_READ_VARIABLE(ERROR_HANDLER& eh, const COMMUNICATION& communication, const JsonNode& description,
                     std::unordered_set<std::string>& names, VARIABLE_TABLE& table)
{
  const Frame here{eh, __func__};
  if (!description.is(JsonType::object)) {
    REPORT_JSON_ERROR(eh, description, {"an object that describes a variable"});
    return;
  }
  const JsonNode* name = given_value(description, "name");
  if (name == nullptr) {
    REPORT_JSON_ERROR(eh, description, "name");
    return;
  }
  if (!name->is(JsonType::string)) {
    REPORT_JSON_ERROR(eh, *name, {"a string"});
    return;
  }
  VARIABLE variable;
  variable.name = name->text();
  CHECK_VARIABLE_NAME_VALIDITY(eh, communication, variable.name);
  if (eh.terminate()) return;
  if (!names.insert(variable.name).second) {
    eh.error(text("duplicate variable name, ", variable.name,
                  ", has been supplied, variable names must be unique"));
    return;
  }
  read_field_type(eh, description, variable);
  if (eh.terminate()) return;
  if (variable.type == FieldType::string_factor) {
    read_integer(eh, description, "label_length", 1, "a positive integer", variable.label_length);
    if (eh.terminate()) return;
  }
  read_integer(eh, description, "factor_labels_indexed_from", -most_levels, "an integer",
               variable.indexed_from);
  if (eh.terminate()) return;
  read_factor_labels(eh, description, variable);
  if (eh.terminate()) return;
  if (variable.type == FieldType::string_factor || variable.type == FieldType::integer_factor) {
    read_flag(eh, description, "sort", variable.sort);
    if (eh.terminate()) return;
  }
  read_flag(eh, description, "is_pedigree_factor", variable.is_pedigree_factor);
  if (eh.terminate()) return;
  if (variable.is_pedigree_factor && !asks_for_something(given_value(*root_of(description), "pedigree_file"))) {
    eh.warning(text("variable ", variable.name, " is marked as a pedigree factor, but the request has no pedigree_file"));
  }
  read_name(eh, description, "group", variable.group);
  if (eh.terminate()) return;
  L_READ_RECODING(eh, description, variable);
  if (eh.terminate()) return;
  variable.column = table.places + 1;
  variable.place = variable.column;
  variable.column_given = given_value(description, "user_column_number") != nullptr;
  read_integer(eh, description, "user_column_number", 0, "a positive integer", variable.column);
  if (eh.terminate()) return;

  if (variable.column != 0) ++table.places;
  if (variable.label_length > table.longest_label) table.longest_label = variable.label_length;
  table.rows.push_back(std::move(variable));
}

}  // namespace

std::int64_t VARIABLE_TABLE::find(std::string_view name) const
{
  for (std::int64_t i = 1; i <= count(); ++i) {
    if (row(i).name == name) return i;
  }
  return 0;
}

void NEW_AIDTIN(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode* variables,
                VARIABLE_TABLE& table)
{
  const Frame here{eh, __func__};
  table = {};
  if (variables == nullptr) {
    eh.error("no variables supplied in the dataset description");
    return;
  }
  const std::vector<JsonNode*> descriptions = list_entries(*variables);
  if (descriptions.empty()) {
    eh.error("no variables supplied in the dataset description");
    return;
  }
  std::unordered_set<std::string> names;
  for (const JsonNode* description : descriptions) {
    L_READ_VARIABLE(eh, communication, *description, names, table);
    if (eh.terminate()) return;
  }
  // Levels may be shared with a variable further down, so the whole table stands before they are looked at.
  const JsonNode* dataset = variables->parent();
  ADD_GROUPS(eh, dataset == nullptr ? nullptr : given_value(*dataset, "group"), communication, table);
  if (eh.terminate()) return;
  const auto described = static_cast<std::int64_t>(descriptions.size());  // further ones are members of groups
  for (std::int64_t i = 1; i <= described; ++i) {
    PROCESS_NUMBER_OF_LEVELS(eh, table, i, *descriptions[static_cast<std::size_t>(i - 1)]);
    if (eh.terminate()) return;
  }
  CHECK_GROUPS(eh, table);
  if (eh.terminate()) return;
  for (std::int64_t i = 1; i <= described; ++i) {
    JsonNode* list = descriptions[static_cast<std::size_t>(i - 1)]->find("transformations");
    PROCESS_DATA_TRANSFORMATIONS_FROM_JPTR(eh, list, i, table);
    if (eh.terminate()) return;
  }
}

void PROCESS_NUMBER_OF_LEVELS(ERROR_HANDLER& eh, VARIABLE_TABLE& table, std::int64_t row,
                              JsonNode& description)
{
  const Frame here{eh, __func__};
  VARIABLE& variable = table.row(row);
  const JsonNode* shared = given_value(description, "code_levels_as");
  if (shared == nullptr || shared->is_text("")) {
    if (variable.is_factor()) UPDATE_NUMBER_OF_LEVELS(eh, variable, description);
    return;
  }
  if (!shared->is(JsonType::string)) {
    REPORT_JSON_ERROR(eh, *shared, {"the name of a variable"});
    return;
  }
  if (shared->is_text("vt_integer_factor_1_to_n")) {  // the levels follow a matrix, or numbers are levels already
    if (variable.recode_labels.empty() && variable.type == FieldType::integer_factor) {
      variable.type = FieldType::integer_factor_1_to_n;
    }
    if (variable.is_factor()) UPDATE_NUMBER_OF_LEVELS(eh, variable, description);
    return;
  }
  std::int64_t other = table.find(shared->text());
  if (other == 0) {
    const std::vector<std::int64_t> members = table.members(shared->text());
    if (!members.empty()) other = members.front();
  }
  if (other == 0) {
    eh.error(text(shared->text(), " is an unknown variable when trying to match levels for variable ",
                  variable.name));
    return;
  }
  if (table.row(other).type != variable.type || !variable.is_factor()) {
    eh.error(text("the levels of ", variable.name, " can not be coded as those of ", shared->text(),
                  ", both must be factors of the same field type"));
    return;
  }
  variable.code_levels_as = shared->text();
  variable.shares_levels_with = other;
}

void UPDATE_NUMBER_OF_LEVELS(ERROR_HANDLER& eh, VARIABLE& variable, const JsonNode& description)
{
  const Frame here{eh, __func__};
  const JsonNode* node = given_value(description, "number_of_levels");
  if (node == nullptr) return;
  if (!node->is(JsonType::integer)) {
    REPORT_JSON_ERROR(eh, *node, {"an integer"});
    return;
  }
  if (node->integer() < 1 || node->integer() > most_levels) {
    eh.error(text("invalid number of levels supplied for ", variable.name,
                  ", supplied value = ", node->integer()));
    return;
  }
  variable.declared_levels = node->integer();
}

std::vector<std::int64_t> level_owners(const VARIABLE_TABLE& table)
{
  // A forest over the rows: each root is the first row of its tree.
  std::vector<std::int64_t> parent(static_cast<std::size_t>(table.count()) + 1);
  for (std::size_t i = 0; i < parent.size(); ++i) parent[i] = static_cast<std::int64_t>(i);
  const auto root = [&parent](std::int64_t i) {
    while (parent[static_cast<std::size_t>(i)] != i) {
      std::int64_t& up = parent[static_cast<std::size_t>(i)];
      i = up = parent[static_cast<std::size_t>(up)];  // halves the path
    }
    return i;
  };
  for (std::int64_t i = 1; i <= table.count(); ++i) {
    if (table.row(i).shares_levels_with == 0) continue;
    const std::int64_t a = root(i);
    const std::int64_t b = root(table.row(i).shares_levels_with);
    parent[static_cast<std::size_t>(std::max(a, b))] = std::min(a, b);
  }
  std::vector<std::int64_t> owners;
  for (std::int64_t i = 1; i <= table.count(); ++i) owners.push_back(root(i));
  return owners;
}

namespace {

bool equal_labels(const LEVEL_TABLE& a, const LEVEL_TABLE& b)
{
  if (a.size() != b.size()) return false;
  for (std::int64_t l = 1; l <= a.size(); ++l) {
    if (a.label(l) != b.label(l)) return false;
  }
  return true;
}

/// L_SHARE_DECLARED_LEVELS: gathers what the variables of each group declare at its first and hands it to
/// all.
void L_SHARE_DECLARED_LEVELS(ERROR_HANDLER& eh, VARIABLE_TABLE& table)
{
  const Frame here{eh, __func__};
  const std::vector<std::int64_t> owners = level_owners(table);
  for (std::int64_t i = 1; i <= table.count(); ++i) {
    const VARIABLE& member = table.row(i);
    VARIABLE& owner = table.row(owners[static_cast<std::size_t>(i - 1)]);
    if (&owner == &member) continue;
    if (member.labels_fixed && !equal_labels(member.labels, owner.labels)) {
      if (owner.labels_fixed) {
        eh.error(text("factor labels were given for both ", owner.name, " and ", member.name,
                      ", which share their levels"));
        return;
      }
      owner.labels = member.labels;
      owner.labels_fixed = true;
      owner.indexed_from = member.indexed_from;
    }
    owner.declared_levels = std::max(owner.declared_levels, member.declared_levels);
    owner.sort = owner.sort || member.sort;
  }
  for (std::int64_t i = 1; i <= table.count(); ++i) {
    const VARIABLE& owner = table.row(owners[static_cast<std::size_t>(i - 1)]);
    VARIABLE& member = table.row(i);
    if (&owner == &member) continue;
    member.labels = owner.labels;
    member.labels_fixed = owner.labels_fixed;
    member.indexed_from = owner.indexed_from;
    member.declared_levels = owner.declared_levels;
    member.sort = owner.sort;
  }
}

}  // namespace

void INITFLL(ERROR_HANDLER& eh, VARIABLE_TABLE& table)
{
  const Frame here{eh, __func__};
  L_SHARE_DECLARED_LEVELS(eh, table);
  if (eh.terminate()) return;
  for (VARIABLE& variable : table.rows) {
    if (!variable.is_factor()) {
      variable.levels = 1;
      continue;
    }
    if (variable.labels_fixed && variable.declared_levels != 0 && variable.recode_labels.empty() &&
        variable.labels.size() != variable.declared_levels) {
      eh.error("FLLKEY not consistent with labels listed in JSON");
      eh.continuation(text("variable ", variable.name, " has ", variable.labels.size(), " factor labels and ",
                           variable.declared_levels, " levels"));
      return;
    }
    variable.levels = variable.labels_fixed ? variable.labels.size() : variable.declared_levels;
  }
}

std::string GET_LEVEL_NAME(ERROR_HANDLER& eh, const VARIABLE& variable, std::int64_t level)
{
  const Frame here{eh, __func__};
  if (level <= 0) return "NA";
  if (level <= variable.labels.size()) return variable.labels.label(level);
  if (variable.labels.size() > 0) return "NA";
  if (variable.type == FieldType::integer_factor_1_to_n) return text(level + variable.indexed_from - 1);
  if (variable.is_factor() && level <= variable.levels) return "NA";
  eh.internal("not expecting undefined factor information");
  return {};
}

}  // namespace tolvan
