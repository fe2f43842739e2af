// Deleting the side files of a run.  Routine: CLEAN_TMP_FILES.
#pragma once

#include <string_view>

#include "api/error_handler.h"

namespace tolvan {

/// CLEAN_TMP_FILES: deletes the files that a run of this root name leaves, saved parameters (msv) apart.
void CLEAN_TMP_FILES(ERROR_HANDLER& eh, std::string_view root);

}  // namespace tolvan
