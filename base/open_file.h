// Opening files with the complaint that all of them share.  Routine: OPEN_AND_CHECK_FILE.
#pragma once

#include <string>

#include "api/error_handler.h"
#include "base/files.h"

namespace tolvan {

/// OPEN_AND_CHECK_FILE: opens a file to be read; code 2 with the system's reason, and false, where that
/// fails.
bool OPEN_AND_CHECK_FILE(ERROR_HANDLER& eh, const std::string& name, FileReader& file);
/// OPEN_AND_CHECK_FILE: the same for a file to be written.
bool OPEN_AND_CHECK_FILE(ERROR_HANDLER& eh, const std::string& name, FileWriter& file);

/// What keeps a file from being opened to be read; empty, and the file is open, where nothing does.
std::string why_not_opened(const std::string& name, FileReader& file);

}  // namespace tolvan
