#include "data/read_binary.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <span>

#include "base/open_file.h"
#include "base/text.h"
#include "data/read_errors.h"

namespace tolvan {

namespace {

constexpr std::size_t mark_bytes = 4;
constexpr std::size_t longest_record = std::size_t{1} << 27;

/// The bytes of a file in order.
struct Bytes {
  FileReader file{};
  std::string_view chunk{};
  std::int64_t taken = 0;

  /// The next n bytes; gives how many there were.
  std::size_t take(char* to, std::size_t n)
  {
    std::size_t got = 0;
    while (got < n && (!chunk.empty() || file.next_chunk(chunk))) {
      const std::size_t part = std::min(n - got, chunk.size());
      std::memcpy(to + got, chunk.data(), part);
      chunk.remove_prefix(part);
      got += part;
    }
    taken += static_cast<std::int64_t>(got);
    return got;
  }
};

/// One binary file on its way.
struct BinaryReading {
  RECORD_INTAKE& intake;
  const KIND_ROW& kind;
  Bytes bytes{};
  std::int64_t record = 0;  // in hand, from 1; records that are skipped do not count
  std::int64_t start = 0;   // its first byte, marks apart, from 0
  std::vector<char> content{};
  std::size_t numbers = 0;  // in a record, once it is known
};

template <class Number>
double number_at(const char* bytes)
{
  Number x{};
  std::memcpy(&x, bytes, sizeof x);
  return static_cast<double>(x);
}

double value_at(const BinaryReading& reading, std::size_t f)
{
  const char* at = reading.content.data() + f * static_cast<std::size_t>(reading.kind.bytes);
  const double x = reading.kind.bytes == 4 ? number_at<float>(at) : number_at<double>(at);
  return std::isnan(x) || x == wide(static_cast<float>(no_value)) ? no_value : x;
}

/// L_CUT_OFF: complains of a file that ends within a record, or could not be read on.
void L_CUT_OFF(ERROR_HANDLER& eh, const BinaryReading& reading)
{
  const Frame here{eh, __func__};
  const std::string& name = reading.intake.keys.name;
  if (!reading.bytes.file.error().empty()) {
    eh.error(text("unable to read file ", name, " behind byte ", reading.bytes.taken), Ecode::io_error);
    eh.continuation(reading.bytes.file.error());
    return;
  }
  eh.error(text("the file ", name, " ends within record ", reading.record));
  eh.continuation(
      text("it has ", reading.bytes.taken, " bytes, the record begins behind byte ", reading.start));
}

/// L_TAKE_MARK: the length of a record from the mark at its start or end.  False at the end of the file,
/// where one is allowed, and after a failure.
bool L_TAKE_MARK(ERROR_HANDLER& eh, BinaryReading& reading, bool may_end, std::uint32_t& length)
{
  char mark[mark_bytes];
  const std::size_t got = reading.bytes.take(mark, mark_bytes);
  if (got == mark_bytes) {
    std::memcpy(&length, mark, mark_bytes);
    return true;
  }
  const Frame here{eh, __func__};
  if (got > 0 || !may_end || !reading.bytes.file.error().empty()) L_CUT_OFF(eh, reading);
  return false;
}

/// L_NEXT_BETWEEN_MARKS: the next record with its marks; a file must have as many numbers in each.
///   header   a record to be skipped, which may have any length
bool L_NEXT_BETWEEN_MARKS(ERROR_HANDLER& eh, BinaryReading& reading, bool header)
{
  const Frame here{eh, __func__};
  const std::string& name = reading.intake.keys.name;
  std::uint32_t length = 0;
  std::uint32_t behind = 0;
  reading.start = reading.bytes.taken;
  if (!L_TAKE_MARK(eh, reading, true, length)) return false;
  reading.start = reading.bytes.taken;
  const auto size = static_cast<std::uint32_t>(reading.kind.bytes);
  if (length > longest_record || (!header && length % size != 0)) {
    eh.error(text("record ", reading.record, " of ", name, " can not be ", length, " bytes long"));
    eh.continuation(text("by the mark in front of byte ", reading.start, ", numbers have ", size, " bytes"));
    return false;
  }
  reading.content.resize(length);
  if (reading.bytes.take(reading.content.data(), length) < length) {
    L_CUT_OFF(eh, reading);
    return false;
  }
  if (!L_TAKE_MARK(eh, reading, false, behind)) return false;
  if (behind != length) {
    eh.error(text("the marks of record ", reading.record, " of ", name, " differ"));
    eh.continuation(
        text("they say ", length, " and ", behind, " bytes, the record begins behind byte ", reading.start));
    return false;
  }
  if (header) return true;
  const std::size_t numbers = length / size;
  if (reading.record > 1 && numbers != reading.numbers) {
    eh.error(text("record ", reading.record, " of ", name, " has ", numbers, " numbers, the records before ",
                  reading.numbers));
    eh.continuation(text("it begins behind byte ", reading.start));
    return false;
  }
  reading.numbers = numbers;
  return true;
}

/// L_NEXT_BARE: the next record of a file without marks.
bool L_NEXT_BARE(ERROR_HANDLER& eh, BinaryReading& reading)
{
  reading.start = reading.bytes.taken;
  const std::size_t got = reading.bytes.take(reading.content.data(), reading.content.size());
  if (got == reading.content.size()) return true;
  const Frame here{eh, __func__};
  if (got > 0 || !reading.bytes.file.error().empty()) L_CUT_OFF(eh, reading);
  return false;
}

bool next_record(ERROR_HANDLER& eh, BinaryReading& reading, bool header = false)
{
  return reading.kind.marked ? L_NEXT_BETWEEN_MARKS(eh, reading, header) : L_NEXT_BARE(eh, reading);
}

/// L_REPORT_NUMBER: says which number is none of its variable, and why.
void L_REPORT_NUMBER(ERROR_HANDLER& eh, const BinaryReading& reading, std::size_t f, const std::string& why)
{
  const Frame here{eh, __func__};
  eh.error(text("error at field [", f + 1, "] of record ", reading.record));
  eh.continuation(text("of ", reading.intake.keys.name, ", byte ",
                       reading.start + static_cast<std::int64_t>(f) * reading.kind.bytes + 1, ", ", why));
  eh.error(text("data input was aborted after reading ", reading.record - 1, " records"));
}

/// L_TAKE_NUMBER: the number of the working row for one number of the file and one variable.
void L_TAKE_NUMBER(ERROR_HANDLER& eh, BinaryReading& reading, std::size_t f, std::size_t v, double x)
{
  FIELD_VALUES& values = reading.intake.values;
  const VARIABLE_CODING& coded = values.coding.variables[v];
  double& out = reading.intake.row[v];
  out = x;
  if (is_no_value(x)) return;
  const bool finite = std::isfinite(x);
  if (coded.coding == Coding::variate && finite) return;
  const std::int64_t level = finite ? level_of_value(values.variables, values.coding, v, x) : 0;
  if (level > 0) {
    out = static_cast<double>(level);
    return;
  }
  const Frame here{eh, __func__};
  L_REPORT_NUMBER(eh, reading, f,
                  text("variable ", values.variables.rows[v].name, ": ", x,
                       finite ? level_fault(coded, x) : " is not a finite number"));
}

/// L_TAKE_NUMBERS: the working row of the record in hand.
void L_TAKE_NUMBERS(ERROR_HANDLER& eh, BinaryReading& reading)
{
  const Frame here{eh, __func__};
  RECORD_INTAKE& intake = reading.intake;
  const FIELD_MAP& fields = intake.fields;
  if (reading.numbers < fields.fields()) {
    L_REPORT_NUMBER(eh, reading, reading.numbers,
                    text("the record has ", reading.numbers, " numbers, ", fields.fields(), " are needed"));
    return;
  }
  for (std::size_t f = 0; f < fields.fields(); ++f) {
    const double x = value_at(reading, f);
    if (f == intake.selection.field) intake.kept = selected(intake.selection, x);
    for (std::size_t v = fields.first_variable[f]; v != no_variable; v = fields.next_variable[v]) {
      L_TAKE_NUMBER(eh, reading, f, v, x);
      if (eh.terminate()) return;
    }
  }
}

/// L_SKIP_HEADER: skips records in front of the data.
void L_SKIP_HEADER(ERROR_HANDLER& eh, BinaryReading& reading)
{
  const Frame here{eh, __func__};
  const DATA_FILE_KEYS& keys = reading.intake.keys;
  if (!keys.skip_text.empty()) {
    eh.error(text("a text can not be skipped in the binary file ", keys.name, ", skip must be a number"));
    return;
  }
  for (std::int64_t k = 0; k < keys.skip_lines; ++k) {
    if (next_record(eh, reading, true)) continue;
    if (eh.terminate()) return;
    if (reading.kind.marked) {
      eh.error(text("failed to find  ", keys.skip_lines, " header blocks in to skip in ", keys.name));  // sic
    } else {
      eh.error(text("unable to skip ", keys.skip_lines, " lines in ", keys.name));
    }
    return;
  }
}

/// L_WARN_OF_TEXTS: string factors come as the numbers of their labels.
void L_WARN_OF_TEXTS(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables)
{
  const Frame here{eh, __func__};
  for (const VARIABLE& variable : variables.rows) {
    if (variable.type != FieldType::string_factor || variable.column == 0) continue;
    eh.warning("the !A qualifier is ignored when reading binary data");
    eh.continuation(text("the numbers of ", variable.name, " are taken as those of its labels"));
    return;
  }
}

/// L_NUMBER_SELECTION: texts that select must spell numbers where the file holds numbers.
void L_NUMBER_SELECTION(ERROR_HANDLER& eh, SELECTION& selection)
{
  const Frame here{eh, __func__};
  for (SELECT_VALUE* value : {&selection.select, &selection.exclude}) {
    if (!value->is_text) continue;
    value->is_text = false;
    if (read_real(value->text, value->number)) continue;
    eh.error(text("records of a binary file can not be selected by the text ", value->text));
    return;
  }
}

}  // namespace

void L_READ_BINARY_FILE(ERROR_HANDLER& eh, RECORD_INTAKE& intake)
{
  const Frame here{eh, __func__};
  BinaryReading reading{.intake = intake, .kind = kind_row(intake.keys.kind)};
  L_NUMBER_SELECTION(eh, intake.selection);
  if (eh.terminate()) return;
  if (!OPEN_AND_CHECK_FILE(eh, intake.keys.name, reading.bytes.file)) return;
  if (!reading.kind.marked) {
    reading.numbers = intake.fields.fields();
    if (reading.numbers == 0) {
      eh.error(text("no variable is read from the binary file ", intake.keys.name));
      return;
    }
    reading.content.resize(reading.numbers * static_cast<std::size_t>(reading.kind.bytes));
  }
  L_SKIP_HEADER(eh, reading);
  if (eh.terminate()) return;
  eh.note(text("reading ", intake.keys.name, " as ", reading.kind.said));
  L_WARN_OF_TEXTS(eh, intake.values.variables);

  for (reading.record = 1; !intake.complete() && next_record(eh, reading); ++reading.record) {
    L_TAKE_NUMBERS(eh, reading);
    if (eh.terminate()) return;
    TAKE_RECORD(eh, intake, {});
    if (eh.terminate()) return;
  }
}

}  // namespace tolvan
