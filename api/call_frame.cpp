#include "api/call_frame.h"

#include <cstring>
#include <type_traits>

#include "base/text.h"

namespace tolvan {

static_assert(std::is_nothrow_move_assignable_v<ERROR_HANDLER>, "the end of a call must not fail");

std::string text_in(const char* text, std::int32_t length)
{
  if (text == nullptr || length <= 0) return {};
  return {text, strnlen(text, static_cast<std::size_t>(length))};
}

std::string id_in(const char* text, std::int32_t length)
{
  return upper(text_in(text, length));
}

void write_status(std::int32_t* status, std::int64_t value) noexcept
{
  if (status != nullptr) *status = static_cast<std::int32_t>(value);
}

void FINISH_CALL(ERROR_HANDLER& eh, void* const* handle, std::int32_t* status) noexcept
{
  const std::int64_t result = eh.EH_STATUS();
  if (eh.count() == 0 && result == 0) {
    write_status(status, 0);
    return;
  }
  const DECODED_HANDLE decoded = decode_handle(handle);
  ERROR_HANDLER* stored = decoded.errors();
  if (stored == nullptr) {
    write_status(status, static_cast<std::int64_t>(decoded.status));
    return;
  }
  *stored = std::exchange(eh, ERROR_HANDLER());
  write_status(status, result);
}

}  // namespace tolvan
