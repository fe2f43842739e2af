// Groups of variables of a dataset: API_EXPAND_GROUPS.
#include <algorithm>
#include <set>
#include <unordered_map>

#include "base/text.h"
#include "model/expand_model.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

/// The columns of a dataset as far as it describes them, found by number and by name.
struct DATASET_COLUMNS {
  std::int64_t count = 0;
  std::unordered_map<std::int64_t, const JsonNode*> by_number;
  std::unordered_map<std::string_view, std::int64_t> by_name;

  const JsonNode* at(std::int64_t column) const
  {
    const auto found = by_number.find(column);
    return found == by_number.end() ? nullptr : found->second;
  }
};

DATASET_COLUMNS columns_of(const JsonNode& dataset)
{
  DATASET_COLUMNS columns;
  if (const JsonNode* variables = dataset.find("variables"); variables != nullptr && variables->is(JsonType::array)) {
    columns.count = variables->size();
    std::int64_t position = 0;
    for (const auto& variable : variables->children()) {
      const JsonNode* own = variable->find("user_column_number");
      const std::int64_t column = own != nullptr && own->is(JsonType::integer) ? own->integer() : position + 1;
      ++position;
      columns.by_number.emplace(column, variable.get());
      const JsonNode* name = variable->find("name");
      if (name != nullptr && name->is(JsonType::string)) columns.by_name.emplace(name->text(), column);
    }
  }
  if (const JsonNode* count = dataset.find("number_of_variables"); count != nullptr && count->is(JsonType::integer))
    columns.count = std::max(columns.count, count->integer());
  return columns;
}

std::string field_type_of(const JsonNode* variable)
{
  const JsonNode* type = variable == nullptr ? nullptr : variable->find("field_type");
  return type != nullptr && type->is(JsonType::string) ? type->text() : "vt_variate";
}

/// The level count that a description tells, 0 if it tells none.
std::int64_t levels_of(const JsonNode* variable)
{
  if (variable == nullptr) return 0;
  const JsonNode* count = variable->find("number_of_levels");
  const JsonNode* labels = variable->find("factor_labels");
  if (count != nullptr && count->is(JsonType::integer)) return count->integer();
  return labels != nullptr && labels->is(JsonType::array) ? labels->size() : 0;
}

/// L_FIND_MEMBER: the column that a group names, by the name of a variable or by its number; 0 with a complaint.
std::int64_t L_FIND_MEMBER(ERROR_HANDLER& eh, const DATASET_COLUMNS& columns, const JsonNode& member, const std::string& group)
{
  const Frame here{eh, __func__};
  if (member.is(JsonType::integer)) {
    if (member.integer() >= 1 && member.integer() <= columns.count) return member.integer();
    eh.error(text("invalid column number (", member.integer(), ") supplied for group ", group,
                  " was expecting a value in the range [1, ", columns.count, "]"));
    return 0;
  }
  if (!member.is(JsonType::string)) {
    REPORT_JSON_ERROR(eh, member, {"the name of a variable", "the number of a column"});
    return 0;
  }
  if (const auto found = columns.by_name.find(member.text()); found != columns.by_name.end()) return found->second;
  eh.error(text("invalid column name (", member.text(), ") supplied for group ", group,
                ", a variable with that name could not be found"));
  return 0;
}

/// L_API_PROCESS_GROUP: one group; its members get their columns and names, the group their type.
///   taken   columns of the groups before; this group's are added
void L_API_PROCESS_GROUP(ERROR_HANDLER& eh, const DATASET_COLUMNS& columns, JsonNode& group, std::set<std::int64_t>& taken)
{
  const Frame here{eh, __func__};
  const std::optional<std::string> name = GET_VALUE_FROM_JPTR_STRING(eh, group, "name", true);
  JsonNode* members = group.find("variables");
  if (eh.terminate()) return;
  if (members == nullptr) {
    REPORT_JSON_ERROR(eh, group, "variables");
    return;
  }
  if (!members->is(JsonType::array) || members->size() == 0) {
    REPORT_JSON_ERROR(eh, *members, {"an array of names and column numbers"});
    return;
  }
  members->unpack();
  std::string type;
  std::int64_t levels = -1;
  for (const auto& member : members->children()) {
    // A standard form that comes back has objects in the place of names and numbers.
    const JsonNode* number = member->find("user_column_number");
    const std::int64_t column = L_FIND_MEMBER(eh, columns, number != nullptr ? *number : *member, *name);
    if (eh.terminate()) return;
    const JsonNode* variable = columns.at(column);
    const std::string shown = variable != nullptr && variable->find("name") != nullptr ? variable->find("name")->text() : text(column);
    if (!taken.insert(column).second) {
      eh.error(text("the value (", shown, ", appears in at least one other group statement"));  // sic
    } else if (levels >= 0 && levels != levels_of(variable)) {
      eh.error(text("all variables used to define group ", *name, " should have the same number of levels"));
    } else if (!type.empty() && type != field_type_of(variable)) {
      eh.error(text("all variables used to define group ", *name,
                    " should be of the same type (i.e. all variates or all factors)"));
    }
    if (eh.terminate()) return;
    type = field_type_of(variable);
    levels = levels_of(variable);
    member->set_object();
    if (variable != nullptr) member->add_value("name", shown);
    member->add_value("user_column_number", column);
  }
  group.remove("field_type");
  group.add_value("field_type", type);
}

}  // namespace

void API_EXPAND_GROUPS(ERROR_HANDLER& eh, JsonNode& dataset)
{
  const Frame here{eh, __func__};
  JsonNode* groups = dataset.find("group");
  if (groups == nullptr || groups->is(JsonType::null)) return;
  if (groups->is(JsonType::object)) {
    std::unique_ptr<JsonNode> only = groups->clone();
    only->name.clear();
    groups->set_array();
    groups->add(std::move(only));
  }
  if (!groups->is(JsonType::array) || groups->packed()) {
    REPORT_JSON_ERROR(eh, *groups, {"an object", "an array of objects"});
    return;
  }
  const DATASET_COLUMNS columns = columns_of(dataset);
  std::set<std::string, std::less<>> names;
  std::set<std::int64_t> taken;
  for (const auto& group : groups->children()) {
    const JsonNode* name = group->find("name");
    if (name != nullptr && name->is(JsonType::string)) {
      if (!names.insert(name->text()).second) {
        eh.error(text("the group identifier, ", name->text(), ", is not unique"));
      } else if (columns.by_name.contains(name->text())) {
        eh.error(text("the group identifier, ", name->text(), ", is not unique, it also appears as a variable name"));
      }
    }
    if (eh.terminate()) return;
    L_API_PROCESS_GROUP(eh, columns, *group, taken);
    if (eh.terminate()) return;
  }
}

}  // namespace tolvan
