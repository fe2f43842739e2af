// The handler's store as JSON: the error_information document.
#include "api/error_handler.h"
#include "base/json.h"
#include "base/text.h"

namespace tolvan {

namespace {

void add_names(JsonNode& node, const std::vector<std::string_view>& names)
{
  JsonNode& list = node.add("stack", JsonType::array);
  for (std::string_view name : names) list.add_value({}, std::string(name));
}

void add_unless_zero(JsonNode& node, std::string key, std::int64_t value)
{
  if (value != 0) node.add_value(std::move(key), value);
}

void add_record(JsonNode& list, const ERROR_MESSAGE& record)
{
  JsonNode& node = list.add({}, JsonType::object);
  node.add_value("etype", static_cast<std::int64_t>(record.etype));
  node.add_value("ecode", static_cast<std::int64_t>(record.ecode));
  node.add_value("ecode_string", std::string(ecode_name(record.ecode)));
  add_unless_zero(node, "id", record.id);
  add_unless_zero(node, "iv", record.iv);
  add_unless_zero(node, "location", record.location);
  if (record.rv != 0.0) node.add_value("rv", record.rv);
  const std::string message = record.message.value_or("none available");
  if (!is_blank(message)) node.add_value("message", message);
  if (!is_blank(record.routine)) node.add_value("routine", record.routine);
  add_names(node, record.stack);
  node.add_value("last_in_block", record.last_in_block);
  node.add_value("terminate", record.terminate);
  node.add_value("adjusted", record.adjusted);
}

}  // namespace

void ERROR_HANDLER::EH_ADD_TO_JPTR(JsonNode& node) const
{
  node.add_value("terminate", terminate_);
  if (terminate_) {
    if (terminated_in_) node.add_value("terminated_in", std::string(*terminated_in_));
    node.add_value("terminate_etype", static_cast<std::int64_t>(terminate_etype_));
    node.add_value("terminate_code", static_cast<std::int64_t>(terminate_code_));
  }
  if (messages_.empty()) return;
  JsonNode& list = node.add("messages", JsonType::array);
  for (const ERROR_MESSAGE& record : messages_) add_record(list, record);
  add_names(node, stack_.entries);
}

std::string ERROR_HANDLER::EH_TO_JSTR() const
{
  JsonNode document(JsonType::object);
  EH_ADD_TO_JPTR(document.add("error_information", JsonType::object));
  return json_text(document);
}

}  // namespace tolvan
