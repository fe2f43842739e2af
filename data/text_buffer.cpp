#include "data/text_buffer.h"

#include <charconv>
#include <cmath>

#include "base/numbers.h"
#include "base/open_file.h"
#include "base/text.h"
#include "data/cut_fields.h"
#include "data/field_values.h"
#include "data/read_errors.h"
#include "data/text_lines.h"

namespace tolvan {

namespace {

/// L_OPEN_ARRAY_FILE: opens a file of reals.
bool L_OPEN_ARRAY_FILE(ERROR_HANDLER& eh, const std::string& name, FileReader& file)
{
  const Frame here{eh, __func__};
  file.limit_lines(longest_data_line);
  const std::string reason = why_not_opened(name, file);
  if (reason.empty()) return true;
  eh.error(text("unable to open data file: ", name), Ecode::io_error);
  eh.continuation(reason);
  return false;
}

/// L_TAKE_REALS: adds the words of one line to the array.
///   columns   of the lines before, -1 for the first one
void L_TAKE_REALS(ERROR_HANDLER& eh, std::string_view line, bool labelled, std::int64_t number,
                  const std::string& name, std::int64_t& columns, REAL_ARRAY& array)
{
  const Frame here{eh, __func__};
  const SEPARATION by{.free = true};
  Cursor cursor{line};
  std::string scratch;
  std::int64_t words = 0;
  for (bool label = labelled; cursor.more; label = false, ++words) {
    std::string_view word;
    if (!ININTR(by, cursor, word, scratch)) {
      eh.error(text("a quote is not closed at line ", number, " of ", name));
      return;
    }
    if (label) {
      array.labels.emplace_back(word);
      continue;
    }
    double x = no_value;
    if (!is_missing_text(word) && (!read_real(word, x) || !std::isfinite(x))) {
      eh.error(text("\"", excerpt(word), "\" is not a number at line ", number, " of ", name));
      eh.continuation(text("word ", words + 1));
      return;
    }
    array.values.push_back(x);
  }
  if (columns >= 0 && words != columns) {
    eh.error(text("number of words read in changed from ", columns, " to ", words, " at line ", number));
    eh.continuation(text("of ", name));
    return;
  }
  columns = words;
}

/// L_READ_REALS: reads lines up to the end of the file.
void L_READ_REALS(ERROR_HANDLER& eh, FileReader& unit, const std::string& name, bool labelled,
                  REAL_ARRAY& array)
{
  const Frame here{eh, __func__};
  array = {};
  std::int64_t words = -1;
  std::string_view line;
  while (unit.next_line(line)) {
    if (is_blank(line)) continue;
    L_TAKE_REALS(eh, trim(line), labelled, unit.line_number(), name, words, array);
    if (eh.terminate()) return;
    ++array.rows;
  }
  if (!unit.error().empty()) {
    eh.error(text("unable to read file ", name, " behind line ", unit.line_number()), Ecode::io_error);
    eh.continuation(unit.error());
    return;
  }
  array.columns = std::max<std::int64_t>(0, words - (labelled ? 1 : 0));
}

}  // namespace

void TB_READ_FROM_FILE(ERROR_HANDLER& eh, const std::string& name, TEXT_BUFFER& buffer)
{
  const Frame here{eh, __func__};
  buffer = {.name = name, .lines = {}};
  FileReader file;
  file.limit_lines(longest_data_line);
  if (!OPEN_AND_CHECK_FILE(eh, name, file)) return;
  std::string_view line;
  while (file.next_line(line)) buffer.lines.push_back({std::string(line), file.line_number()});
  if (file.error().empty()) return;
  eh.error(text("unable to read file ", name, " behind line ", file.line_number()), Ecode::io_error);
  eh.continuation(file.error());
}

void READ_REAL_ARRAY_FROM_FILE(ERROR_HANDLER& eh, const std::string& name, REAL_ARRAY& array)
{
  const Frame here{eh, __func__};
  FileReader file;
  if (L_OPEN_ARRAY_FILE(eh, name, file)) READ_REAL_ARRAY_FROM_UNITNO(eh, file, name, array);
}

void READ_REAL_ARRAY_WITH_ROW_LABELS_FROM_FILE(ERROR_HANDLER& eh, const std::string& name, REAL_ARRAY& array)
{
  const Frame here{eh, __func__};
  FileReader file;
  if (L_OPEN_ARRAY_FILE(eh, name, file)) READ_REAL_ARRAY_WITH_ROW_LABELS_FROM_UNITNO(eh, file, name, array);
}

void READ_REAL_ARRAY_FROM_UNITNO(ERROR_HANDLER& eh, FileReader& unit, const std::string& name,
                                 REAL_ARRAY& array)
{
  const Frame here{eh, __func__};
  L_READ_REALS(eh, unit, name, false, array);
}

void READ_REAL_ARRAY_WITH_ROW_LABELS_FROM_UNITNO(ERROR_HANDLER& eh, FileReader& unit, const std::string& name,
                                                 REAL_ARRAY& array)
{
  const Frame here{eh, __func__};
  L_READ_REALS(eh, unit, name, true, array);
}

}  // namespace tolvan
