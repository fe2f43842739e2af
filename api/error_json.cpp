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

void fill_record(JsonNode& node, const ERROR_MESSAGE& record)
{
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
  for (const ERROR_MESSAGE& record : messages_) fill_record(list.add({}, JsonType::object), record);
  add_names(node, stack_.entries);
}

std::string ERROR_HANDLER::EH_TO_JSTR() const
{
  // A message a row of bad data is millions of them: each is written on its own, so that no tree of all need stand.
  ERROR_HANDLER head;
  head.terminate_ = terminate_;
  head.terminated_in_ = terminated_in_;
  head.terminate_etype_ = terminate_etype_;
  head.terminate_code_ = terminate_code_;
  JsonNode node(JsonType::object);
  head.EH_ADD_TO_JPTR(node);
  std::string out = "{\"error_information\":" + json_text(node);
  if (messages_.empty()) return out + "}";
  out.back() = ',';
  out += "\"messages\":[";
  for (const ERROR_MESSAGE& record : messages_) {
    node.set_object();
    fill_record(node, record);
    out += json_text(node);
    out += ',';
  }
  out.back() = ']';
  node.set_object();
  add_names(node, stack_.entries);
  return out + "," + json_text(node).substr(1) + "}";
}

}  // namespace tolvan
