// How a user stops a run from outside.  Routine: CHECK_FOR_USER_ABORT.
#pragma once

#include <cstdint>

#include "api/error_handler.h"

namespace tolvan {

/// CHECK_FOR_USER_ABORT: the code of a wish to stop: of a message of type 5 already held, 8 for ABORTTLV.NOW, 9 for
/// FINALTLV.NOW in the working folder (each is deleted and becomes a message), else not_given.
std::int64_t CHECK_FOR_USER_ABORT(ERROR_HANDLER& eh);

/// Whether a marker file that asks to abort stands in the working folder; touches nothing.
bool abort_file_exists();

}  // namespace tolvan
