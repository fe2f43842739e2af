// The one channel of failure and notice.  Every routine receives an ERROR_HANDLER, adds messages to it and
// returns; its caller tests terminate() and leaves.  Nothing throws.
// Routines: EH_ (handler), EST_ (routine stack).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/numbers.h"

namespace tolvan {

class JsonNode;

/// Message types; the outward numbers are the absolute values of a call's status.
enum class Etype : std::int64_t {
  unused = 0,
  note = 1,
  notice = 2,
  warning = 3,
  error = 4,
  user = 5,
  info = 6,
  internal = 999,
  continuation = 9999,
  not_set = not_given,
};

/// Message codes.  A code from 1 to 6 given without a type makes a terminating error.
enum class Ecode : std::int64_t {
  no_error = 0,
  invalid_json = 1,
  io_error = 2,
  invalid_input = 3,
  not_implemented = 4,
  too_small = 5,
  invalid_syntax = 6,
  io = 7,
  user_abort = 8,
  user_finish = 9,
  alloc_fail = -999,
  not_set = not_given,
};

/// The word of a type in JSON ("note", "warning", ...; "unknown" for any other number).
std::string_view etype_name(Etype type);
/// The ten-character prefix of a type in print; empty for info.
std::string_view etype_prefix(Etype type);
/// The name of a code ("ehc_invalid_input", ...; "ehc_not_defined" for any other number).
std::string_view ecode_name(Ecode code);

/// The live trail of routine names, innermost last.  Holds views of literals: names must outlive the stack.
struct ERROR_STACK {
  std::vector<std::string_view> entries;
  std::int64_t mode = 2;  // 0 ignore pushes, 1 copy into terminating messages, 2 copy into every message
};

/// One message with all that is known of it.
struct ERROR_MESSAGE {
  Etype etype = Etype::not_set;
  Ecode ecode = Ecode::not_set;
  std::int64_t id = 0;
  std::int64_t iv = 0;
  std::int64_t location = 0;
  double rv = 0.0;
  std::optional<std::string> message;  // absent where no text was ever given
  std::string routine;
  std::vector<std::string_view> stack;  // outermost first
  bool last_in_block = true;
  bool terminate = false;
  bool adjusted = false;
};

/// The optional facts of EH_ADD_MESSAGE, given by name.
struct NewMessage {
  std::optional<std::string> text = {};
  std::optional<Etype> etype = {};
  std::optional<Ecode> ecode = {};
  std::optional<bool> terminate = {};
  std::optional<std::int64_t> iv = {};
  std::optional<double> rv = {};
  std::optional<std::string> routine = {};
  std::optional<std::int64_t> id = {};
  std::optional<std::int64_t> location = {};
  bool text_from_handler = false;  // start from the debug text of the handler
  bool unique = false;             // drop the message when an equal one is held
  bool* is_duplicate = nullptr;    // set true when an equal one is held
};

class ERROR_HANDLER {
 public:
  /// EH_ADD_MESSAGE: adds one message by the rules of types and codes; short memory never fails the caller.
  void EH_ADD_MESSAGE(const NewMessage& given) noexcept;

  // Shorthands for the usual kinds.
  void error(std::string text, Ecode code = Ecode::invalid_input) noexcept;  // type 4, terminating
  void not_implemented(std::string text) noexcept { error(std::move(text), Ecode::not_implemented); }
  void warning(std::string text) noexcept;
  void notice(std::string text) noexcept;
  void note(std::string text) noexcept;
  void internal(std::string text) noexcept;      // type 999, terminating
  void continuation(std::string text) noexcept;  // a further line of the last message
  /// The memory message; bytes below 0 means that the size is not known.
  void out_of_memory(std::int64_t bytes = -1) noexcept;

  bool terminate() const { return terminate_; }
  std::int64_t count() const { return static_cast<std::int64_t>(messages_.size()); }
  const std::vector<ERROR_MESSAGE>& messages() const { return messages_; }
  const ERROR_STACK& stack() const { return stack_; }

