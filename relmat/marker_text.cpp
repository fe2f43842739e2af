// Markers in text files.  Routine: L_READ_MARKER_TEXT.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>

#include "base/memory.h"
#include "base/text.h"
#include "data/cut_fields.h"
#include "data/field_values.h"
#include "data/level_table.h"
#include "data/entry_values.h"
#include "relmat/file_lines.h"
#include "relmat/marker_files.h"
#include "relmat/marker_table.h"

namespace tolvan {
namespace {

constexpr std::string_view remark = "//";

/// What a line of the file is.
enum class LineIs { genotype, marker, value };

/// A file on its way into a table.
struct MARKER_TEXT {
  const MARKER_KEYS& keys;
  FILE_LINES lines;
  LineIs line_is = LineIs::genotype;
  std::vector<std::string> header = {};  // fields of the first line, where it holds names
  std::size_t label_field = 0, name_field = 0, value_field = 0;
  std::size_t leading = 0;          // fields ahead of the regressors
  std::int64_t named = 0;           // regressors that the header tells; 0: it does not
  std::int64_t header_line = 0;     // its number
  std::int64_t most = 0;            // fields that a line may have behind the leading ones
  std::vector<std::string> labels = {};  // of the genotypes
  std::vector<std::string> names = {};   // of the regressors
  std::vector<std::int64_t> numbers = {};  // of the lines
  std::int64_t extra = 0;           // lines with further fields
  MARKER_TABLE table = MARKER_TABLE();
};

bool is_separator(char c)
{
  return c == ' ' || c == '\t' || c == ',' || c == '\r';
}

/// The fields of a line one after the other; an empty one stands between two commas.
struct FIELDS {
  const char* at;
  const char* end;
  bool behind_comma = false;

