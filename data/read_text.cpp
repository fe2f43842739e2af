// Comma-separated text.  Routines: L_READ_TEXT_FILE, RDDATA, ININTR.
#include "data/read_text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <unordered_set>

#include "base/text.h"
#include "data/data_file_keys.h"
#include "data/label_text.h"
#include "data/read_errors.h"
#include "data/text_lines.h"
#include "data/transform_record.h"

namespace tolvan {

namespace {

constexpr std::size_t no_variable = static_cast<std::size_t>(-1);
constexpr std::size_t most_cut_labels_told = 50;

/// One file on its way into the store.
struct TextReading {
  VARIABLE_TABLE& variables;
  LEVEL_CODING& coding;
  char delimiter = ',';
  bool decimal_comma = false;
  std::vector<std::size_t> first_variable{};  // by field, no_variable where the field is not used
  std::vector<std::size_t> next_variable{};   // by variable: another one that reads the same field
  bool blanks_told = false;
  std::unordered_set<std::string> cut_labels{};  // told of
  std::string scratch{};                         // holds a field that isn't a piece of the line as it stands
  std::string number{};                          // holds a number whose spelling is changed
  std::vector<double> values{};                  // of the record in hand, in the order of the fields
  READ_FAULT fault{};
};

/// The place of reading in a line.  more is false once the last field is taken.
struct Cursor {
  std::string_view line;
  std::size_t at = 0;
  bool more = true;
};

bool is_space(char c)
{
  return c == ' ' || c == '\t';
}

void step_over_delimiter(Cursor& cursor)
{
  cursor.more = cursor.at < cursor.line.size();
  if (cursor.more) ++cursor.at;
}

/// A field that starts with a quote: the text up to the closing one, a doubled quote standing for itself, and
/// whatever follows up to the delimiter.  False if the quote is never closed.
bool take_quoted(Cursor& cursor, char delimiter, std::string& field)
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
  const std::size_t end = std::min(line.find(delimiter, p), line.size());
  field += rtrim(line.substr(p, end - p));
  cursor.at = end;
  step_over_delimiter(cursor);
  return true;
}

/// ININTR: cuts the next field off a line.  Blanks around it and the quotes do not belong to it.
/// False for a quote that is never closed.
bool ININTR(TextReading& reading, Cursor& cursor, std::string_view& field)
{
  const std::string_view line = cursor.line;
  while (cursor.at < line.size() && is_space(line[cursor.at]) && line[cursor.at] != reading.delimiter)
    ++cursor.at;
  if (cursor.at < line.size() && line[cursor.at] == '"') {
    if (!take_quoted(cursor, reading.delimiter, reading.scratch)) return false;
    field = trim(reading.scratch);
    return true;
  }
  const std::size_t start = cursor.at;
  while (cursor.at < line.size() && line[cursor.at] != reading.delimiter) ++cursor.at;
  field = rtrim(line.substr(start, cursor.at - start));
  step_over_delimiter(cursor);
  return true;
}

bool is_missing_text(std::string_view field)
{
  return field.empty() || field == "NA" || field == "na" || field == "*" || field == ".";
}

/// Whether a number too large or too small for a double is too large: its first digit stands left of the
/// point.
bool overflows(std::string_view number)
{
  const std::size_t e = number.find_first_of("eE");
  const std::string_view digits = number.substr(0, e);
  const std::int64_t point = static_cast<std::int64_t>(std::min(digits.find('.'), digits.size()));
  const std::size_t first = digits.find_first_of("123456789");
  if (first == std::string_view::npos) return false;
  const bool negative = e != std::string_view::npos && e + 1 < number.size() && number[e + 1] == '-';
  std::int64_t exponent = 0;
  if (e != std::string_view::npos) {
    const auto power = whole_number(number.substr(e + 1));
    if (!power) return !negative;
    exponent = *power;
  }
  return point - static_cast<std::int64_t>(first) + exponent > 0;
}

/// The number that a field spells: point or, in a file with decimal commas, comma; exponent letters e and d.
READ_FAULT::Kind parse_real(TextReading& reading, std::string_view field, double& x)
{
  using Kind = READ_FAULT::Kind;
  if (field.size() > 1 && field[0] == '+' && field[1] != '-') field.remove_prefix(1);
  if (field.find_first_of(reading.decimal_comma ? "dD," : "dD") != std::string_view::npos) {
    reading.number = field;
    for (char& c : reading.number) {
      if (c == 'd' || c == 'D') c = 'e';
      if (c == ',' && reading.decimal_comma) c = '.';
    }
    field = reading.number;
  }
  const char* end = field.data() + field.size();
  const auto [stop, failed] = std::from_chars(field.data(), end, x);
  if (failed == std::errc::invalid_argument || stop != end) return Kind::no_number;
  if (failed == std::errc::result_out_of_range) {
    if (overflows(field)) return Kind::not_finite;
    x = 0.0;
  }
  return std::isfinite(x) ? Kind::none : Kind::not_finite;
}

/// The level that a field of a coded factor stands for.
READ_FAULT::Kind level_of_field(TextReading& reading, std::size_t v, std::string_view field,
                                std::int64_t& level)
{
  using Kind = READ_FAULT::Kind;
  const Coding coding = reading.coding.variables[v].coding;
  const VARIABLE& owner = reading.variables.row(reading.coding.variables[v].owner);
  auto number = whole_number(field);
  if (double x = 0.0; !number && parse_real(reading, field, x) == Kind::none) {
    if (x == std::floor(x) && std::abs(x) <= largest_code) number = static_cast<std::int64_t>(x);
  }
  if (coding != Coding::level_number && owner.labels_fixed && (!number || coding == Coding::label_number)) {
    level = owner.labels.find(field);
    if (level > 0) return Kind::none;
  }
  if (!number) return coding != Coding::level_number && owner.labels_fixed ? Kind::no_label : Kind::no_level;
  level = level_of_number(reading.variables, reading.coding, v, *number);
  if (level > 0) return Kind::none;
  return *number > 0 ? Kind::level_too_large : Kind::no_level;
}

/// L_LABEL_LEVEL: the level of a label; blanks inside become underscores and long labels are cut, both with a
/// note.
std::int64_t L_LABEL_LEVEL(ERROR_HANDLER& eh, TextReading& reading, std::size_t v, std::string_view field)
{
  const VARIABLE& variable = reading.variables.rows[v];
  const bool embedded = field.find_first_of(" \t") != std::string_view::npos;
  const bool too_long =
      variable.label_length > 0 && static_cast<std::int64_t>(field.size()) > variable.label_length;
  if (!embedded && !too_long) return level_of_text(reading.variables, reading.coding, v, field);

  const Frame here{eh, __func__};
  std::string label(field);
  const VARIABLE& owner = reading.variables.row(reading.coding.variables[v].owner);
  if (embedded && owner.labels.find(field) == 0) {  // a declared label may hold blanks
    for (char& c : label) {
      if (is_space(c)) c = '_';
    }
    if (!reading.blanks_told) eh.note("Embedded blanks in data fields are converted to UNDERSCORE");
    reading.blanks_told = true;
  }
  if (too_long && reading.cut_labels.size() < most_cut_labels_told &&
      reading.cut_labels.insert(label).second) {
    eh.note(text("Truncating label \"", label, ". Reset label length with !LL"));  // sic
    if (reading.cut_labels.size() == most_cut_labels_told)
      eh.continuation("further labels are cut without a note");
  }
  return level_of_text(reading.variables, reading.coding, v, cut_label(label, variable.label_length));
}

/// The short road of a plain number that fills its field: neither quotes nor blanks nor another spelling.
template <class Number>
bool take_plain_number(const TextReading& reading, Cursor& cursor, Number& x)
{
  const char* start = cursor.line.data() + cursor.at;
  const char* end = cursor.line.data() + cursor.line.size();
  const auto [stop, failed] = std::from_chars(start, end, x);
  if (failed != std::errc{} || (stop != end && *stop != reading.delimiter)) return false;
  cursor.at = static_cast<std::size_t>(stop - cursor.line.data());
  step_over_delimiter(cursor);
  return true;
}

/// L_TAKE_FIELD: the number of the working row for one field and one variable.  False with the fault filled.
bool L_TAKE_FIELD(ERROR_HANDLER& eh, TextReading& reading, std::size_t v, std::string_view field, double& x)
{
  x = no_value;
  if (is_missing_text(field)) return true;
  READ_FAULT::Kind fault = READ_FAULT::Kind::none;
  std::int64_t level = 0;
  switch (reading.coding.variables[v].coding) {
    case Coding::variate:
      fault = parse_real(reading, field, x);
      break;
    case Coding::by_text:
      level = L_LABEL_LEVEL(eh, reading, v, field);
      break;
    default:
      fault = level_of_field(reading, v, field, level);
      break;
  }
  if (level > 0) x = static_cast<double>(level);
  if (fault == READ_FAULT::Kind::none) return true;
  reading.fault.kind = fault;
  reading.fault.variable = v;
  reading.fault.content = field;
  return false;
}

/// The short roads through one field that is used by one variable.  False where the long road must be taken.
bool take_quickly(TextReading& reading, std::size_t v, Cursor& cursor, double& x)
{
  switch (reading.coding.variables[v].coding) {
    case Coding::variate:
      if (reading.decimal_comma) return false;
      if (const Cursor before = cursor; !take_plain_number(reading, cursor, x) || !std::isfinite(x)) {
        cursor = before;
        return false;
      }
      return true;
    case Coding::level_number:
    case Coding::by_number: {
      const Cursor before = cursor;
      std::int64_t number = 0;
      if (take_plain_number(reading, cursor, number)) {
        const std::int64_t level = level_of_number(reading.variables, reading.coding, v, number);
        x = static_cast<double>(level);
        if (level > 0) return true;
      }
      cursor = before;
      return false;
    }
    default:
      return false;
  }
}

/// RDDATA: turns the fields of a line into a working row.  False with the fault filled.
bool RDDATA(ERROR_HANDLER& eh, TextReading& reading, std::string_view line, std::vector<double>& row)
{
  const Frame here{eh, __func__};
  Cursor cursor{line};
  reading.values.clear();
  for (std::size_t f = 0; f < reading.first_variable.size(); ++f) {
    reading.fault.field = static_cast<std::int64_t>(f) + 1;
    std::size_t v = reading.first_variable[f];
    if (!cursor.more) {
      while (v == no_variable) v = reading.first_variable[++f];  // the last field is always used
      reading.fault.kind = READ_FAULT::Kind::too_few_fields;
      reading.fault.variable = v;
      return false;
    }
    if (v != no_variable && reading.next_variable[v] == no_variable &&
        take_quickly(reading, v, cursor, row[v])) {
      reading.values.push_back(row[v]);
      continue;
    }
    std::string_view field;
    if (!ININTR(reading, cursor, field)) {
      reading.fault.kind = READ_FAULT::Kind::open_quote;
      reading.fault.character = line.size() + 1;
      return false;
    }
    for (; v != no_variable; v = reading.next_variable[v]) {
      if (!L_TAKE_FIELD(eh, reading, v, field, row[v])) return false;
      reading.values.push_back(row[v]);
    }
  }
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

/// L_CHOOSE_DELIMITER: tells from the first data line what separates the fields.  A semicolon does if every
/// comma of the line is a decimal one.
void L_CHOOSE_DELIMITER(ERROR_HANDLER& eh, const DATA_LINES& lines, TextReading& reading)
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
    reading.delimiter = ';';
    reading.decimal_comma = true;
    eh.note(text("CSV file appears to be \";\" delimited by: ", excerpt(trim(evidence)),
                 ", treated as DSV with , interpreted as ."));
    return;
  }
  if (bare.find(',') != std::string::npos || reading.first_variable.size() == 1) return;
  eh.error(
      text("line [", excerpt(lines.line.substr(0, 40)), " ...] does not have CSV structure as expected"));
  eh.continuation(text("at line ", lines.number, " of ", lines.name, ", ", reading.first_variable.size(),
                       " fields are needed"));
}

