// Descriptions of datasets.  Routines: UDIT_FROM_JSON, UDIT_FROM_JSTR.
#include "data/dataset.h"

#include <unordered_set>

#include "base/text.h"
#include "data/request_values.h"
#include "data/transform_program.h"
#include "model/request.h"

namespace tolvan {

namespace {

/// Tells which of several descriptions a complaint is about.
void tell_dataset(ERROR_HANDLER& eh, const USER_DATASET_INFO& info)
{
  if (!info.name.empty()) eh.continuation(text("in the description of dataset ", info.name));
}

void read_observations(ERROR_HANDLER& eh, const JsonNode& dataset, USER_DATASET_INFO& info)
{
  const JsonNode* node = given_value(dataset, "number_of_observations");
  if (node == nullptr) {
    eh.error("number of observations not specified");
    tell_dataset(eh, info);
    return;
  }
  if (!node->is(JsonType::integer)) {
    REPORT_JSON_ERROR(eh, *node, {"an integer"});
    return;
  }
  info.number_of_observations = node->integer();
  if (info.number_of_observations < 1) {
    eh.error(text("invalid number of observations (nobs = ", info.number_of_observations,
                  ") specified, nobs >= 1"));
    tell_dataset(eh, info);
  }
}

void read_storage_order(ERROR_HANDLER& eh, const JsonNode& dataset, USER_DATASET_INFO& info)
{
  const JsonNode* node = given_value(dataset, "storage_order");
  if (node == nullptr) return;
  if (node->is_text("so_column_major")) {
    info.storage_order = StorageOrder::column_major;
  } else if (node->is_text("so_row_major")) {
    info.storage_order = StorageOrder::row_major;
  } else {
    eh.error(text("invalid value (", node->is(JsonType::string) ? node->text() : json_text(*node),
                  ") supplied for storage_order. Valid values = so_column_major or so_row_major"));
    tell_dataset(eh, info);
  }
}

void read_tags(ERROR_HANDLER& eh, JsonNode& tags, USER_DATASET_INFO& info)
{
  if (tags.packed() && tags.size() > 0) {
    REPORT_JSON_ERROR(eh, tags, {"an array of strings"});
    return;
  }
  for (const JsonNode* tag : list_entries(tags)) {
    if (!tag->is(JsonType::string)) {
      REPORT_JSON_ERROR(eh, *tag, {"a string"});
      return;
    }
    info.tags.push_back(tag->text());
  }
}

/// L_READ_VARIABLE_NAMES: takes the names of the variables list over.
void L_READ_VARIABLE_NAMES(ERROR_HANDLER& eh, JsonNode& variables, USER_DATASET_INFO& info)
{
  const Frame here{eh, __func__};
  if (variables.packed() && variables.size() > 0) {
    REPORT_JSON_ERROR(eh, variables, {"an array of objects that describe variables"});
    return;
  }
  std::unordered_set<std::string> names;
  for (const JsonNode* variable : list_entries(variables)) {
    const JsonNode* name = given_value(*variable, "name");
    if (name == nullptr || !name->is(JsonType::string) || name->text().empty()) {
      eh.error(text("the ", info.variables.size() + 1, " variable of dataset ",
                    info.name.empty() ? "none specified" : info.name, " does not have a name"));
      return;
    }
    if (!names.insert(name->text()).second) {
      eh.error(text("multiple variables have the name ", name->text()));
      tell_dataset(eh, info);
      return;
    }
    info.variables.push_back(name->text());
  }
}

/// How many variables need be no columns of the matrix: those that say so by the column number 0 and, at the end
/// of the list, those that the transformation of another variable makes.
std::int64_t made_variables(JsonNode& variables)
{
  std::unordered_set<std::string> targets;
  const std::vector<JsonNode*> entries = list_entries(variables);
  for (const JsonNode* entry : entries) {
    JsonNode* list = entry->find("transformations");
    if (list == nullptr) continue;
    for (const JsonNode* item : list_entries(*list)) {
      const JsonNode* target = transformation_target(*item);
      if (target != nullptr && target->is(JsonType::string)) targets.insert(target->text());
    }
  }
  std::int64_t made = 0;
  bool at_end = true;
  for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
    const JsonNode* column = given_value(**entry, "user_column_number");
    const bool no_column = column != nullptr && column->is(JsonType::integer) && column->integer() == 0;
    at_end = at_end && (no_column || (column == nullptr && targets.contains(given_value(**entry, "name")->text())));
    if (no_column || at_end) ++made;
  }
  return made;
}

/// L_READ_VARIABLE_COUNT: reads variables, number_of_variables or both.
void L_READ_VARIABLE_COUNT(ERROR_HANDLER& eh, const JsonNode& dataset, USER_DATASET_INFO& info)
{
  const Frame here{eh, __func__};
  const JsonNode* count = given_value(dataset, "number_of_variables");
  JsonNode* variables = dataset.find("variables");
  const bool listed = variables != nullptr && !variables->is(JsonType::null) &&
                      !(variables->is(JsonType::array) && variables->size() == 0);
  if (count == nullptr && !listed) {
    eh.error(info.name.empty() ? "no variables supplied in the dataset description"
                               : text("no variables supplied in the description of ", info.name));
    return;
  }
  if (listed) {
    L_READ_VARIABLE_NAMES(eh, *variables, info);
    if (eh.terminate()) return;
    info.number_of_variables = static_cast<std::int64_t>(info.variables.size());
    info.number_of_columns = info.number_of_variables - made_variables(*variables);
  }
  if (count == nullptr) return;
  if (!count->is(JsonType::integer) || count->integer() < 1) {
    REPORT_JSON_ERROR(eh, *count, {"a positive integer"});
    return;
  }
  // More columns than described variables are allowed: user_column_number may pick some of them.
  if (count->integer() < info.number_of_columns) {
    eh.error(text("number_of_variables of dataset ", info.name, " is ", count->integer(), ", but ",
                  info.number_of_variables, " variables are described"));
    return;
  }
  info.number_of_variables = count->integer();
  info.number_of_columns = count->integer();
}

}  // namespace

