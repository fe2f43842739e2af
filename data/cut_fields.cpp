#include "data/cut_fields.h"

#include "base/text.h"
#include "data/read_errors.h"

namespace tolvan {

namespace {

bool is_space(char c)
{
  return c == ' ' || c == '\t';
}

/// A field that starts with a quote: the text up to the closing one, a doubled quote standing for itself, and
/// whatever follows up to the separator.  False if the quote is never closed.
bool take_quoted(const SEPARATION& by, Cursor& cursor, std::string& field)
{
  field.clear();
  const std::string_view line = cursor.line;
  std::size_t p = cursor.at + 1;
  while (true) {
    const std::size_t quote = line.find('"', p);
    if (quote == std::string_view::npos) return false;
    field += line.substr(p, quote - p);
    p = quote + 1;
    if (p >= line.size() || line[p] != '"') break;
    field += '"';
    ++p;
  }
  std::size_t end = p;
  while (end < line.size() && !by.ends(line[end])) ++end;
  field += rtrim(line.substr(p, end - p));
  cursor.at = end;
  return true;
}

/// Whether a field is a number with a decimal comma: digits on one side of it at least.
bool is_decimal_comma(std::string_view field)
{
  field = trim(field);
  if (!field.empty() && (field[0] == '-' || field[0] == '+')) field.remove_prefix(1);
  const std::size_t comma = field.find(',');
  if (comma == std::string_view::npos || field.size() < 2) return false;
  return field.find_first_not_of("0123456789,") == std::string_view::npos &&
         field.find(',', comma + 1) == std::string_view::npos;
}

}  // namespace

bool ININTR(const SEPARATION& by, Cursor& cursor, std::string_view& field, std::string& scratch)
{
  const std::string_view line = cursor.line;
  while (cursor.at < line.size() && is_space(line[cursor.at]) && line[cursor.at] != by.delimiter) ++cursor.at;
  if (cursor.at < line.size() && line[cursor.at] == '"') {
    if (!take_quoted(by, cursor, scratch)) return false;
    field = trim(scratch);
  } else {
    const std::size_t start = cursor.at;
    while (cursor.at < line.size() && !by.ends(line[cursor.at])) ++cursor.at;
    field = rtrim(line.substr(start, cursor.at - start));
  }
  step_over_separator(by, cursor);
  return true;
}

void L_CHOOSE_DELIMITER(ERROR_HANDLER& eh, const DATA_LINES& lines, std::size_t fields, SEPARATION& by)
{
  const Frame here{eh, __func__};
  std::string bare;  // the line without what stands in quotes
  bool quoted = false;
  for (const char c : lines.line) {
    if (c == '"') quoted = !quoted;
    if (!quoted) bare += c;
  }
  std::string evidence;
  bool by_semicolon = bare.find(';') != std::string::npos;
  for (const std::string& field : split(bare, ';')) {
    if (evidence.empty()) evidence = field;
    if (field.find(',') == std::string::npos) continue;
    by_semicolon = by_semicolon && is_decimal_comma(field);
    evidence = field;
  }
  if (by_semicolon) {
    by.delimiter = ';';
    by.decimal_comma = true;
    eh.note(text("CSV file appears to be \";\" delimited by: ", excerpt(trim(evidence)),
                 ", treated as DSV with , interpreted as ."));
    return;
  }
  if (bare.find(',') != std::string::npos || fields <= 1) return;
  eh.error(
      text("line [", excerpt(lines.line.substr(0, 40)), " ...] does not have CSV structure as expected"));
  eh.continuation(text("at ", lines.place(), ", ", fields, " fields are needed"));
}

}  // namespace tolvan
