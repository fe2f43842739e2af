// Cutting a line into its fields.  Routines: ININTR, L_CHOOSE_DELIMITER.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <string>
#include <string_view>

#include "api/error_handler.h"
#include "data/text_lines.h"

namespace tolvan {

/// What stands between fields.
struct SEPARATION {
  bool free = false;  // blanks and tabs separate, too
  char delimiter = ',';
  bool decimal_comma = false;

  bool ends(char c) const { return c == delimiter || (free && (c == ' ' || c == '\t')); }
};

/// The place of reading in a line.  more is false once the last field is taken.
struct Cursor {
  std::string_view line;
  std::size_t at = 0;
  bool more = true;
};

/// ININTR: cuts the next field off a line.  Blanks around it and the quotes do not belong to it.  False for a
/// quote that is never closed.
///   scratch   holds a field that isn't a piece of the line as it stands
bool ININTR(const SEPARATION& by, Cursor& cursor, std::string_view& field, std::string& scratch);

/// Leaves a field behind: steps over what separates it from the next.
inline void step_over_separator(const SEPARATION& by, Cursor& cursor)
{
  const std::string_view line = cursor.line;
  if (by.free) {
    while (cursor.at < line.size() && (line[cursor.at] == ' ' || line[cursor.at] == '\t')) ++cursor.at;
    cursor.more = cursor.at < line.size();
    if (cursor.more && line[cursor.at] == by.delimiter) ++cursor.at;
    return;
  }
  cursor.more = cursor.at < line.size();
  if (cursor.more) ++cursor.at;
}

/// The short road of a plain number that fills its field: neither quotes nor another spelling, blanks in
/// front only where they separate.  False, the cursor unmoved, where the long road must be taken.
template <class Number>
bool take_plain_number(const SEPARATION& by, Cursor& cursor, Number& x)
{
  const char* start = cursor.line.data() + cursor.at;
  const char* end = cursor.line.data() + cursor.line.size();
  if (by.free) {
    while (start != end && *start == ' ') ++start;
  }
  const auto [stop, failed] = std::from_chars(start, end, x);
  if (failed != std::errc{} || (stop != end && !by.ends(*stop))) return false;
  cursor.at = static_cast<std::size_t>(stop - cursor.line.data());
  step_over_separator(by, cursor);
  return true;
}

/// The short road of a label without blanks, quotes or anything else to be changed.  False, the cursor
/// unmoved, where the long road must be taken.
inline bool take_plain_label(const SEPARATION& by, Cursor& cursor, std::string_view& label)
{
  const char* start = cursor.line.data() + cursor.at;
  const char* end = cursor.line.data() + cursor.line.size();
  if (by.free) {
    while (start != end && *start == ' ') ++start;
  }
  const char* p = start;
  while (p != end && static_cast<unsigned char>(*p) > ' ' && *p != by.delimiter) ++p;
  if (p == start || *start == '"' || (p != end && !by.ends(*p))) return false;
  label = {start, static_cast<std::size_t>(p - start)};
  cursor.at = static_cast<std::size_t>(p - cursor.line.data());
  step_over_separator(by, cursor);
  return true;
}

/// L_CHOOSE_DELIMITER: tells from the first line of comma-separated text what separates the fields.  A
/// semicolon does if every comma of the line is a decimal one.
///   fields   needed of a line
void L_CHOOSE_DELIMITER(ERROR_HANDLER& eh, const DATA_LINES& lines, std::size_t fields, SEPARATION& by);

}  // namespace tolvan