void UDIT_FROM_JSON(ERROR_HANDLER& eh, const JsonNode& dataset, USER_DATASET_INFO& info)
{
  const Frame here{eh, __func__};
  if (!dataset.is(JsonType::object)) {
    eh.error("supplied JSON does not describe a dataset");
    return;
  }
  if (info.number_of_observations != 0) {
    eh.warning(
        "data information has been supplied multiple times, the previous information will be overwritten");
    info = {};
  }
  if (const JsonNode* name = given_value(dataset, "name"); name != nullptr) {
    if (!name->is(JsonType::string)) {
      REPORT_JSON_ERROR(eh, *name, {"a string"});
      return;
    }
    info.name = name->text();
  }
  read_observations(eh, dataset, info);
  if (eh.terminate()) return;
  read_storage_order(eh, dataset, info);
  if (eh.terminate()) return;
  if (JsonNode* tags = dataset.find("tags"); tags != nullptr && !tags->is(JsonType::null)) {
    read_tags(eh, *tags, info);
    if (eh.terminate()) return;
  }
  L_READ_VARIABLE_COUNT(eh, dataset, info);
}

void UDIT_FROM_JSTR(ERROR_HANDLER& eh, std::string_view json, USER_DATASET_INFO& info)
{
  const Frame here{eh, __func__};
  JsonError failure;
  const auto root = parse_json(json, failure);
  if (root == nullptr) {
    eh.error(failure.message, Ecode::invalid_json);
    return;
  }
  JsonNode* dataset = root->is(JsonType::object) ? root->find("dataset") : nullptr;
  if (dataset == nullptr) {
    eh.error("supplied JSON does not describe a dataset");
    return;
  }
  if (root->count("dataset") > 1 || (dataset->is(JsonType::array) && dataset->size() > 1)) {
    eh.error("supplied JSON describes more than one dataset");
    return;
  }
  const std::vector<JsonNode*> entries = list_entries(*dataset);
  if (entries.empty()) {
    eh.error("supplied JSON does not describe a dataset");
    return;
  }
  UDIT_FROM_JSON(eh, *entries.front(), info);
}

}  // namespace tolvan
