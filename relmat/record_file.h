// Unformatted records of numbers: a record is its length in bytes (4 bytes), its bytes, and the length once more; all in
// the byte order of the machine.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "api/error_handler.h"
#include "base/files.h"
#include "base/text.h"

namespace tolvan {

inline constexpr std::int64_t mark_bytes = 4;

/// The records of a file of one precision.
struct RECORDS {
  FileHandle file;
  const std::string& path;
  bool single;
  std::int64_t bytes;  // of the whole file
  std::int64_t number = 0;
  std::vector<float> narrow;

  std::int64_t width() const { return single ? 4 : 8; }

  /// Reads a record of n numbers; false, with a message, where the file has another.
  bool read(ERROR_HANDLER& eh, std::int64_t n, double* to)
  {
    ++number;
    std::int32_t before = 0;
    std::int32_t behind = 0;
    bool done = get(&before, mark_bytes) && before == n * width();
    if (done && single) {
      narrow.resize(static_cast<std::size_t>(n));
      done = get(narrow.data(), n * width());
      std::copy(narrow.begin(), narrow.end(), to);
    } else if (done) {
      done = get(to, n * width());
    }
    if (done && get(&behind, mark_bytes) && behind == before) return true;
    eh.error(text("error reading values from ", path), Ecode::io_error);
    eh.continuation(text("record ", number, " is not one of ", n, " ", single ? "single" : "double",
                         " precision values"));
    return false;
  }

 private:
  bool get(void* to, std::int64_t n)
  {
    return std::fread(to, 1, static_cast<std::size_t>(n), file.get()) == static_cast<std::size_t>(n);
  }
};

/// Tells that a file is none of its precision.
inline void unreadable(ERROR_HANDLER& eh, const std::string& path, bool single)
{
  eh.error(text("unable to read from ", path, " as ", single ? "Single" : "Double", " precision binary file"),
           Ecode::io_error);
}

/// Opens a file and tells its size; null with a message if that can not be.
inline FileHandle open_to_read(ERROR_HANDLER& eh, const std::string& path, std::int64_t& bytes)
{
  bytes = file_size(path);
  FileHandle file(bytes >= 0 ? std::fopen(path.c_str(), "rbe") : nullptr);
  if (file == nullptr) eh.error(text("unable to open file ", path), Ecode::io_error);
  return file;
}

}  // namespace tolvan
