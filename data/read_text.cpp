// Text files, a record after the other.  Routines: L_READ_TEXT_FILE, RDDATA, L_READ_BY_FORMAT.
#include "data/read_text.h"

#include <cmath>

#include "base/text.h"
#include "base/utf8.h"
#include "data/cut_fields.h"
#include "data/format_list.h"
#include "data/read_errors.h"
#include "data/text_lines.h"

namespace tolvan {

namespace {

using Fault = READ_FAULT::Kind;

/// The tools of one text file.
struct TextReading {
  RECORD_INTAKE& intake;
  DATA_LINES lines{};
  SEPARATION separation{};
  FORMAT_LIST format{};
  std::string scratch{};  // holds a field that isn't a piece of the line as it stands
  READ_FAULT fault{};
};

/// The short roads through one field that is used by one variable.  False where the long road must be taken.
bool take_quickly(TextReading& reading, std::size_t v, Cursor& cursor, double& x)
{
  FIELD_VALUES& values = reading.intake.values;
  const SEPARATION& by = reading.separation;
  const Cursor before = cursor;
  switch (values.coding.variables[v].coding) {
    case Coding::variate:
      if (values.variables.rows[v].content != FieldContent::number) return false;
      if (take_plain_number(by, cursor, x) && std::isfinite(x)) return true;
      break;
    case Coding::level_number:
    case Coding::by_number:
      if (std::int64_t number = 0; take_plain_number(by, cursor, number)) {
        const std::int64_t level = level_of_number(values.variables, values.coding, v, number);
        x = static_cast<double>(level);
        if (level > 0) return true;
      }
      break;
    case Coding::by_text:
      if (std::string_view label;
          values.variables.rows[v].label_length == 0 && take_plain_label(by, cursor, label)) {
        x = is_missing_text(label)
                ? no_value
                : static_cast<double>(level_of_text(values.variables, values.coding, v, label));
        return true;
      }
      break;
    case Coding::by_identity:
      if (std::string_view label; take_plain_label(by, cursor, label) && !is_missing_text(label)) {
        const std::int64_t level = values.variables.row(values.coding.variables[v].owner).labels.find(label);
        x = static_cast<double>(level);
        if (level > 0) return true;
      }
      break;
    default:
      break;
  }
  cursor = before;
  return false;
}

/// Hands a field to the selection and to all variables that read it.  False with the fault filled.
bool take_field(ERROR_HANDLER& eh, TextReading& reading, std::size_t f, std::string_view field, int decimals)
{
  RECORD_INTAKE& intake = reading.intake;
  if (f == intake.selection.field) intake.kept = selected(intake.selection, intake.values, field);
  for (std::size_t v = intake.fields.first_variable[f]; v != no_variable;
       v = intake.fields.next_variable[v]) {
    reading.fault.kind = L_TAKE_FIELD(eh, intake.values, v, field, decimals, intake.row[v]);
    if (reading.fault.kind == Fault::none) continue;
    reading.fault.field = static_cast<std::int64_t>(f) + 1;
    reading.fault.variable = v;
    reading.fault.content = field;
    return false;
  }
  return true;
}

/// The fault of a record that ends before a field.  False, for the caller to hand on.
bool too_few_fields(TextReading& reading, std::size_t f)
{
  const auto& first = reading.intake.fields.first_variable;
  const std::size_t filter = reading.intake.selection.field;
  while (first[f] == no_variable && f != filter) ++f;  // the last field is always used
  reading.fault.kind = Fault::too_few_fields;
  reading.fault.field = static_cast<std::int64_t>(f) + 1;
  reading.fault.variable = first[f];
  return false;
}

/// RDDATA: turns the fields of a line into a working row.  False with the fault filled.
bool RDDATA(ERROR_HANDLER& eh, TextReading& reading)
{
  const Frame here{eh, __func__};
  RECORD_INTAKE& intake = reading.intake;
  Cursor cursor{reading.lines.line};
  for (std::size_t f = 0; f < intake.fields.fields(); ++f) {
    const std::size_t v = intake.fields.first_variable[f];
    if (!cursor.more) return too_few_fields(reading, f);
    if (v != no_variable && intake.fields.next_variable[v] == no_variable && f != intake.selection.field &&
        take_quickly(reading, v, cursor, intake.row[v])) {
      continue;
    }
    std::string_view field;
    if (!ININTR(reading.separation, cursor, field, reading.scratch)) {
      reading.fault.kind = Fault::open_quote;
      reading.fault.character = reading.lines.line.size() + 1;
      return false;
    }
    if (!take_field(eh, reading, f, field, 0)) return false;
  }
  return true;
}

/// L_READ_BY_FORMAT: takes the fields of a record from their columns, going to further lines as the format
/// says. What a line is too short for is blank, and so missing.  False with the fault filled, or after a
/// failure.
bool L_READ_BY_FORMAT(ERROR_HANDLER& eh, TextReading& reading)
{
  const Frame here{eh, __func__};
  std::string_view& line = reading.lines.line;
  const auto next_line = [&] {
    std::string_view next;  // none is left where that fails
    const bool got = L_NEXT_LINE(eh, reading.lines, next);
    line = next;
    return got;
  };
  std::size_t in_line = 0;
  for (std::size_t f = 0; f < reading.format.fields.size(); ++f) {
    const FORMAT_FIELD& place = reading.format.fields[f];
    for (; in_line < place.line; ++in_line) {
      if (!next_line()) return eh.terminate() ? false : too_few_fields(reading, f);
    }
    std::string_view field = place.start < line.size() ? trim(line.substr(place.start, place.width)) : std::string_view{};
    if (has_high_bytes(field) && !is_utf8(field)) {
      reading.scratch = utf8_from_windows(field);
      field = reading.scratch;
    }
    if (!take_field(eh, reading, f, field, place.decimals)) return false;
  }
  // Lines behind the last field may be missing in the last record.
  for (++in_line; in_line < reading.format.lines; ++in_line) {
    if (!next_line()) return !eh.terminate();
  }
  return true;
}

/// L_BEGIN_FIRST_RECORD: decides with the first line in hand how fields are cut.
void L_BEGIN_FIRST_RECORD(ERROR_HANDLER& eh, TextReading& reading)
{
  const Frame here{eh, __func__};
  reading.separation.free = reading.lines.layout == Layout::free_format;
  if (reading.lines.layout != Layout::comma_separated) return;
  L_CHOOSE_DELIMITER(eh, reading.lines, reading.intake.fields.fields(), reading.separation);
  reading.intake.values.decimal_comma = reading.separation.decimal_comma;
  if (eh.terminate() || reading.intake.values.variables.transformations.empty()) return;
  // Transformations may write columns that are not read for that, and CHECKTRN tells of it.
  std::string_view field;
  for (Cursor cursor{reading.lines.line}; cursor.more;) {
    if (!ININTR(reading.separation, cursor, field, reading.scratch)) return;
    ++reading.intake.values.variables.source_columns;
  }
}

}  // namespace

void L_READ_TEXT_FILE(ERROR_HANDLER& eh, RECORD_INTAKE& intake)
{
  const Frame here{eh, __func__};
  TextReading reading{.intake = intake};
  DATA_LINES& lines = reading.lines;
  if (!intake.keys.format.empty()) {
    AIDFMT(eh, intake.keys.format, intake.fields.fields(), reading.format);
    if (eh.terminate()) return;
  }
  L_OPEN_DATA_FILE(eh, intake.keys, lines);
  if (eh.terminate()) return;

  lines.record = 1;
  while (!intake.complete() && GTLINE(eh, lines)) {
    if (lines.record == 1) {
      L_BEGIN_FIRST_RECORD(eh, reading);
      if (eh.terminate()) return;
    }
    const bool good =
        lines.layout == Layout::fixed_columns ? L_READ_BY_FORMAT(eh, reading) : RDDATA(eh, reading);
    if (eh.terminate()) return;
    if (!good) {
      REPORT_DATA_READING_ERRORS_AND_WARNINGS(eh, reading.fault, intake.values.variables, intake.fields,
                                              intake.row, lines);
      return;
    }
    TAKE_RECORD(eh, intake, lines.line);
    if (eh.terminate()) return;
    ++lines.record;
  }
}

}  // namespace tolvan
