// Running work that a library or a failed allocation may leave by an exception.
#pragma once

#include <utility>

#include "api/error_handler.h"

namespace tolvan {

/// Turns the exception in flight into a message: short memory, or an internal error.  Call it from a catch
/// only.
void report_exception(ERROR_HANDLER& eh) noexcept;

/// Runs the work; whatever it throws becomes a message.  The frames it left have popped their names by then.
template <class Work>
void guarded(ERROR_HANDLER& eh, Work&& work) noexcept
{
  try {
    std::forward<Work>(work)();
  } catch (...) {
    report_exception(eh);
  }
}

}  // namespace tolvan