  explicit FIELDS(std::string_view line) : at(line.data()), end(line.data() + line.size()) {}
  void skip_blanks()
  {
    while (at != end && (*at == ' ' || *at == '\t' || *at == '\r')) ++at;
  }
  /// Steps over what separates a field from the next.
  void leave()
  {
    skip_blanks();
    behind_comma = at != end && *at == ',';
    if (behind_comma) ++at;
  }
  bool next(std::string_view& field)
  {
    skip_blanks();
    if (at == end && !behind_comma) return false;
    const char* start = at;
    if (at != end && *at == '"') {
      const char* close = std::find(at + 1, end, '"');
      if (close != end) {
        field = {at + 1, static_cast<std::size_t>(close - at - 1)};
        at = close + 1;
        while (at != end && !is_separator(*at)) ++at;
        leave();
        return true;
      }
    }
    while (at != end && !is_separator(*at)) ++at;
    field = {start, static_cast<std::size_t>(at - start)};
    leave();
    return true;
  }
  std::int64_t count_rest()
  {
    std::int64_t count = 0;
    for (std::string_view field; next(field);) ++count;
    return count;
  }
};

/// The next line with contents that is no remark; false at the end.
bool next_line(ERROR_HANDLER& eh, FILE_LINES& lines)
{
  while (lines.next(eh)) {
    const std::string_view line = trim(lines.line);
    if (!line.empty() && !line.starts_with(remark)) return true;
  }
  return false;
}

/// L_READ_VALUE: the number of a field, NaN for a missing one; false, with a message, for anything else.
bool L_READ_VALUE(ERROR_HANDLER& eh, const FILE_LINES& lines, std::string_view field, double& x)
{
  if (is_missing_text(field)) {
    x = std::nan("");
    return true;
  }
  if (!field.empty() && field.front() == '+') field.remove_prefix(1);
  const auto [stop, failed] = std::from_chars(field.data(), field.data() + field.size(), x);
  const bool whole = failed == std::errc{} && stop == field.data() + field.size();
  if (whole && std::isfinite(x)) return true;
  const Frame here{eh, __func__};
  lines.unreadable(eh, whole ? "a value is not finite" : text(field.substr(0, shown_of_a_line), " is no number"));
  return false;
}

/// L_READ_HEADER: takes the line of names.
void L_READ_HEADER(ERROR_HANDLER& eh, MARKER_TEXT& file)
{
  const Frame here{eh, __func__};
  const std::string_view line = trim(file.lines.line);
  const std::string beginning(line.substr(0, shown_of_a_line));
  file.header_line = file.lines.file.line_number();
  eh.note(text("GRR Header line begins: ", beginning));
  if (const std::size_t at = line.find(remark); at != std::string_view::npos) {
    eh.error(text("problem parsing \"//", line.substr(at + remark.size(), shown_of_a_line),
                  "\", move this text onto a seperate line"));  // sic
    return;
  }
  const auto failed = [&](std::string_view why) {
    eh.error(text("failed to parse GRR Label Line: ", beginning));
    eh.continuation(std::string(why));
  };
  std::string scratch;
  const SEPARATION by{.free = true};
  for (Cursor cursor{.line = line}; cursor.more;) {
    std::string_view field;
    if (!ININTR(by, cursor, field, scratch)) return failed("a quote is not closed");
    file.header.emplace_back(field);
  }
  const auto column_of = [&](const std::string& name, std::size_t& column) {
    const auto at = std::find(file.header.begin(), file.header.end(), name);
    if (at == file.header.end()) return false;
    column = static_cast<std::size_t>(at - file.header.begin());
    return true;
  };
  const MARKER_KEYS& keys = file.keys;
  if (!keys.genotype_column.empty() && !column_of(keys.genotype_column, file.label_field))
    return failed(text("there is no column ", keys.genotype_column));
  if (!keys.marker_column.empty() && !column_of(keys.marker_column, file.name_field))
    return failed(text("there is no column ", keys.marker_column));
  if (file.line_is == LineIs::value) {
    while (file.value_field == file.label_field || file.value_field == file.name_field) ++file.value_field;
    file.value_field += static_cast<std::size_t>(keys.columns_to_skip);
    if (file.label_field == file.name_field || file.value_field >= file.header.size() ||
        file.value_field == file.label_field || file.value_field == file.name_field)
      return failed("three columns were expected: genotypes, markers, values");
    return;
  }
  const std::size_t label = file.line_is == LineIs::marker ? file.name_field : file.label_field;
  if (!keys.no_label && label >= file.leading) return failed("the labels must stand ahead of the regressors");
  // A whole number in place of all names counts the regressors.
  std::int64_t count = 0;
  if (file.header.size() <= file.leading + 1 && read_integer(file.header.back(), count) && count > 0) {
    file.named = count;
    file.header.clear();
  } else if (file.header.size() <= file.leading) {
    return failed("it names no regressor");
  } else {
    file.header.erase(file.header.begin(), file.header.begin() + static_cast<std::ptrdiff_t>(file.leading));
    file.named = std::ssize(file.header);
  }
  if (file.line_is == LineIs::genotype)
    eh.note(text("the header line indicates there are ", file.named, " regressors in the file"));
}

/// L_COUNT_COLUMNS: how many regressors are used of those that the header and the first line of data have.
std::int64_t L_COUNT_COLUMNS(ERROR_HANDLER& eh, MARKER_TEXT& file, std::string_view first)
{
  const Frame here{eh, __func__};
  const std::int64_t present = FIELDS(first).count_rest() - static_cast<std::int64_t>(file.leading);
  const std::int64_t asked = file.line_is == LineIs::genotype ? file.keys.markers : 0;
  if (present < 1) {
    file.lines.unreadable(eh, text(file.leading + 1, " fields were expected"));
    return 0;
  }
  std::int64_t count = asked > 0 ? asked : file.named;
  if (file.named > 0) count = std::min(count, file.named);
  count = std::min(count, present);
  file.most = present < file.named ? present : std::max(count, file.named);
  if (file.line_is != LineIs::genotype) {
    if (count < file.named) file.lines.unreadable(eh, text("the header names ", file.named, " genotypes"));
    return count;
  }
  eh.note(asked > 0 && file.named > asked
              ? text("using the first ", count, " of the regressors that appear to be in the file")
              : text("using the ", count, " regressors that appear to be in the file"));
  return count;
}

/// L_LEADING_FIELDS: takes the label off the head of a line.
void L_LEADING_FIELDS(ERROR_HANDLER& eh, MARKER_TEXT& file, FIELDS& fields)
{
  const Frame here{eh, __func__};
  const bool markers = file.line_is == LineIs::marker;
  const std::size_t wanted = markers ? file.name_field : file.label_field;
  std::string_view field;
  for (std::size_t k = 0; k < file.leading; ++k) {
    if (!fields.next(field)) return file.lines.unreadable(eh, text(file.leading + 1, " fields were expected"));
    if (k != wanted || file.keys.no_label) continue;
    if (field.empty()) return file.lines.unreadable(eh, "the label is missing");
    (markers ? file.names : file.labels).emplace_back(field);
  }
}

/// L_TAKE_MARKER_LINE: takes the values of one line, from a column (from 0) on.
void L_TAKE_MARKER_LINE(ERROR_HANDLER& eh, MARKER_TEXT& file, std::int64_t from, std::int64_t count)
{
  const Frame here{eh, __func__};
  FIELDS fields(file.lines.line);
  L_LEADING_FIELDS(eh, file, fields);
  if (eh.terminate()) return;
  file.numbers.push_back(file.lines.file.line_number());
  MARKER_TABLE& table = file.table;
  const std::int64_t line = table.lines();
  table.add_lines(1);
  std::int8_t* bytes = table.line_bytes(line);
  const std::int64_t to = from + table.width();
  std::string_view field;
  for (std::int64_t k = 0; k < count; ++k) {
    // The short road: a code of one digit.
    const char* p = fields.at;
    if (bytes != nullptr && p != fields.end && *p >= '0' && *p <= '2' && fields.end - p > 1 && is_separator(p[1])) {
      if (k >= from && k < to) bytes[k - from] = static_cast<std::int8_t>(*p - '0');
      ++fields.at;
      fields.leave();
      continue;
    }
    if (!fields.next(field))
      return file.lines.unreadable(eh, text(count, " values were expected, ", k, " found"));
    double x = 0.0;
    if (!L_READ_VALUE(eh, file.lines, field, x)) return;
    if (k < from || k >= to || std::isnan(x)) continue;
    table.set(line, k - from, x);
    if (!table.in_bytes()) bytes = nullptr;
  }
  if (fields.at != fields.end && count + fields.count_rest() > file.most) ++file.extra;
}

/// L_READ_TABLE: reads lines of genotypes, or of markers.
void L_READ_TABLE(ERROR_HANDLER& eh, MARKER_TEXT& file)
{
  const Frame here{eh, __func__};
  if (!next_line(eh, file.lines)) {
    if (!eh.terminate()) file.lines.unreadable(eh, file.lines.file.line_number() + 1, "the file has no data");
    return;
  }
  const std::int64_t count = L_COUNT_COLUMNS(eh, file, file.lines.line);
  if (eh.terminate()) return;
  const MARKER_KEYS& keys = file.keys;
  const bool by_genotype = file.line_is == LineIs::genotype;
  const auto beyond = [&](std::int64_t regressors) {
    if (keys.to <= regressors) return false;
    eh.error(text("the range ", keys.from, " to ", keys.to, " is beyond the ", regressors, " regressors of ",
                  file.lines.path));
    return true;
  };
  if (by_genotype && beyond(count)) return;
  const bool some = by_genotype && keys.to > 0;
  const std::int64_t from = some ? keys.from - 1 : 0;
  file.table = MARKER_TABLE(some ? keys.to - from : count);
  std::int64_t line = 0;  // of the data, from 1
  const auto wanted = [&] {
    if (by_genotype) return true;
    return (keys.markers == 0 || line <= keys.markers) && (keys.to == 0 || (line >= keys.from && line <= keys.to));
  };
  do {
    ++line;
    if (wanted()) L_TAKE_MARKER_LINE(eh, file, from, count);
  } while (!eh.terminate() && next_line(eh, file.lines));
  if (eh.terminate()) return;
  if (by_genotype) {
    if (!file.header.empty()) file.names.assign(file.header.begin() + from, file.header.begin() + from + file.table.width());
  } else {
    if (beyond(keys.markers > 0 ? std::min(line, keys.markers) : line)) return;
    file.labels = std::move(file.header);
    file.numbers.assign(file.labels.size(), file.header_line);
    eh.note(text("using the ", file.table.lines(), " regressors that appear to be in the file"));
  }
}

/// L_READ_LONG_FORM: reads lines of a genotype, a marker and a value; what no line tells is missing.
void L_READ_LONG_FORM(ERROR_HANDLER& eh, MARKER_TEXT& file)
{
  const Frame here{eh, __func__};
  LEVEL_TABLE genotypes, markers;
  struct Cell {
    std::int32_t genotype, marker;
    double value;
    std::int64_t line;
  };
  std::vector<Cell> cells;
  const std::size_t last = std::max({file.label_field, file.name_field, file.value_field});
  while (next_line(eh, file.lines)) {
    FIELDS fields(file.lines.line);
    std::string_view label, name, value;
    for (std::size_t k = 0; k <= last; ++k) {
      std::string_view field;
      if (!fields.next(field)) return file.lines.unreadable(eh, text(last + 1, " fields were expected"));
      if (k == file.label_field) label = field;
      if (k == file.name_field) name = field;
      if (k == file.value_field) value = field;
    }
    if (label.empty() || name.empty()) return file.lines.unreadable(eh, "the label is missing");
    double x = 0.0;
    if (!L_READ_VALUE(eh, file.lines, value, x)) return;
    if (fields.at != fields.end) ++file.extra;
    cells.push_back({static_cast<std::int32_t>(genotypes.find_or_add(label)),
                     static_cast<std::int32_t>(markers.find_or_add(name)), x, file.lines.file.line_number()});
  }
  if (eh.terminate()) return;
  if (cells.empty()) return file.lines.unreadable(eh, file.lines.file.line_number() + 1, "the file has no data");
  const MARKER_KEYS& keys = file.keys;
  std::int64_t count = markers.size();
  if (keys.markers > 0) count = std::min(count, keys.markers);
  eh.note(keys.markers > 0 && keys.markers < markers.size()
              ? text("using the first ", count, " of the regressors that appear to be in the file")
              : text("using the ", count, " regressors that appear to be in the file"));
  if (keys.to > count) {
    eh.error(text("the range ", keys.from, " to ", keys.to, " is beyond the ", count, " regressors of ", file.lines.path));
    return;
  }
  const std::int64_t from = keys.to > 0 ? keys.from : 1;
  const std::int64_t to = keys.to > 0 ? keys.to : count;
  std::int64_t size = 0;
  if (!multiply_sizes(genotypes.size(), to - from + 1, size)) return eh.out_of_memory();
  file.table = MARKER_TABLE(to - from + 1);
  file.table.add_lines(genotypes.size());
  std::vector<bool> told(static_cast<std::size_t>(size));
  for (const Cell& cell : cells) {
    if (cell.marker < from || cell.marker > to) continue;
    const auto at = static_cast<std::size_t>((cell.genotype - 1) * (to - from + 1) + cell.marker - from);
    if (told[at]) {
      file.lines.unreadable(eh, cell.line,
                            text("marker ", markers.label(cell.marker), " of genotype ", genotypes.label(cell.genotype),
                                 " stands twice"));
      return;
    }
    told[at] = true;
    if (!std::isnan(cell.value)) file.table.set(cell.genotype - 1, cell.marker - from, cell.value);
  }
  for (std::int64_t k = 1; k <= genotypes.size(); ++k) file.labels.push_back(genotypes.label(k));
  for (std::int64_t k = from; k <= to; ++k) file.names.push_back(markers.label(k));
  file.numbers.assign(file.labels.size(), 0);
}

/// L_HAND_OVER: gives the table over with its labels and names.
void L_HAND_OVER(ERROR_HANDLER& eh, MARKER_TEXT& file, bool declared_counts, MARKER_DATA& out)
{
  const Frame here{eh, __func__};
  const bool by_marker = file.line_is == LineIs::marker;
  out.labels = std::move(file.labels);
  out.names = std::move(file.names);
  if (file.keys.to > 0 && !by_marker && out.names.empty()) {
    for (std::int64_t j = file.keys.from; j <= file.keys.to; ++j) out.names.push_back(text(j));
  }
  L_FINISH_TABLE(eh, file.table, by_marker, declared_counts, out);
}

}  // namespace

void L_READ_MARKER_TEXT(ERROR_HANDLER& eh, const MARKER_KEYS& keys, const std::string& path, MARKER_DATA& out)
{
  const Frame here{eh, __func__};
  const std::string kind = extension_of(path);
  MARKER_TEXT file{.keys = keys, .lines = {.file = {}, .path = path, .line = {}}};
  const bool genotypes_named = !keys.genotype_column.empty();
  if (!keys.marker_column.empty()) file.line_is = genotypes_named ? LineIs::value : LineIs::marker;
  file.leading = static_cast<std::size_t>(keys.columns_to_skip) + (keys.no_label ? 0 : 1);
  file.lines.file.limit_lines(longest_line);
  if (!file.lines.file.open(path)) {
    eh.error(text("failed to open GRR file ", path), Ecode::io_error);
    return eh.continuation(file.lines.file.error());
  }
  for (std::int64_t k = 0; k < keys.lines_to_skip && file.lines.next(eh); ++k) continue;
  if (eh.terminate()) return;
  const bool room = attempt([&] {
    if (keys.header || kind == "grr") {
      if (!next_line(eh, file.lines)) {
        if (!eh.terminate()) file.lines.unreadable(eh, file.lines.file.line_number() + 1, "the file has no data");
        return;
      }
      L_READ_HEADER(eh, file);
    } else if (keys.markers == 0) {
      eh.error("please indicate the expected number of regressors (markers)");
    }
    if (eh.terminate()) return;
    if (file.line_is == LineIs::value) {
      L_READ_LONG_FORM(eh, file);
    } else {
      L_READ_TABLE(eh, file);
    }
    if (!eh.terminate()) L_HAND_OVER(eh, file, kind == "mkr", out);
  });
  if (!room) return eh.out_of_memory();
  if (eh.terminate()) return;
  if (file.extra > 0) eh.warning(text(file.extra, " records had extra fields"));
  L_SELECT_GENOTYPES(eh, keys, path, file.numbers, out);
}

}  // namespace tolvan
