// The description of a data file in the request.  Routine: L_READ_DATA_FILE_KEYS.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "api/error_handler.h"
#include "base/json.h"

namespace tolvan {

/// What a file holds.  Numbers of binary kinds are in the byte order of the machine.
enum class FileKind {
  csv,   // comma-separated text
  text,  // free-format text, or text by a format
  bin,   // singles, each record between two marks of 4 bytes that hold its length
  srs,   // singles alone
  dbl,   // doubles between marks
  drs,   // doubles alone
  dpr,   // doubles between marks
};
struct KIND_ROW {
  FileKind kind;
  std::string_view extension;  // of a file to be read
  bool binary;
  bool marked;  // records stand between marks
  int bytes;    // of a number
  std::string_view said;
  std::string_view saved_as;  // name, or extension where it starts with a point
};
// clang-format off
inline constexpr std::array file_kinds = {
    KIND_ROW{FileKind::csv,  ".csv", false, false, 0, "",                        ".tvp"},
    KIND_ROW{FileKind::text, "",     false, false, 0, "",                        ""},
    KIND_ROW{FileKind::bin,  ".bin", true,  true,  4, "BINARY SINGLE PRECISION", "tlvdata.bin"},
    KIND_ROW{FileKind::srs,  ".srs", true,  false, 4, "SINGLE PRECISION",        "tlvdata.srs"},
    KIND_ROW{FileKind::dbl,  ".dbl", true,  true,  8, "BINARY DOUBLE PRECISION", "tlvdata.dbl"},
    KIND_ROW{FileKind::drs,  ".drs", true,  false, 8, "DOUBLE PRECISION",        "tlvdata.drs"},
    KIND_ROW{FileKind::dpr,  ".dpr", true,  true,  8, "BINARY DOUBLE PRECISION", "tlvdata.dpr"},
};
// clang-format on
constexpr const KIND_ROW& kind_row(FileKind kind)
{
  return file_kinds[static_cast<std::size_t>(kind)];
}
static_assert(kind_row(FileKind::dpr).kind == FileKind::dpr && file_kinds.size() == 7);

/// A value that records are kept or dropped by.
struct SELECT_VALUE {
  bool given = false;
  bool is_text = false;
  double number = 0.0;
  std::string text;
};

struct DATA_FILE_KEYS {
  std::string name;
  FileKind kind = FileKind::csv;
  std::int64_t skip_lines = 0;
  std::string skip_text;           // skip all lines up to one that holds it; empty: none
  std::int64_t skip_instance = 1;  // and this is the one
  std::int64_t most_records = 0;   // 0: all
  std::string format;              // of text in fixed columns; empty: none
  std::string filter_name;         // the variable of the selection; empty: filter_column counts
  std::int64_t filter_column = 0;  // the field of the selection, from 1; 0: none
  SELECT_VALUE select, exclude;
  bool recode = false;  // pedigree factors hold rows of the pedigree
  bool print = false;   // tell the first records
  bool save = false;    // write what was read to a file of the kind save_kind
  FileKind save_kind = FileKind::bin;

  bool filters() const { return !filter_name.empty() || filter_column > 0; }
};

/// L_READ_DATA_FILE_KEYS: reads the keys of data_file.
void L_READ_DATA_FILE_KEYS(ERROR_HANDLER& eh, const JsonNode& data_file, DATA_FILE_KEYS& keys);

}  // namespace tolvan
