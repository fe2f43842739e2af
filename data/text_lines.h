// The logical lines of a data file.  Routines: L_OPEN_DATA_FILE, GTLINE, L_NEXT_LINE.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "api/error_handler.h"
#include "base/files.h"
#include "data/data_file_keys.h"

namespace tolvan {

/// A physical line of more bytes is refused.
inline constexpr std::size_t longest_data_line = std::size_t{1} << 26;

/// How the fields of a record stand in its line.
enum class Layout { comma_separated, free_format, fixed_columns };

/// A file that lines come from.
struct LINE_SOURCE {
  FileReader file;
  std::string name;
};

struct DATA_LINES {
  std::vector<LINE_SOURCE> sources;  // the data file and, on top of it, those that it includes
  Layout layout = Layout::comma_separated;
  std::string_view line;     // the line in hand, until the next call
  std::int64_t number = 0;   // its physical number in its file, of the first line where lines were joined
  std::int64_t record = 0;   // of the record it belongs to, from 1; kept by the reader of records
  bool ended = false;        // by a directive
  bool special_hash = true;  // '#' starts a remark
  bool hash_told = false;
  bool encoding_told = false;
  std::string joined;              // holds a line made of several
  std::set<std::string> assigned;  // names of text macros

  const std::string& name() const { return sources.back().name; }
  /// "record 3, line 5 of x.csv", for messages.
  std::string place() const;
};

/// L_OPEN_DATA_FILE: opens a text file of data and skips what the request says.
void L_OPEN_DATA_FILE(ERROR_HANDLER& eh, const DATA_FILE_KEYS& keys, DATA_LINES& lines);

/// GTLINE: the next logical line that isn't blank: remarks cut off, continued lines joined, directives
/// obeyed. False at the end of the data and after a failure.
bool GTLINE(ERROR_HANDLER& eh, DATA_LINES& lines);

/// L_NEXT_LINE: the next physical line, blank or not, without its remark; a failure to read it is reported.
bool L_NEXT_LINE(ERROR_HANDLER& eh, DATA_LINES& lines, std::string_view& line);

}  // namespace tolvan
