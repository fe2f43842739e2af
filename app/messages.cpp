#include "app/messages.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "app/terminal.h"

namespace tolvan::driver {
namespace {

// The engine's message types and codes that the driver tells apart.
enum : std::int64_t {
  note = 1,
  notice = 2,
  warning = 3,
  error = 4,
  user = 5,
  info = 6,
  internal = 999,
  continuation = 9999
};
enum : std::int64_t { code_io_error = 2, code_io = 7, code_user_abort = 8, code_no_memory = -999 };

std::int64_t integer_at(const Json& message, std::string_view key)
{
  const Json* item = message.find(key);
  return item ? item->integer() : 0;
}

std::string text_at(const Json& message, std::string_view key)
{
  const Json* item = message.string_at(key);
  return item ? item->text : "";
}

bool has_routine(const Json& message, std::string_view name)
{
  const Json* stack = message.find("stack");
  if (!stack) return false;
  for (const Json& routine : stack->items)
    if (routine.text == name) return true;
  return false;
}

std::string prefix(std::int64_t etype)
{
  switch (etype) {
    case note:
      return "note: ";
    case notice:
      return "notice: ";
    case warning:
      return styled(stderr, Style::yellow, "warning: ");
    case user:
    case info:
      return "";
    case continuation:
      return "  ";
    case internal:
      return styled(stderr, Style::red, "internal error: ");
    default:
      return styled(stderr, Style::red, "error: ");
  }
}

bool is_about_storage(const std::string& text)
{
  return text.find("No space left") != std::string::npos || text.find("quota") != std::string::npos;
}

}  // namespace

Json Messages::no_messages()
{
  Json information = json_object();
  information.set("terminate", json_boolean(false));
  return information;
}

void Messages::collect(Engine& engine)
{
  if (engine.status() == 0) return;
  const std::int32_t status = engine.status();
  auto document = read_json(engine.json("ERROR_INFORMATION").value_or(""));
  Json* information = document ? document->find("error_information") : nullptr;
  if (!information) {  // nothing to read: a handle that could not be made
    add_error("the engine failed with status " + std::to_string(status));
    return;
  }
  Json earlier = json_array();
  if (Json* held = information_.find("messages")) earlier = std::move(*held);
  information_ = std::move(*information);
  information_.name.clear();
  if (earlier.items.empty()) return;
  if (Json* later = information_.find("messages")) {
    for (Json& message : later->items) earlier.items.push_back(std::move(message));
  }
  information_.set("messages", std::move(earlier));
}

void Messages::add_error(const std::string& text)
{
  Json message = json_object();
  message.set("etype", json_integer(error));
  message.set("ecode", json_integer(3));
  message.set("message", json_string(text));
  message.set("terminate", json_boolean(true));
  if (!information_.find("messages")) information_.set("messages", json_array());
  information_.find("messages")->items.push_back(std::move(message));
  information_.set("terminate", json_boolean(true));
}

void Messages::add_place(const std::string& name, std::string_view document)
{
  Json* messages = information_.find("messages");
  if (!messages || messages->items.empty()) return;
  constexpr std::string_view before = " at position ";
  const std::string fault = text_at(messages->items.back(), "message");
  const std::size_t at = fault.rfind(before);
  if (!fault.starts_with("invalid JSON") || at == std::string::npos) return;
  const auto position = std::strtoull(fault.c_str() + at + before.size(), nullptr, 10);
  if (position == 0) return;
  const std::string_view read = document.substr(0, position - 1);
  const auto line = std::count(read.begin(), read.end(), '\n') + 1;
  const std::size_t column = position - (read.rfind('\n') + 1);  // npos + 1 is 0
  Json place = messages->items.back();
  place.set("etype", json_integer(continuation));
  place.set("message",
            json_string("line " + std::to_string(line) + ", column " + std::to_string(column) + " of " + name));
  messages->items.push_back(std::move(place));
}

bool Messages::terminated() const
{
  const Json* terminate = information_.find("terminate");
  return terminate && terminate->truth();
}

std::size_t Messages::warnings() const
{
  std::size_t n = 0;
  if (const Json* messages = information_.find("messages")) {
    for (const Json& message : messages->items) n += integer_at(message, "etype") == warning ? 1 : 0;
  }
  return n;
}

Exit Messages::failure() const
{
  const Json* messages = information_.find("messages");
  if (!messages) return Exit::fit_failed;
  for (const Json& message : messages->items) {  // the first that stopped the run
    const Json* terminate = message.find("terminate");
    if (!terminate || !terminate->truth()) continue;
    const std::int64_t code = integer_at(message, "ecode");
    if (code == code_no_memory) return Exit::out_of_resources;
    if (code == code_user_abort) return Exit::cancelled;
    if ((code == code_io_error || code == code_io) && is_about_storage(text_at(message, "message"))) {
      return Exit::out_of_resources;
    }
    if (integer_at(message, "etype") == internal || has_routine(message, "AIWORK")) return Exit::fit_failed;
    return Exit::bad_input;
  }
  return Exit::fit_failed;
}

void Messages::show(Talk talk) const
{
  const Json* messages = information_.find("messages");
  if (!messages) return;
  bool shown = false;
  for (const Json& message : messages->items) {
    const std::int64_t etype = integer_at(message, "etype");
    const bool minor = etype == note || etype == notice || etype == info;
    if (etype != continuation) shown = talk != Talk::quiet || !minor;
    if (!shown) continue;
    std::fprintf(stderr, "%s%s\n", prefix(etype).c_str(), text_at(message, "message").c_str());
    if (talk != Talk::verbose || minor || etype == continuation) continue;
    std::string trail;
    if (const Json* stack = message.find("stack")) {
      for (const Json& routine : stack->items) trail += (trail.empty() ? "" : " > ") + routine.text;
    }
    if (!trail.empty()) std::fprintf(stderr, "  in %s\n", trail.c_str());
  }
}

}  // namespace tolvan::driver
