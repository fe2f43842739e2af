// A table of comma-separated text, read whole: a header line with the column names, then a line a record.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/problem.h"

namespace tolvan::driver {

/// Fields are views into the text, without quotes and surrounding blanks.
struct CsvFile {
  std::string path;
  char separator = ',';  // ';' goes with the decimal comma
  std::vector<std::string> header;
  std::vector<std::string_view> fields;  // record after record, header.size() each
  std::vector<std::int64_t> lines;       // the line on which each record begins, counted from 1
  std::vector<char> text;
  bool converted = false;  // it was not UTF-8 and was taken as Windows-1252

  std::int64_t records() const { return static_cast<std::int64_t>(lines.size()); }
  std::string_view field(std::int64_t record, std::size_t column) const
  {
    return fields[static_cast<std::size_t>(record) * header.size() + column];
  }
};

/// Reads a file.  The separator is that of the header: a comma, else a semicolon, else a tab.  Fields may
/// stand in quotes; every record has as many fields as the header; blank lines are passed over.
Problem read_csv(const std::string& path, CsvFile& out);

/// A missing value: nothing, NA, na, * or a single point.
bool is_missing(std::string_view field);
/// The number of a field; nothing if it is none or is not finite.
std::optional<double> number_of(std::string_view field, char separator);

}  // namespace tolvan::driver
