// The fourteen exports.  Each only turns what crosses the boundary and calls its dispatcher inside the call
// frame.
#include <algorithm>
#include <cstring>
#include <limits>

#include "api/call_frame.h"
#include "api/dispatch.h"
#include "base/json.h"
#include "base/text.h"
#include "tolvan/tolvan_api.h"

using namespace tolvan;

namespace {

constexpr std::int64_t initialise_done = 0;
constexpr std::int64_t initialise_unknown_type = 1;
constexpr std::int64_t initialise_failed = 2;
constexpr std::int64_t buffer_too_small = 4;
constexpr std::int64_t check_failed = 4;

std::int64_t value_of(const std::int32_t* number)
{
  return number == nullptr ? 0 : *number;
}

void write_length(std::int32_t* length, std::size_t value) noexcept
{
  constexpr std::size_t longest = std::numeric_limits<std::int32_t>::max();
  if (length != nullptr) *length = static_cast<std::int32_t>(std::min(value, longest));
}

/// The bytes that a text takes in the caller's buffer, its NUL included.
std::size_t bytes_out(const std::string& text)
{
  return text.size() + 1;
}

bool fits(const std::string& text, const char* buffer, const std::int32_t* length)
{
  const std::int64_t capacity = buffer == nullptr ? 0 : value_of(length);
  return capacity > 0 && static_cast<std::size_t>(capacity) >= bytes_out(text);
}

/// The kind named by a type word, upper case; unknown for none.
HandleStatus kind_of(std::string_view word)
{
  if (word == "TLV" || word == "TOLVAN") return HandleStatus::tlv;
  if (word == "AINV" || word == "AINVERSE") return HandleStatus::ainv;
  if (word == "GENERAL_INFO") return HandleStatus::info;
  return HandleStatus::unknown;
}

/// The type word of what ctlv_initialise was given; false if it cannot be read.
bool read_type_word(const char* type, std::int32_t length, std::string& word)
{
  if (length <= 0) {
    word = "TLV";
    return true;
  }
  if (type == nullptr) return false;
  word = text_in(type, length);
  if (word.starts_with('{')) {
    JsonError error;
    const auto document = parse_json(word, error);
    const JsonNode* node = document == nullptr ? nullptr : document->find("type");
    if (node == nullptr || !node->is(JsonType::string)) return false;
    word = node->text();
  }
  word = upper(rtrim(word));
  return true;
}

std::int64_t initialise(ERROR_HANDLER& eh, void** handle, const char* type, std::int32_t type_length)
{
  std::string word;
  if (handle == nullptr || !read_type_word(type, type_length, word)) return initialise_failed;
  const HandleStatus kind = kind_of(word);
  if (kind == HandleStatus::unknown) return initialise_unknown_type;
  ALLOCATE_HANDLE(eh, kind, handle);
  if (eh.count() > 0 || handle_status(handle) != kind) return initialise_failed;
  return initialise_done;
}

}  // namespace

void ctlv_initialise(int32_t* status, void** handle, const char* type, int32_t type_length)
{
  ERROR_HANDLER eh;
  eh.EST_ADD("CTLV_INITIALISE");
  std::int64_t result = initialise_failed;
  guarded(eh, [&] { result = initialise(eh, handle, type, type_length); });
  write_status(status, result);
}

void ctlv_cleanup(void** handle)
{
  ERROR_HANDLER eh;
  eh.EST_ADD("CTLV_CLEANUP");
  guarded(eh, [&] { DEALLOCATE_HANDLE(eh, handle); });
}

void ctlv_check(int32_t* status, void** handle, char* buffer, int32_t* length)
{
  bool clean = false;
  call_frame("CTLV_CHECK", status, handle, [&](CALL& call) {
    XXX_CHECK(call.eh, call.object);
    clean = call.eh.count() == 0 && !call.eh.terminate();
  });
  if (clean) {
    write_length(length, 0);
    return;
  }
  // The messages are the object's by now.  A handle that leads to no object has them nowhere: the reading of
  // them fails in its turn, and its status stands.
  bool read = false;
  std::string json;
  call_frame("CTLV_CHECK", status, handle, [&](CALL& call) {
    json = XXX_OUTPUT_JSON(call.eh, call.object, "ERROR_INFORMATION");
    read = !call.eh.terminate();
  });
  if (!read) {
    write_length(length, 0);
    return;
  }
  if (fits(json, buffer, length)) std::memcpy(buffer, json.c_str(), bytes_out(json));
  write_length(length, bytes_out(json));
  write_status(status, check_failed);
}

void ctlv_dump(void** handle)
{
  ERROR_HANDLER eh;
  eh.EST_ADD("CTLV_DUMP");
  guarded(eh, [&] {
    const DECODED_HANDLE object = CHECK_HANDLE(eh, handle, "HND");
    if (eh.count() > 0)
      eh.EH_PRINT();
    else
      DUMP(eh, object);
  });
}

