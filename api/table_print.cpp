// A table as text: OTT_PRETTY_PRINT, OTT_PRETTY_PRINT_TABLE, OTT_PRETTY_PRINT_TABLE_TRANSPOSED,
// OTT_PRETTY_PRINT_PACKED_SYM_MTX.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <optional>
#include <span>

#include "api/table.h"
#include "base/text.h"

namespace tolvan {

namespace {

constexpr std::string_view missing_text = "NA";
constexpr std::int64_t gap = 2;  // blanks between columns

// One column as it prints.
struct PrintColumn {
  std::int64_t number = 0;  // in the table, from 1
  std::string format;
  std::int64_t value_width = 0;
  std::int64_t width = 0;  // of values and heading
};

// Letters, not bytes: the continuation bytes of UTF-8 take no room.
std::int64_t letters(std::string_view s)
{
  return std::count_if(s.begin(), s.end(),
                       [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; });
}

// The field width of "G13.6", "I9", "A16"; 0 where the format names none.
std::int64_t format_width(std::string_view format)
{
  const auto digits = format.find_first_of("0123456789");
  std::int64_t width = 0;
  if (digits != std::string_view::npos) {
    std::from_chars(format.data() + digits, format.data() + format.size(), width);
  }
  return width;
}

void put(std::string& out, std::string_view s, std::int64_t width, Justify justify)
{
  const std::int64_t room = std::max<std::int64_t>(width - letters(s), 0);
  const std::int64_t before = justify == Justify::left ? 0 : justify == Justify::center ? room / 2 : room;
  out.append(static_cast<std::size_t>(before), ' ');
  out += s;
  out.append(static_cast<std::size_t>(room - before), ' ');
}

// Ends a line, without the blanks at its end; `start` is where the line began.
void end_line(std::string& out, std::size_t start)
{
  while (out.size() > start && out.back() == ' ') out.pop_back();
  out += '\n';
}

void put_line(std::string& out, std::string_view line)
{
  const std::size_t start = out.size();
  out += line;
  end_line(out, start);
}

void put_lines(std::string& out, const std::vector<TITLE_FOOTNOTE>& lines)
{
  for (const TITLE_FOOTNOTE& line : lines) put_line(out, line.text);
}

void put_inserts(std::string& out, const OUTPUT_TABLE& table, std::size_t& next, std::int64_t row)
{
  const auto& inserts = table.line_inserts.inserts;
  for (; next < inserts.size() && inserts[next].lineno <= row; ++next) {
    for (const std::string& line : inserts[next].text.elements) put_line(out, line);
  }
}

bool meets_cutoff(const INDIVIDUAL_COLUMN_INFO& column, double x)
{
  switch (column.cutoff_type) {
    case CutoffType::none:
      return false;
    case CutoffType::greater_than:
      return x > column.cutoff_val;
    case CutoffType::less_than:
      return x < column.cutoff_val;
    case CutoffType::less_than_or_equal_to:
      return x <= column.cutoff_val;
    case CutoffType::greater_than_or_equal_to:
      return x >= column.cutoff_val;
  }
  return false;
}

// The text of one cell, without padding.  `held` keeps a number's text alive.
std::string_view cell_text(const OUTPUT_TABLE& table, const PrintColumn& column, std::int64_t row,
                           std::string& held)
{
  const INDIVIDUAL_COLUMN_INFO& info = table.column(column.number);
  const std::string_view missing = info.display_missing ? missing_text : std::string_view();
  if (info.type == ColumnType::string) return trim(table.string(row, column.number));
  if (info.type == ColumnType::integer) {
    const std::int64_t n = table.integer(row, column.number);
    if (n == not_given) return missing;
    held = edit(n, column.format);
  } else {
    const double x = table.real(row, column.number);
    if (is_no_value(x) || std::isnan(x)) return missing;
    if (meets_cutoff(info, x)) return info.cutoff_label;
    held = edit(x, column.format);
  }
  return trim(held);
}

bool spans(const SPANNING_LABEL& label, const PrintColumn& column)
{
  return column.number >= label.from_col && column.number <= label.to_col;
}

std::int64_t line_width(std::span<const PrintColumn> columns)
{
  std::int64_t width = columns.empty() ? 0 : -gap;
  for (const PrintColumn& column : columns) width += gap + column.width;
  return width;
}

// A label that is wider than its columns widens the last of them, as far as the line has room.
void widen_for_labels(const OUTPUT_TABLE& table, std::span<PrintColumn> columns, std::int64_t width)
{
  for (const SPANNING_LABEL& label : table.spanning_labels) {
    const auto inside = [&](const PrintColumn& column) { return spans(label, column); };
    const auto first = std::find_if(columns.begin(), columns.end(), inside);
    const auto end = std::find_if_not(first, columns.end(), inside);
    if (first == end) continue;
    const std::int64_t missing = letters(label.main_label) - line_width(std::span(first, end));
    const std::int64_t room = width - line_width(columns);
    if (missing > 0 && room > 0) std::prev(end)->width += std::min(missing, room);
  }
}

/// L_CHECK_COLUMN: gives whether a column can be read for print, with a message if not.
bool L_CHECK_COLUMN(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, const INDIVIDUAL_COLUMN_INFO& column)
{
  const Frame here{eh, __func__};
  const auto check = [&](const auto& store, std::string_view array, std::string_view kind) {
    if (table.nrows == 0) return true;
    if (store.empty()) {
      eh.internal(text(array, " array is not allocated, but column ", column.name, " is flagged as ", kind));
      return false;
    }
    if (column.position < 1 || column.position > static_cast<std::int64_t>(store.size()) ||
        static_cast<std::int64_t>(store[static_cast<std::size_t>(column.position - 1)].size()) <
            table.nrows) {
      eh.internal(text("column ", column.name, " has not been populated correctly"));
      return false;
    }
    return true;
  };
  switch (column.type) {
    case ColumnType::integer:
      return check(table.integer_col, "INTEGER_COL", "an integer");
    case ColumnType::real:
      return check(table.real_col, "REAL_COL", "a real");
    case ColumnType::string:
      return check(table.string_col, "STRING_COL", "a string");
    default:
      eh.internal(text("unknown column type: ", static_cast<std::int64_t>(column.type)));
      return false;
  }
}

/// L_PRINT_COLUMNS: checks all columns and finds their formats and widths; nothing if a check fails.
std::optional<std::vector<PrintColumn>> L_PRINT_COLUMNS(ERROR_HANDLER& eh, const OUTPUT_TABLE& table)
{
  const Frame here{eh, __func__};
  std::vector<PrintColumn> columns;
  for (std::int64_t k = 1; k <= table.ncols(); ++k) {
    const INDIVIDUAL_COLUMN_INFO& info = table.column(k);
    if (!L_CHECK_COLUMN(eh, table, info)) return {};
    PrintColumn column{.number = k, .format = info.format, .value_width = format_width(info.format)};
    std::int64_t& width = column.value_width;
    if (info.type == ColumnType::string) {
      for (std::int64_t row = 1; row <= table.nrows; ++row) {
        width = std::max(width, letters(trim(table.string(row, k))));
      }
    } else {
      if (width == 0) {
        column.format = info.type == ColumnType::integer ? "I9" : "G13.6";
        width = format_width(column.format);
      }
      if (info.cutoff_type != CutoffType::none) width = std::max(width, letters(info.cutoff_label));
      if (info.display_missing) width = std::max(width, letters(missing_text));
    }
    column.width = std::max(width, letters(info.heading));
    columns.push_back(std::move(column));
  }
  widen_for_labels(table, columns, std::numeric_limits<std::int64_t>::max());
  return columns;
}

// Cuts the columns into blocks that fit the line.  Each block after the first begins with the first string
// column.
std::vector<std::vector<PrintColumn>> blocks_of(const OUTPUT_TABLE& table,
                                                const std::vector<PrintColumn>& columns, std::int64_t width)
{
  const auto label = std::find_if(columns.begin(), columns.end(), [&](const PrintColumn& column) {
    return table.column(column.number).type == ColumnType::string;
  });
  std::vector<std::vector<PrintColumn>> blocks;
  for (const PrintColumn& column : columns) {
    if (blocks.empty() || line_width(blocks.back()) + gap + column.width > width) {
      const bool repeat = !blocks.empty() && label != columns.end() && label->number < column.number;
      blocks.emplace_back();
      if (repeat) blocks.back().push_back(*label);
    }
    blocks.back().push_back(column);
  }
  for (auto& block : blocks) widen_for_labels(table, block, width);
  return blocks;
}

// The label over a run of columns: in the middle, with dashes to both sides if there is room.
std::string label_over(std::string_view label, std::int64_t width)
{
  const std::int64_t room = width - letters(label);
  std::string line;
  if (room < 0) {  // only where the end of a block parts the columns
    std::size_t bytes = 0;
    for (std::int64_t left = width; bytes < label.size(); ++bytes) {
      if ((static_cast<unsigned char>(label[bytes]) & 0xC0U) != 0x80U && left-- == 0) break;
    }
    return std::string(label.substr(0, bytes));
  }
  if (room < 4) {
    put(line, label, width, Justify::center);
    return line;
  }
  const std::int64_t before = (room - 2) / 2;
  line.append(static_cast<std::size_t>(before), '-');
  line += ' ';
  line += label;
  line += ' ';
  line.append(static_cast<std::size_t>(room - 2 - before), '-');
  return line;
}

// The spanning labels of one block; labels that share columns go to lines of their own.
void put_spanning_labels(std::string& out, const OUTPUT_TABLE& table, const std::vector<PrintColumn>& block)
{
  std::vector<bool> done(table.spanning_labels.size(), false);
  for (bool more = true; more;) {
    more = false;
    std::string line;
    std::int64_t printed = 0;  // letters of the line
    std::int64_t at = 0;       // where the next column begins
    bool any = false;
    for (std::size_t first = 0; first < block.size(); ++first) {
      bool placed = false;
      for (std::size_t s = 0; s < table.spanning_labels.size() && !placed; ++s) {
        const SPANNING_LABEL& label = table.spanning_labels[s];
        const auto inside = [&](std::size_t k) { return spans(label, block[k]); };
        if (done[s] || !inside(first) || (first > 0 && inside(first - 1))) continue;
        std::size_t last = first;
        std::int64_t span = block[first].width;
        while (last + 1 < block.size() && inside(last + 1)) span += gap + block[++last].width;
        line.append(static_cast<std::size_t>(at - printed), ' ');
        line += label_over(label.main_label, span);
        at += span + gap;
        printed = at - gap;
        first = last;
        done[s] = placed = any = true;
      }
      if (!placed) at += block[first].width + gap;
    }
    if (any) {
      put_line(out, line);
      more = true;
    }
  }
}

bool has_headings(const OUTPUT_TABLE& table, const std::vector<PrintColumn>& block)
{
  return std::any_of(block.begin(), block.end(),
                     [&](const PrintColumn& column) { return !table.column(column.number).heading.empty(); });
}

}  // namespace

void OTT_PRETTY_PRINT_TABLE(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::string& out,
                            std::int64_t width)
{
  const Frame here{eh, __func__};
  const auto columns = L_PRINT_COLUMNS(eh, table);
  if (!columns) return;
  put_lines(out, table.titles);
  bool first = true;
  std::string held;
  for (const auto& block : blocks_of(table, *columns, width)) {
    if (!first) out += '\n';
    first = false;
    put_spanning_labels(out, table, block);
    const auto put_row = [&](const auto& text_of) {
      const std::size_t start = out.size();
      for (const PrintColumn& column : block) {
        if (out.size() > start) out.append(gap, ' ');
        put(out, text_of(column), column.width, table.column(column.number).justify);
      }
      end_line(out, start);
    };
    if (has_headings(table, block)) {
      put_row(
          [&](const PrintColumn& column) -> std::string_view { return table.column(column.number).heading; });
    }
    std::size_t next_insert = 0;
    for (std::int64_t row = 1; row <= table.nrows; ++row) {
      put_inserts(out, table, next_insert, row);
      put_row([&](const PrintColumn& column) { return cell_text(table, column, row, held); });
    }
    put_inserts(out, table, next_insert, std::numeric_limits<std::int64_t>::max());
  }
  put_lines(out, table.footnotes);
}

void OTT_PRETTY_PRINT_TABLE_TRANSPOSED(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::string& out,
                                       std::int64_t width)
{
  const Frame here{eh, __func__};
  const auto columns = L_PRINT_COLUMNS(eh, table);
  if (!columns) return;
  std::int64_t heading_width = 0;
  std::int64_t value_width = 0;
  for (const PrintColumn& column : *columns) {
    heading_width = std::max(heading_width, letters(table.column(column.number).heading));
    value_width = std::max(value_width, column.value_width);
  }
  const std::int64_t per_block = std::max<std::int64_t>((width - heading_width) / (value_width + gap), 1);
  put_lines(out, table.titles);
  std::string held;
  for (std::int64_t from = 1; from <= std::max<std::int64_t>(table.nrows, 1); from += per_block) {
    if (from > 1) out += '\n';
    const std::int64_t to = std::min(table.nrows, from + per_block - 1);
    for (const PrintColumn& column : *columns) {
      const std::size_t start = out.size();
      put(out, table.column(column.number).heading, heading_width, Justify::left);
      for (std::int64_t row = from; row <= to; ++row) {
        out.append(gap, ' ');
        put(out, cell_text(table, column, row, held), value_width, Justify::right);
      }
      end_line(out, start);
    }
  }
  put_lines(out, table.footnotes);
}

void OTT_PRETTY_PRINT_PACKED_SYM_MTX(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::string& out,
                                     std::int64_t width)
{
  const Frame here{eh, __func__};
  if (table.ncols() != 1) {
    eh.internal(text("was expecting only a single column in a packed matrix, ncols = ", table.ncols()));
    return;
  }
  const auto columns = L_PRINT_COLUMNS(eh, table);
  if (!columns) return;
  const PrintColumn& column = columns->front();
  std::int64_t order = 0;
  while ((order + 1) * (order + 2) / 2 <= table.nrows) ++order;
  const std::int64_t expected = order * (order + 1) / 2;
  if (expected != table.nrows) {
    eh.internal(text("number of rows does not tie up with a matrix of order ", order,
                     ", nrows = ", table.nrows, ", expected number = ", expected));
    return;
  }
  const std::int64_t label_width = letters(text(order));
  const std::int64_t per_line = std::max<std::int64_t>((width - label_width) / (column.width + gap), 1);
  put_lines(out, table.titles);
  std::string held;
  std::int64_t element = 0;
  for (std::int64_t i = 1; i <= order; ++i) {
    std::size_t start = out.size();
    put(out, text(i), label_width, Justify::right);
    for (std::int64_t j = 1; j <= i; ++j) {
      if (j > 1 && (j - 1) % per_line == 0) {
        end_line(out, start);
        start = out.size();
        put(out, "", label_width, Justify::right);
      }
      out.append(gap, ' ');
      put(out, cell_text(table, column, ++element, held), column.width, Justify::right);
    }
    end_line(out, start);
  }
  put_lines(out, table.footnotes);
}

void OTT_PRETTY_PRINT(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::string& out, std::int64_t width)
{
  const Frame here{eh, __func__};
  if (width < 1) width = default_line_width;
  if (table.type == TableType::packed_sym_mtx) {
    OTT_PRETTY_PRINT_PACKED_SYM_MTX(eh, table, out, width);
  } else if (table.transposed) {
    OTT_PRETTY_PRINT_TABLE_TRANSPOSED(eh, table, out, width);
  } else {
    OTT_PRETTY_PRINT_TABLE(eh, table, out, width);
  }
}

void OTT_PRETTY_PRINT(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::FILE* unit, std::int64_t width)
{
  const Frame here{eh, __func__};
  std::string out;
  OTT_PRETTY_PRINT(eh, table, out, width);
  std::fwrite(out.data(), 1, out.size(), unit);
}

}  // namespace tolvan
