// The logical lines of a data file.  Routines: GTLINE, L_OPEN_DATA_FILE.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "api/error_handler.h"
#include "base/files.h"
#include "data/data_file_keys.h"

namespace tolvan {

struct DATA_LINES {
  FileReader file;
  std::string name;
  std::string_view line;     // the line in hand, until the next call
  std::int64_t number = 0;   // its physical number, of the first line where lines were joined
  bool ended = false;        // by a directive
  bool special_hash = true;  // '#' starts a remark
  bool hash_told = false;
  std::string joined;  // holds a line made of several
};

/// L_OPEN_DATA_FILE: opens a data file and skips what the request says.
void L_OPEN_DATA_FILE(ERROR_HANDLER& eh, const DATA_FILE_KEYS& keys, DATA_LINES& lines);

/// GTLINE: the next logical line that isn't blank: remarks cut off, continued lines joined, directives
/// obeyed. False at the end of the data and after a failure.
bool GTLINE(ERROR_HANDLER& eh, DATA_LINES& lines);

}  // namespace tolvan