void ctlv_input_info(int32_t* status, void** handle, const char* json, int32_t json_length)
{
  call_frame("CTLV_INPUT_INFO", status, handle, [&](CALL& call) {
    const std::string document = text_in(json, json_length);
    XXX_INPUT_INFO(call.eh, call.object, document);
    echo_input(call.object, document);
  });
}

void ctlv_input_real_2d(int32_t* status, void** handle, const char* name, int32_t name_length,
                        const double* values, const int32_t* rows, const int32_t* columns)
{
  call_frame("CTLV_INPUT_REAL_2D", status, handle, [&](CALL& call) {
    const std::string dataset = text_in(name, name_length);
    XXX_INPUT_REAL_2D(call.eh, call.object, dataset, values, value_of(rows), value_of(columns));
    echo_input(call.object, dataset);
  });
}

void ctlv_process(int32_t* status, void** handle, const char* json, int32_t json_length)
{
  call_frame("CTLV_PROCESS", status, handle,
             [&](CALL& call) { XXX_PROCESS(call.eh, call.object, text_in(json, json_length)); });
}

void ctlv_register_function(int32_t* status, void** handle, ctlv_monitor_function function, const char* kind,
                            int32_t kind_length)
{
  call_frame("CTLV_REGISTER_FUNCTION", status, handle, [&](CALL& call) {
    XXX_REGISTER_FUNCTION(call.eh, call.object, function, id_in(kind, kind_length));
  });
}

void ctlv_output_json(int32_t* status, void** handle, const char* id, int32_t id_length, char* buffer,
                      int32_t* length)
{
  bool written = false;
  call_frame("CTLV_OUTPUT_JSON", status, handle, [&](CALL& call) {
    const std::string asked = id_in(id, id_length);
    const std::string json = XXX_OUTPUT_JSON(call.eh, call.object, asked);
    if (call.eh.terminate() || json.empty()) return;
    if (bytes_out(json) > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
      call.eh.error(text("the output information with ID ", asked, " is too long for one JSON text"),
                    Ecode::too_small);
      return;
    }
    written = true;
    if (fits(json, buffer, length)) {
      std::memcpy(buffer, json.c_str(), bytes_out(json));
    } else {
      // A question for the size: the object keeps the messages of an earlier call.
      write_status(status, buffer_too_small);
      call.finish = false;
    }
    write_length(length, bytes_out(json));
  });
  if (!written) write_length(length, 0);
}

void ctlv_output_integer(int32_t* status, void** handle, const char* id, int32_t id_length, int32_t* values,
                         int32_t* count)
{
  call_frame("CTLV_OUTPUT_INTEGER", status, handle, [&](CALL& call) {
    XXX_OUTPUT_TABLE_DATA(call.eh, call.object, id_in(id, id_length),
                          {.integers = values, .integer_count = count});
  });
}

void ctlv_output_real(int32_t* status, void** handle, const char* id, int32_t id_length, double* values,
                      int32_t* count)
{
  call_frame("CTLV_OUTPUT_REAL", status, handle, [&](CALL& call) {
    XXX_OUTPUT_TABLE_DATA(call.eh, call.object, id_in(id, id_length), {.reals = values, .real_count = count});
  });
}

void ctlv_output_integer_scalar(int32_t* status, void** handle, const char* id, int32_t id_length,
                                int32_t* value)
{
  call_frame("CTLV_OUTPUT_INTEGER_SCALAR", status, handle, [&](CALL& call) {
    std::int32_t unwanted = 0;
    XXX_OUTPUT_SCALAR(call.eh, call.object, id_in(id, id_length), value != nullptr ? value : &unwanted);
  });
}

void ctlv_output_real_scalar(int32_t* status, void** handle, const char* id, int32_t id_length, double* value)
{
  call_frame("CTLV_OUTPUT_REAL_SCALAR", status, handle, [&](CALL& call) {
    double unwanted = 0.0;
    XXX_OUTPUT_SCALAR(call.eh, call.object, id_in(id, id_length), value != nullptr ? value : &unwanted);
  });
}

void ctlv_output_table_data(int32_t* status, void** handle, const char* id, int32_t id_length, double* reals,
                            int32_t* real_count, int32_t* integers, int32_t* integer_count, char* strings,
                            int32_t* string_length)
{
  call_frame("CTLV_OUTPUT_TABLE_DATA", status, handle, [&](CALL& call) {
    XXX_OUTPUT_TABLE_DATA(call.eh, call.object, id_in(id, id_length),
                          {.reals = reals,
                           .real_count = real_count,
                           .integers = integers,
                           .integer_count = integer_count,
                           .text = strings,
                           .text_length = string_length});
  });
}
