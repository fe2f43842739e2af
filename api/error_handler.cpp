// The store of messages: EH_ADD_MESSAGE and what reads, clears and downgrades messages.
#include "api/error_handler.h"

#include <algorithm>

#include "base/memory.h"
#include "base/text.h"

namespace tolvan {

namespace {

constexpr std::size_t store_step = 20;     // the store grows by this many records,
constexpr std::size_t large_store = 1000;  // from this many on by half of what it holds

std::optional<std::int64_t> supplied(const std::optional<std::int64_t>& value)
{
  return value == not_given ? std::nullopt : value;
}

std::string memory_text(const std::optional<std::int64_t>& bytes)
{
  std::string out = "Memory allocation failure";
  if (!bytes) return out;
  out += ", failed to allocate memory of size ";
  return out + (*bytes < 0 ? std::string("UNKNOWN") : edit_i(*bytes, 30));
}

bool blank(const std::optional<std::string>& text)
{
  return !text || is_blank(*text);
}

bool same_message(const ERROR_MESSAGE& a, const ERROR_MESSAGE& b)
{
  const auto text_of = [](const ERROR_MESSAGE& m) { return m.message ? std::string_view(*m.message) : ""; };
  return text_of(a) == text_of(b) && a.etype == b.etype && a.ecode == b.ecode && a.routine == b.routine &&
         a.id == b.id;
}

}  // namespace

// clang-format off
std::string_view etype_name(Etype type)
{
  switch (type) {
    case Etype::note: return "note";
    case Etype::notice: return "notice";
    case Etype::warning: return "warning";
    case Etype::error: return "error";
    case Etype::user: return "user";
    case Etype::info: return "info";
    case Etype::internal: return "internal";
    case Etype::continuation: return "continuation";
    default: return "unknown";
  }
}

std::string_view etype_prefix(Etype type)
{
  switch (type) {
    case Etype::note: return "    Note: ";
    case Etype::notice: return "  Notice: ";
    case Etype::warning: return " Warning: ";
    case Etype::error: return "   Error: ";
    case Etype::user: return "    User: ";
    case Etype::info: return "";
    case Etype::internal: return "Internal: ";
    case Etype::continuation: return "        : ";
    default: return " Unknown: ";
  }
}

std::string_view ecode_name(Ecode code)
{
  switch (code) {
    case Ecode::no_error: return "ehc_noerror";
    case Ecode::invalid_json: return "ehc_invalid_json";
    case Ecode::io_error: return "ehc_io_error";
    case Ecode::invalid_input: return "ehc_invalid_input";
    case Ecode::not_implemented: return "ehc_not_implemented";
    case Ecode::too_small: return "ehc_too_small";
    case Ecode::invalid_syntax: return "ehc_invalid_syntax";
    case Ecode::io: return "ehc_io";
    case Ecode::alloc_fail: return "ehc_alloc_fail";
    default: return "ehc_not_defined";
  }
}
// clang-format on

void ERROR_HANDLER::EH_ADD_MESSAGE(const NewMessage& given) noexcept
{
  NewMessage own;
  if (!attempt([&] { own = given; })) {
    // The texts do not fit any more.  What is known without them still goes into the store.
    own = NewMessage{.etype = given.etype,
                     .ecode = given.ecode,
                     .terminate = given.terminate,
                     .iv = given.iv,
                     .rv = given.rv,
                     .id = given.id,
                     .location = given.location,
                     .unique = given.unique,
                     .is_duplicate = given.is_duplicate};
    if (given.text) own.text = "(no memory)";  // short enough to need none
  }
  add(std::move(own));
}

void ERROR_HANDLER::add(NewMessage&& given) noexcept
{
  ERROR_MESSAGE record;
  const std::optional<std::int64_t> iv = supplied(given.iv);
  const bool code_given = given.ecode && *given.ecode != Ecode::not_set;
  const bool type_given = given.etype && *given.etype != Etype::not_set;
  const bool text_given = given.text && !given.text->empty();
  record.location = supplied(given.location).value_or(0);
  record.iv = iv.value_or(0);
  record.rv = given.rv.value_or(0.0);
  record.id = supplied(given.id).value_or(0);
  if (given.text_from_handler) attempt([&] { record.message = debug_text_; });

  // Type and code, and the texts that some codes bring along.
  if (code_given) record.ecode = *given.ecode;
  bool terminates = false;
  bool continues_nothing = false;
  if (type_given) {
    record.etype = *given.etype;
    if (record.etype == Etype::continuation && messages_.empty()) {
      record.etype = Etype::not_set;
      continues_nothing = true;
    } else if (record.etype == Etype::continuation) {
      const ERROR_MESSAGE& last = messages_.back();
      if (!code_given) record.ecode = last.ecode;
      if (!given.routine) attempt([&] { record.routine = last.routine; });
    }
  } else if (code_given) {
    const Ecode code = record.ecode;
    if (code >= Ecode::invalid_json && code <= Ecode::invalid_syntax) {
      record.etype = Etype::error;
      terminates = true;
    } else if (code == Ecode::alloc_fail) {
      record.etype = Etype::error;
      terminates = true;
      if (!attempt([&] { record.message = memory_text(iv); })) record.message = "out of memory";
    } else if (code == Ecode::user_abort || code == Ecode::user_finish) {
      record.etype = Etype::user;
      terminates = code == Ecode::user_abort;
      attempt([&] {
        record.message = code == Ecode::user_abort ? "User sent an abort code" : "User sent a finish code";
        if (iv) *record.message += text(", code = ", *iv);
      });
    }
  }

  // Routine, terminate, text.
  if (given.routine) {
    record.routine = std::move(*given.routine);
  } else if (text_given && record.etype != Etype::continuation && !stack_.entries.empty()) {
    attempt([&] { record.routine = stack_.entries.back(); });
  }
  if (record.etype == Etype::internal) terminates = true;
  if (given.terminate) terminates = *given.terminate;
  record.terminate = terminates;
  if (given.text) record.message = std::move(given.text);
  if (record.etype == Etype::not_set && !continues_nothing && (!blank(record.message) || code_given)) {
    record.etype = Etype::error;
  }

  if (terminates && !terminate_) {
    terminate_ = true;
    if (!stack_.entries.empty()) terminated_in_ = stack_.entries.back();
    terminate_etype_ = record.etype;
    terminate_code_ = record.ecode;
  }
  if (record.etype == Etype::not_set || record.ecode == Ecode::no_error) return;

  if (prefix_ && !blank(record.message) && record.etype != Etype::continuation) {
    attempt([&] { record.message->insert(0, *prefix_); });
  }
  if (given.unique || given.is_duplicate != nullptr) {
    const bool held = std::any_of(messages_.begin(), messages_.end(),
                                  [&](const ERROR_MESSAGE& each) { return same_message(each, record); });
    if (held && given.is_duplicate != nullptr) *given.is_duplicate = true;
    if (held && given.unique) return;
  }
  store(std::move(record));
}

void ERROR_HANDLER::store(ERROR_MESSAGE&& record) noexcept
{
  if (stack_.mode == 2 || (stack_.mode == 1 && record.terminate)) {
    attempt([&] { record.stack = stack_.entries; });
  }
  const std::size_t held = messages_.size();
  const std::size_t more = held < large_store ? store_step : held / 2;
  if (held == messages_.capacity() && !attempt([&] { messages_.reserve(held + more); }) &&
      !make_room(record.etype)) {
    lost_ = true;
    return;
  }
  if (record.etype == Etype::continuation) messages_.back().last_in_block = false;
  messages_.push_back(std::move(record));
}

// The store is full and cannot grow: gives up its least important message, with all its continuations, for
// one of a higher type.  Of equals the later goes.  False if the new record has to go instead, be it for its
// type or because it would continue what was given up.
bool ERROR_HANDLER::make_room(Etype etype) noexcept
{
  lost_ = true;
  std::size_t lowest = messages_.size();
  for (std::size_t k = 0; k < messages_.size(); ++k) {
    if (messages_[k].etype == Etype::continuation) continue;
    if (lowest == messages_.size() || messages_[k].etype <= messages_[lowest].etype) lowest = k;
  }
  if (lowest == messages_.size() || etype <= messages_[lowest].etype) return false;
  std::size_t end = lowest + 1;
  while (end < messages_.size() && messages_[end].etype == Etype::continuation) ++end;
  const bool was_last = end == messages_.size();
  messages_.erase(messages_.begin() + static_cast<std::ptrdiff_t>(lowest),
                  messages_.begin() + static_cast<std::ptrdiff_t>(end));
  adjusted_ = true;
  return !(was_last && etype == Etype::continuation);
}

void ERROR_HANDLER::error(std::string text, Ecode code) noexcept
{
  add({.text = std::move(text), .ecode = code, .terminate = true});
}

void ERROR_HANDLER::warning(std::string text) noexcept
{
  add({.text = std::move(text), .etype = Etype::warning});
}

void ERROR_HANDLER::notice(std::string text) noexcept
{
  add({.text = std::move(text), .etype = Etype::notice});
}

void ERROR_HANDLER::note(std::string text) noexcept
{
  add({.text = std::move(text), .etype = Etype::note});
}

void ERROR_HANDLER::internal(std::string text) noexcept
{
  add({.text = std::move(text), .etype = Etype::internal});
}

void ERROR_HANDLER::continuation(std::string text) noexcept
{
  add({.text = std::move(text), .etype = Etype::continuation});
}

void ERROR_HANDLER::out_of_memory(std::int64_t bytes) noexcept
{
  add({.ecode = Ecode::alloc_fail, .iv = std::max<std::int64_t>(bytes, -1)});
}

std::int64_t ERROR_HANDLER::EH_STATUS() const
{
  std::int64_t largest = 0;
  for (const ERROR_MESSAGE& each : messages_) {
    if (each.etype != Etype::continuation) largest = std::max(largest, static_cast<std::int64_t>(each.etype));
  }
  // A failure whose very message found no room is still a failure.
  if (messages_.empty() && terminate_ && lost_) largest = static_cast<std::int64_t>(terminate_etype_);
  return terminate_ ? largest : -largest;
}

void ERROR_HANDLER::EH_CLEAR(std::optional<std::int64_t> location)
{
  if (!location || *location == not_given) {
    messages_.clear();
    lost_ = false;
    EH_CLEAR_TERMINATE();
  } else if (std::erase_if(messages_, [&](const ERROR_MESSAGE& each) { return each.location == *location; }) >
             0) {
    adjusted_ = true;
  }
}

void ERROR_HANDLER::EH_CLEAR_TERMINATE()
{
  terminate_ = false;
  terminated_in_.reset();
  terminate_etype_ = Etype::not_set;
  terminate_code_ = Ecode::not_set;
}

void ERROR_HANDLER::EH_RERAISE(const NewMessage& given)
{
  const std::int64_t location = supplied(given.location).value_or(0);
  const auto old = std::find_if(messages_.rbegin(), messages_.rend(), [&](const ERROR_MESSAGE& each) {
    return each.terminate && each.location == location;
  });
  if (old == messages_.rend()) {
    EH_ADD_MESSAGE(given);
    return;
  }
  old->terminate = false;
  old->adjusted = true;
  adjusted_ = true;
  EH_ADD_MESSAGE(given);
  EH_CLEAR_TERMINATE();
}

void ERROR_HANDLER::EH_ADD_ALL(const ERROR_HANDLER& other, std::size_t from)
{
  const std::size_t n = other.messages_.size();  // fixed before the first is added: other may be this
  for (std::size_t k = from; k < n; ++k) {
    const ERROR_MESSAGE& each = other.messages_[k];
    EH_ADD_MESSAGE({.text = each.message,
                    .etype = each.etype,
                    .ecode = each.ecode,
                    .terminate = each.terminate,
                    .iv = each.iv,
                    .rv = each.rv,
                    .routine = each.routine,
                    .id = each.id,
                    .location = each.location});
  }
}

std::string ERROR_HANDLER::EH_LAST_MESSAGE() const
{
  const auto last = std::find_if(messages_.rbegin(), messages_.rend(),
                                 [](const ERROR_MESSAGE& each) { return each.etype != Etype::continuation; });
  return last != messages_.rend() ? last->message.value_or("") : "";
}

const ERROR_MESSAGE* ERROR_HANDLER::EH_GET_MESSAGE(std::int64_t number) const
{
  return number >= 1 && number <= count() ? &messages_[static_cast<std::size_t>(number - 1)] : nullptr;
}

}  // namespace tolvan
