// The lines of text files with matrices and markers, counted for messages.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "api/error_handler.h"
#include "base/files.h"
#include "base/text.h"

namespace tolvan {

inline constexpr std::size_t shown_of_a_line = 60;
inline constexpr std::size_t longest_line = std::size_t{1} << 28;  // a line a row of a square matrix of high order

/// The lines of a file, counted for messages.
struct FILE_LINES {
  FileReader file;
  const std::string& path;
  std::string_view line;

  /// The next line; false at the end, and after a fault, which is told.
  bool next(ERROR_HANDLER& eh)
  {
    if (file.next_line(line)) {
      constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
      if (file.line_number() == 1 && line.starts_with(byte_order_mark)) line.remove_prefix(byte_order_mark.size());
      return true;
    }
    if (!file.error().empty()) unreadable(eh, file.line_of_fault(), file.error());
    return false;
  }
  void unreadable(ERROR_HANDLER& eh, std::int64_t number, std::string_view why) const
  {
    eh.error(text("unable to read from ", path, ", attempting to read line ", number), Ecode::io_error);
    if (!why.empty()) eh.continuation(std::string(why));
  }
  void unreadable(ERROR_HANDLER& eh, std::string_view why) const { unreadable(eh, file.line_number(), why); }
};

}  // namespace tolvan