/// L_PREPARE_DATA_REORDER: which variables are read from each field of a line.
void L_PREPARE_DATA_REORDER(ERROR_HANDLER& eh, TextReading& reading)
{
  const Frame here{eh, __func__};
  constexpr std::int64_t most_fields = 10000000;
  reading.next_variable.assign(reading.variables.rows.size(), no_variable);
  for (std::size_t v = reading.variables.rows.size(); v-- > 0;) {  // backwards: each goes in front
    const VARIABLE& variable = reading.variables.rows[v];
    if (variable.column == 0) continue;
    if (variable.column > most_fields) {
      eh.error(text("variable ", variable.name, " can not be field ", variable.column, " of a data file"));
      return;
    }
    const auto field = static_cast<std::size_t>(variable.column - 1);
    if (field >= reading.first_variable.size()) reading.first_variable.resize(field + 1, no_variable);
    reading.next_variable[v] = reading.first_variable[field];
    reading.first_variable[field] = v;
  }
}

}  // namespace

void L_READ_TEXT_FILE(ERROR_HANDLER& eh, const JsonNode& data_file, VARIABLE_TABLE& variables,
                      LEVEL_CODING& coding, DATA_STORE& store)
{
  const Frame here{eh, __func__};
  DATA_FILE_KEYS keys;
  L_READ_DATA_FILE_KEYS(eh, data_file, keys);
  if (eh.terminate()) return;
  L_CALCULATE_LREAD(eh, 0, variables);
  if (eh.terminate()) return;
  TextReading reading{.variables = variables, .coding = coding};
  L_PREPARE_DATA_REORDER(eh, reading);
  if (eh.terminate()) return;
  DATA_LINES lines;
  L_OPEN_DATA_FILE(eh, keys, lines);
  if (eh.terminate()) return;

  std::vector<double> row(variables.rows.size(), no_value);
  std::int64_t record = 0;
  while ((keys.most_records == 0 || record < keys.most_records) && GTLINE(eh, lines)) {
    if (++record == 1) {
      L_CHOOSE_DELIMITER(eh, lines, reading);
      if (eh.terminate()) return;
    }
    if (!RDDATA(eh, reading, lines.line, row)) {
      REPORT_DATA_READING_ERRORS_AND_WARNINGS(eh, reading.fault, record, variables,
                                              reading.values, lines);
      return;
    }
    const bool kept = AIDTRN(eh, variables, coding, record, row);
    if (eh.terminate()) return;
    if (kept) DST_WRITE_ROW(eh, store, row);
    if (eh.terminate()) return;
  }
}

}  // namespace tolvan