  /// EH_STATUS: the status of a call: 0, or the largest type held, negative unless terminated.
  /// Continuations don't count.  A failure whose message found no room still gives its type.
  std::int64_t EH_STATUS() const;
  /// EH_CLEAR: empties the store, or removes only the messages of one location.
  void EH_CLEAR(std::optional<std::int64_t> location = {});
  /// EH_CLEAR_TERMINATE: clears the terminate flag with its companions.
  void EH_CLEAR_TERMINATE();
  /// EH_RERAISE: adds a message and takes the last failure of the same location back.
  /// The old message stays, no longer terminating and marked adjusted; without one the message is just added.
  void EH_RERAISE(const NewMessage& given);
  /// EH_ADD_ALL: appends the messages of another handler, or those behind the first so many of them.
  void EH_ADD_ALL(const ERROR_HANDLER& other, std::size_t from = 0);
  /// EH_LAST_MESSAGE: the text of the last message that is no continuation.
  std::string EH_LAST_MESSAGE() const;
  /// EH_GET_MESSAGE: the message of a number counted from 1; null when out of range.
  const ERROR_MESSAGE* EH_GET_MESSAGE(std::int64_t number) const;
  void set_prefix(std::string prefix) { prefix_ = std::move(prefix); }
  void clear_prefix() { prefix_.reset(); }
  void set_debug_text(std::string text) { debug_text_ = std::move(text); }
  void set_stack_mode(std::int64_t mode) { stack_.mode = mode; }

  /// EH_PRINT: writes the store on standard output, as a summary heading if asked and one block a message.
  void EH_PRINT(bool details = false, bool summary = false, bool heading = false,
                std::optional<std::int64_t> location = {}) const;
  /// EH_PRINT_TEXT: what EH_PRINT writes, as one text.
  std::string EH_PRINT_TEXT(bool details = false, bool summary = false, bool heading = false,
                            std::optional<std::int64_t> location = {}) const;
  /// EH_ADD_TO_JPTR: adds the handler's fields to an object node.
  void EH_ADD_TO_JPTR(JsonNode& node) const;
  /// EH_TO_JSTR: the error_information document.
  std::string EH_TO_JSTR() const;

  /// EST_ADD: pushes a routine's name; the 321st entry switches the trail off.
  void EST_ADD(std::string_view name) noexcept
  {
    auto& names = stack_.entries;
    if (stack_.mode == 0 || names.size() == names.capacity()) {
      add_name_slowly(name);
    } else {
      names.push_back(name);
    }
  }
  /// EST_REMOVE: pops a routine's name; a wrong one switches the trail off.
  void EST_REMOVE(std::string_view name) noexcept
  {
    auto& names = stack_.entries;
    if (!names.empty() && names.back().data() == name.data() && names.back().size() == name.size()) {
      names.pop_back();
    } else {
      remove_name_slowly(name);
    }
  }
  /// EST_LEVEL: the name at a level counted from 1, "UNKNOWN" beyond.
  std::string_view EST_LEVEL(std::int64_t level) const;

 private:
  void add(NewMessage&& given) noexcept;
  void store(ERROR_MESSAGE&& record) noexcept;
  bool make_room(Etype etype) noexcept;
  // The two routines of the stack are called everywhere: what is rare in them is kept apart.
  void add_name_slowly(std::string_view name) noexcept;
  void remove_name_slowly(std::string_view name) noexcept;
  void ignore_stack() noexcept;

  bool terminate_ = false;
  std::string debug_text_;
  std::vector<ERROR_MESSAGE> messages_;
  std::optional<std::string_view> terminated_in_;
  Etype terminate_etype_ = Etype::not_set;
  Ecode terminate_code_ = Ecode::not_set;
  ERROR_STACK stack_;
  bool adjusted_ = false;  // the list of messages was rewritten
  bool lost_ = false;      // a message could not be stored
  std::optional<std::string> prefix_;
};

/// The routine's name on the stack, for as long as it runs.
class Frame {
 public:
  Frame(ERROR_HANDLER& eh, std::string_view name) : eh_(eh), name_(name) { eh_.EST_ADD(name_); }
  ~Frame() { eh_.EST_REMOVE(name_); }
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;

 private:
  ERROR_HANDLER& eh_;
  std::string_view name_;
};

}  // namespace tolvan
