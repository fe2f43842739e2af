#include "data/variable_groups.h"

#include <unordered_map>

#include "base/text.h"
#include "data/request_values.h"
#include "model/request.h"

namespace tolvan {

namespace {

/// L_MEMBER_ROW: the row of a member of a group, made for a column that no variable describes.
std::int64_t L_MEMBER_ROW(ERROR_HANDLER& eh, const JsonNode& member, const std::string& group,
                          VARIABLE_TABLE& table)
{
  const Frame here{eh, __func__};
  const JsonNode* name = member.is(JsonType::string) ? &member : given_value(member, "name");
  if (name != nullptr && name->is(JsonType::string)) {
    const std::int64_t row = table.find(name->text());
    if (row == 0) {
      eh.error(text("invalid column name (", name->text(), ") supplied for group ", group,
                    ", a variable with that name could not be found"));
    }
    return row;
  }
  const JsonNode* number = member.is(JsonType::integer) ? &member : given_value(member, "user_column_number");
  if (number == nullptr || number->integer() < 1) {
    REPORT_JSON_ERROR(eh, member, {"the name of a variable", "the number of a column"});
    return 0;
  }
  for (std::int64_t i = 1; i <= table.count(); ++i) {
    if (table.row(i).column == number->integer()) return i;
  }
  VARIABLE column;
  column.name = text(group, "_", number->integer());
  for (int more = 1; table.find(column.name) != 0; ++more) {
    column.name = text(group, "_", number->integer(), "_", more);
  }
  column.column = number->integer();
  column.column_given = true;
  table.rows.push_back(std::move(column));
  return table.count();
}

}  // namespace

std::vector<std::int64_t> VARIABLE_TABLE::members(std::string_view group) const
{
  std::vector<std::int64_t> found;
  for (std::int64_t i = 1; i <= count() && !group.empty(); ++i) {
    if (row(i).group == group) found.push_back(i);
  }
  return found;
}

void ADD_GROUPS(ERROR_HANDLER& eh, const JsonNode* groups, const COMMUNICATION& communication,
                VARIABLE_TABLE& table)
{
  const Frame here{eh, __func__};
  if (groups == nullptr) return;
  for (JsonNode* group : list_entries(const_cast<JsonNode&>(*groups))) {
    const JsonNode* name = given_value(*group, "name");
    JsonNode* members = group->is(JsonType::object) ? group->find("variables") : nullptr;
    if (name == nullptr || !name->is(JsonType::string) || members == nullptr) {
      REPORT_JSON_ERROR(eh, *group, name == nullptr ? "name" : "variables");
      return;
    }
    CHECK_VARIABLE_NAME_VALIDITY(eh, communication, name->text());
    if (eh.terminate()) return;
    members->unpack();
    for (const JsonNode* member : list_entries(*members)) {
      const std::int64_t row = L_MEMBER_ROW(eh, *member, name->text(), table);
      if (eh.terminate()) return;
      VARIABLE& variable = table.row(row);
      if (!variable.group.empty()) {
        eh.error(
            text("the value (", variable.name, ", appears in at least one other group statement"));  // sic
        return;
      }
      variable.group = name->text();
    }
  }
}

void CHECK_GROUPS(ERROR_HANDLER& eh, VARIABLE_TABLE& table)
{
  const Frame here{eh, __func__};
  std::unordered_map<std::string, std::int64_t> first;  // row of each group
  for (std::int64_t i = 1; i <= table.count(); ++i) {
    VARIABLE& member = table.row(i);
    if (member.group.empty()) continue;
    const auto [at, is_new] = first.emplace(member.group, i);
    if (is_new) {
      if (table.find(member.group) == 0) continue;
      eh.error(text("the group identifier, ", member.group,
                    ", is not unique, it also appears as a variable name"));
      return;
    }
    const VARIABLE& head = table.row(at->second);
    const auto levels = [](const VARIABLE& v) {
      return v.labels_fixed ? v.labels.size() : v.declared_levels;
    };
    if (member.type != head.type) {
      eh.error(text("all variables used to define group ", member.group,
                    " should be of the same type (i.e. all variates or all factors)"));
      return;
    }
    if (levels(member) != levels(head)) {
      eh.error(text("all variables used to define group ", member.group,
                    " should have the same number of levels"));
      return;
    }
    if (member.is_factor() && member.shares_levels_with == 0) member.shares_levels_with = at->second;
  }
}

}  // namespace tolvan
