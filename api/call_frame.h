// The frame that every export puts around its work.  Routine: FINISH_CALL.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "api/error_handler.h"
#include "api/guard.h"
#include "api/handle.h"

namespace tolvan {

/// A text argument as an owned string: it ends at the first NUL within the length, or at the length.  Null is
/// empty.
std::string text_in(const char* text, std::int32_t length);
/// The text of an output ID, in upper case.
std::string id_in(const char* text, std::int32_t length);
/// Writes a status; the host may not want it.
void write_status(std::int32_t* status, std::int64_t value) noexcept;

/// FINISH_CALL: works out the status of a call and hands its messages over to the object, where they stay
/// readable.
///
/// Without messages the object keeps those of an earlier call.  Otherwise its error store becomes the call's,
/// with the export's name on the live stack; the call's own handler is left empty.  Nothing is allocated, so
/// that the end of a call cannot fail.
void FINISH_CALL(ERROR_HANDLER& eh, void* const* handle, std::int32_t* status) noexcept;

/// What the work of an export is given.
struct CALL {
  ERROR_HANDLER eh;
  DECODED_HANDLE object;
  bool finish = true;  // the work clears it when it has written the status itself
};

/// Runs the work of an export under its routine name: work(call), unless the handle is no good.
template <class Work>
void call_frame(std::string_view routine, std::int32_t* status, void* const* handle, Work&& work) noexcept
{
  CALL call;
  // The name is not taken off again: it belongs to the stack that the object gets to keep.
  call.eh.EST_ADD(routine);
  guarded(call.eh, [&] {
    call.object = CHECK_HANDLE(call.eh, handle, "HND");
    if (!call.eh.terminate()) work(call);
  });
  if (call.finish) FINISH_CALL(call.eh, handle, status);
}

}  // namespace tolvan
