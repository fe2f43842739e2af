// The stores of a table and how they fill: OTT_ALLOC_DATA_STORES, OTT_RESIZE, OTT_NEXT_ROW,
// OTT_SET_INTEGER_VALUES, OTT_SET_REAL_VALUES, OTT_SET_STRING_VALUES, OTT_SET_COLUMN_INTEGER,
// OTT_SET_COLUMN_REAL_WP, OTT_SET_COLUMN_STRING, OTT_CHECK_COLUMN.
#include "api/table.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "base/text.h"

namespace tolvan {

namespace {

constexpr std::int64_t first_rows = 16;  // room made by the first row of a table that nobody sized

template <class T>
using Store = std::vector<std::vector<T>>;

template <class T>
void size_store(Store<T>& store, std::int64_t ncols, std::int64_t rows, const T& blank)
{
  store.resize(static_cast<std::size_t>(ncols));
  for (auto& column : store) column.resize(static_cast<std::size_t>(rows), blank);
}

/// L_SIZE_STORES: gives all stores room for that many rows, keeping what they hold; false when it can not.
bool L_SIZE_STORES(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::int64_t rows)
{
  const Frame here{eh, __func__};
  const COLUMN_INFO& info = table.column_info;
  if (rows < 0) {
    eh.internal(text("table ", table.name, " can not have ", rows, " rows"));
    return false;
  }
  const auto row_bytes = static_cast<std::int64_t>(sizeof(double)) * (info.ncols_real + info.ncols_integer) +
                         static_cast<std::int64_t>(sizeof(std::string)) * info.ncols_string;
  std::int64_t bytes = 0;
  if (__builtin_mul_overflow(row_bytes, rows, &bytes)) {
    eh.out_of_memory();
    return false;
  }
  if (rows < table.alloc_nrows) {  // before the stores shrink; when they grow only afterwards
    table.alloc_nrows = rows;
    table.nrows = std::min(table.nrows, rows);
  }
  size_store(table.real_col, info.ncols_real, rows, no_value);
  size_store(table.integer_col, info.ncols_integer, rows, not_given);
  size_store(table.string_col, info.ncols_string, rows, std::string());
  table.alloc_nrows = rows;
  table.allocated = true;
  return true;
}

// Adds values to the current row of a store; `set` counts the values that the row has already.
template <class T, class Value>
void set_values(ERROR_HANDLER& eh, OUTPUT_TABLE& table, Store<T>& store, std::int64_t ncols,
                std::int64_t& set, std::string_view kind, std::span<const Value> values)
{
  const auto n = static_cast<std::int64_t>(values.size());
  const std::int64_t row = table.current_row;
  if (row < 1 || row > table.alloc_nrows) {
    eh.internal(text("values added to table ", table.name, " before its first row"));
    return;
  }
  if (set + n > ncols) {
    eh.internal(text(n, " additional ", kind, " values added for row ", row, " making ", set + n, " ", kind,
                     " columns in total, expected at most ", ncols));
    return;
  }
  for (const Value& value : values) {
    store[static_cast<std::size_t>(set)][static_cast<std::size_t>(row - 1)] = value;
    ++set;
  }
}

// Fills the first rows of a whole column.
template <class T>
void set_column(ERROR_HANDLER& eh, OUTPUT_TABLE& table, Store<T>& store, ColumnType type, std::int64_t column,
                std::span<const T> values)
{
  const auto n = static_cast<std::int64_t>(values.size());
  if (column < 1 || column > table.ncols()) {
    eh.internal(text(column, " is out of range"));
    return;
  }
  const INDIVIDUAL_COLUMN_INFO& info = table.column(column);
  if (info.type != type) {
    eh.internal(text(column, " is of the wrong type"));
    return;
  }
  const auto held = static_cast<std::int64_t>(store.size());
  if (info.position > held) {
    eh.internal(text("table too small, ncols = ", held, ", requested column = ", info.position));
    return;
  }
  if (n > table.alloc_nrows) {
    eh.internal(text("table too small, alloc_nrows = ", table.alloc_nrows, ", number of data points = ", n));
    return;
  }
  std::copy(values.begin(), values.end(), store[static_cast<std::size_t>(info.position - 1)].begin());
  table.nrows = std::max(table.nrows, n);
}

// The first text that a string column lacks, counted through the columns one after the other.
void raise_missing_text(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::int64_t position)
{
  std::int64_t held = 0;
  for (const auto& column : table.string_col) held += static_cast<std::int64_t>(column.size());
  const std::int64_t rows = std::max(table.alloc_nrows, table.nrows);
  std::int64_t pos = (position - 1) * rows + 1;
  if (table.lcv() == 0) {
    eh.internal(text("pos = ", pos, ", but string_col is not allocated"));
    return;
  }
  if (position >= 1 && position <= table.lcv()) {
    pos += static_cast<std::int64_t>(table.string_col[static_cast<std::size_t>(position - 1)].size());
  }
  eh.internal(text("pos = ", pos, ", but size(string_col) = ", held));
}

template <class T>
bool holds(const Store<T>& store, std::int64_t position, std::int64_t rows)
{
  if (rows == 0) return true;
  return position >= 1 && position <= static_cast<std::int64_t>(store.size()) &&
         static_cast<std::int64_t>(store[static_cast<std::size_t>(position - 1)].size()) >= rows;
}

bool same_value(double x, double y)
{
  return x == y || (std::isnan(x) && std::isnan(y));
}
bool same_value(std::int64_t x, std::int64_t y)
{
  return x == y;
}
bool same_value(const std::string& x, const std::string& y)
{
  return x == y;
}

template <class T>
bool same_store(const Store<T>& a, const Store<T>& b, std::int64_t rows)
{
  if (a.size() != b.size()) return false;
  for (std::size_t k = 0; k < a.size(); ++k) {
    for (std::size_t i = 0; i < static_cast<std::size_t>(rows); ++i) {
      if (!same_value(a[k][i], b[k][i])) return false;
    }
  }
  return true;
}

}  // namespace

void OTT_ALLOC_DATA_STORES(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::int64_t rows)
{
  const Frame here{eh, __func__};
  table.nrows = table.current_row = table.alloc_nrows = 0;
  table.reals_set = table.integers_set = table.strings_set = 0;
  table.real_col.clear();
  table.integer_col.clear();
  table.string_col.clear();
  L_SIZE_STORES(eh, table, rows);
}

void OTT_RESIZE(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::int64_t rows)
{
  const Frame here{eh, __func__};
  if (!L_SIZE_STORES(eh, table, rows)) return;
  for (auto& column : table.real_col) column.shrink_to_fit();
  for (auto& column : table.integer_col) column.shrink_to_fit();
  for (auto& column : table.string_col) column.shrink_to_fit();
}

void OTT_NEXT_ROW(ERROR_HANDLER& eh, OUTPUT_TABLE& table)
{
  const Frame here{eh, __func__};
  if (!table.allocated || table.nrows >= table.alloc_nrows) {
    if (!L_SIZE_STORES(eh, table, std::max(first_rows, 2 * table.alloc_nrows))) return;
  }
  table.current_row = ++table.nrows;
  table.reals_set = table.integers_set = table.strings_set = 0;
}

void OTT_SET_INTEGER_VALUES(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::span<const std::int64_t> values)
{
  const Frame here{eh, __func__};
  set_values(eh, table, table.integer_col, table.column_info.ncols_integer, table.integers_set, "integer",
             values);
}

void OTT_SET_REAL_VALUES(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::span<const double> values)
{
  const Frame here{eh, __func__};
  set_values(eh, table, table.real_col, table.column_info.ncols_real, table.reals_set, "real", values);
}

void OTT_SET_STRING_VALUES(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::span<const std::string_view> values)
{
  const Frame here{eh, __func__};
  set_values(eh, table, table.string_col, table.column_info.ncols_string, table.strings_set, "string",
             values);
}

void OTT_SET_COLUMN_INTEGER(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::int64_t column,
                            std::span<const std::int64_t> values)
{
  const Frame here{eh, __func__};
  set_column(eh, table, table.integer_col, ColumnType::integer, column, values);
}

void OTT_SET_COLUMN_REAL_WP(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::int64_t column,
                            std::span<const double> values)
{
  const Frame here{eh, __func__};
  set_column(eh, table, table.real_col, ColumnType::real, column, values);
}

void OTT_SET_COLUMN_STRING(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::int64_t column,
                           std::span<const std::string> values)
{
  const Frame here{eh, __func__};
  set_column(eh, table, table.string_col, ColumnType::string, column, values);
}

bool OTT_CHECK_COLUMN(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, const INDIVIDUAL_COLUMN_INFO& column)
{
  const Frame here{eh, __func__};
  bool complete = false;
  switch (column.type) {
    case ColumnType::real:
      complete = holds(table.real_col, column.position, table.nrows);
      break;
    case ColumnType::integer:
      complete = holds(table.integer_col, column.position, table.nrows);
      break;
    case ColumnType::string:
      complete = holds(table.string_col, column.position, table.nrows);
      if (!complete) raise_missing_text(eh, table, column.position);
      return complete;
    default:
      eh.internal(text("unexpected column type: ", static_cast<std::int64_t>(column.type)));
      return false;
  }
  if (!complete) eh.internal(text("column ", column.name, " has not been populated correctly"));
  return complete;
}

bool same_table(const OUTPUT_TABLE& a, const OUTPUT_TABLE& b)
{
  return a.name == b.name && a.type == b.type && a.nrows == b.nrows && a.column_info == b.column_info &&
         a.titles == b.titles && a.footnotes == b.footnotes && a.spanning_labels == b.spanning_labels &&
         a.line_inserts == b.line_inserts && a.transposed == b.transposed &&
         same_store(a.real_col, b.real_col, a.nrows) && same_store(a.integer_col, b.integer_col, a.nrows) &&
         same_store(a.string_col, b.string_col, a.nrows);
}

}  // namespace tolvan
