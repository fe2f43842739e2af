// One result table: typed columns with names, titles, footnotes, labels over several columns and lines
// between rows.  It goes out as JSON, as typed arrays (table_store.h) and as text.
// Routines: OTT_ (table), CIT_ and ICIT_ (columns), TFT_ (titles and footnotes), SLT_ (spanning labels),
// LITS_ (line inserts).
//
// A producer works in this order:
//
//     const auto id = OTST_REGISTER_TABLE(eh, store, "TABLE_X");
//     OUTPUT_TABLE& t = store.table(id);
//     OTT_ADD_COLUMN(eh, t, {.type = ColumnType::string, .name = "LABEL", .heading = "Term"});
//     OTT_ADD_COLUMN(eh, t, {.type = ColumnType::real, .name = "VALUE", .heading = "Value", .format =
//     "F9.3"});
//
// and then either row by row
//
//     OTT_NEXT_ROW(eh, t);
//     OTT_SET_STRING_VALUES(eh, t, {"a"});
//     OTT_SET_REAL_VALUES(eh, t, {1.5});
//
// or by whole columns
//
//     OTT_ALLOC_DATA_STORES(eh, t, n);
//     OTT_SET_COLUMN_STRING(eh, t, 1, labels);
//     OTT_SET_COLUMN_REAL_WP(eh, t, 2, values);
#pragma once

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "api/error_handler.h"
#include "api/string_array.h"

namespace tolvan {

// Building, writing and printing work as well with a handler that is terminated already: a run that failed
// still shows the results that it has.

/// What a table holds; the outward numbers have no 4.
enum class TableType : std::int64_t {
  unknown = 0,
  table = 1,
  sparse_mtx = 2,
  packed_sym_mtx = 3,
  full_mtx = 5
};

/// What a column or a scalar holds.  Columns are integer, real or string; scalars may be json too.
enum class ColumnType : std::int64_t {
  unknown = 0,
  integer = 1,
  real = 2,
  string = 3,
  logical = 4,
  json = 5
};

enum class Justify : std::int64_t { unknown = 0, left = 1, right = 2, center = 3 };

enum class CutoffType : std::int64_t {
  none = 0,
  greater_than = 1,
  less_than = 2,
  less_than_or_equal_to = 3,
  greater_than_or_equal_to = 4,
};

/// What kind of line a title or a footnote is.
enum class TitleType : std::int64_t {
  unknown = 0,
  info = 1,
  notice = 2,
  note = 3,
  continuation = 4,
  warning = 5,
  sed = 6,
};

/// Whether a JSON form holds the values of the columns, or is only a directory of what there is.
enum class TableValues { included, left_out };

/// The words of the types in JSON; a word that is none gives unknown.
std::string_view table_type_name(TableType type);
std::string_view column_type_name(ColumnType type);
std::string_view title_type_name(TitleType type);
TableType table_type_of(std::string_view name);
ColumnType column_type_of(std::string_view name);
TitleType title_type_of(std::string_view name);

struct INDIVIDUAL_COLUMN_INFO {
  std::string name;     // the column's ID
  std::string heading;  // the text at its head in print
  std::string
      format;  // of a value in print: "G13.6", "I9", "A1"; "A" and "" take the width that the values need
  ColumnType type = ColumnType::unknown;
  std::int64_t position = 0;  // its number in the store of its type, from 1
  Justify justify = Justify::right;
  CutoffType cutoff_type = CutoffType::none;
  double cutoff_val = 0.0;
  std::string cutoff_label;     // printed in place of a real that meets the cut-off
  bool display_missing = true;  // missing reals and integers print as "NA" if set, as blank if not
  bool operator==(const INDIVIDUAL_COLUMN_INFO&) const = default;
};

struct COLUMN_INFO {
  std::int64_t ncols_real = 0;
  std::int64_t ncols_integer = 0;
  std::int64_t ncols_string = 0;
  std::vector<INDIVIDUAL_COLUMN_INFO> columns;

  std::int64_t ncols() const { return static_cast<std::int64_t>(columns.size()); }
  bool operator==(const COLUMN_INFO&) const = default;
};

struct TITLE_FOOTNOTE {
  TitleType type = TitleType::info;
  std::string text;
  bool operator==(const TITLE_FOOTNOTE&) const = default;
};

/// One label over the columns from_col to to_col, both from 1.
struct SPANNING_LABEL {
  std::int64_t from_col = 0;
  std::int64_t to_col = 0;
  std::string main_label;
  bool operator==(const SPANNING_LABEL&) const = default;
};

/// Lines that print before the row of number lineno; one past the last row puts them after the last.
struct LINE_INSERT {
  std::int64_t lineno = 0;
  STRING_ARRAY text;
  bool operator==(const LINE_INSERT&) const = default;
};

struct LINE_INSERTS {
  std::vector<LINE_INSERT> inserts;  // ascending by lineno
  bool operator==(const LINE_INSERTS&) const = default;
};

/// The stores are held column by column, each column alloc_nrows long; rows beyond nrows are not in use.  A
/// cell that was never set holds no_value (reals), not_given (integers) or an empty text.
struct OUTPUT_TABLE {
  std::string name;  // upper case
  TableType type = TableType::table;
  std::int64_t nrows = 0;
  std::vector<std::vector<double>> real_col;
  std::vector<std::vector<std::int64_t>> integer_col;
  std::vector<std::vector<std::string>> string_col;
  COLUMN_INFO column_info;
  std::vector<TITLE_FOOTNOTE> titles;
  std::vector<TITLE_FOOTNOTE> footnotes;
  std::vector<SPANNING_LABEL> spanning_labels;
  LINE_INSERTS line_inserts;
  bool transposed = false;  // prints its columns as lines; in JSON the key is there only when true

  // The state of filling.
  std::int64_t current_row = 0;
  std::int64_t reals_set = 0;  // in the current row
  std::int64_t integers_set = 0;
  std::int64_t strings_set = 0;
  bool allocated = false;  // the stores exist
  std::int64_t alloc_nrows = 0;

  std::int64_t lrv() const { return static_cast<std::int64_t>(real_col.size()); }
  std::int64_t liv() const { return static_cast<std::int64_t>(integer_col.size()); }
  std::int64_t lcv() const { return static_cast<std::int64_t>(string_col.size()); }
  std::int64_t ncols() const { return column_info.ncols(); }
  const INDIVIDUAL_COLUMN_INFO& column(std::int64_t k) const
  {
    return column_info.columns[static_cast<std::size_t>(k - 1)];
  }
  /// The number of a column from 1, 0 if there is none of that name.  Case and trailing blanks do not count;
  /// "PCH" is a second name of "PC".
  std::int64_t find_column(std::string_view name) const;
  /// One value of a column of the right type; row and column from 1, unchecked.
  double real(std::int64_t row, std::int64_t k) const { return cell(real_col, row, k); }
  std::int64_t integer(std::int64_t row, std::int64_t k) const { return cell(integer_col, row, k); }
  const std::string& string(std::int64_t row, std::int64_t k) const { return cell(string_col, row, k); }

 private:
  template <class T>
  const T& cell(const std::vector<std::vector<T>>& store, std::int64_t row, std::int64_t k) const
  {
    return store[static_cast<std::size_t>(column(k).position - 1)][static_cast<std::size_t>(row - 1)];
  }
};

/// Whether two tables are the same to a reader: all but the state of filling.  NaN equals NaN.
bool same_table(const OUTPUT_TABLE& a, const OUTPUT_TABLE& b);

/// The facts of OTT_ADD_COLUMN, given by name.
struct NewColumn {
  ColumnType type = ColumnType::real;
  std::string name = {};
  std::string heading = {};
  std::string format = {};
  Justify justify = Justify::right;
  bool display_missing = true;
  std::string cutoff = {};  // such as "<0.001"; >= and <= are tried before > and <
  std::string cutoff_label = {};
};

// Building.

/// OTT_ADD_COLUMN: adds a column and gives its number from 1 (0 on failure); stores that exist grow by it.
std::int64_t OTT_ADD_COLUMN(ERROR_HANDLER& eh, OUTPUT_TABLE& table, const NewColumn& given);
/// OTT_ALLOC_DATA_STORES: makes the stores with room for a number of rows, none of them in use.
void OTT_ALLOC_DATA_STORES(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::int64_t rows);
/// OTT_RESIZE: gives the stores room for exactly that many rows; rows beyond are lost.
void OTT_RESIZE(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::int64_t rows);
/// OTT_NEXT_ROW: starts the next row; the stores are made and double their room as needed.
void OTT_NEXT_ROW(ERROR_HANDLER& eh, OUTPUT_TABLE& table);
/// OTT_SET_INTEGER_VALUES: adds integers to the current row, after those already set in it.
void OTT_SET_INTEGER_VALUES(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::span<const std::int64_t> values);
/// OTT_SET_REAL_VALUES: adds reals to the current row, after those already set in it.
void OTT_SET_REAL_VALUES(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::span<const double> values);
/// OTT_SET_STRING_VALUES: adds texts to the current row, after those already set in it.
void OTT_SET_STRING_VALUES(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::span<const std::string_view> values);
// The same with values written out: OTT_SET_REAL_VALUES(eh, t, {a, b}).
inline void OTT_SET_INTEGER_VALUES(ERROR_HANDLER& eh, OUTPUT_TABLE& t, std::initializer_list<std::int64_t> v)
{
  OTT_SET_INTEGER_VALUES(eh, t, std::span<const std::int64_t>(v.begin(), v.size()));
}
inline void OTT_SET_REAL_VALUES(ERROR_HANDLER& eh, OUTPUT_TABLE& t, std::initializer_list<double> v)
{
  OTT_SET_REAL_VALUES(eh, t, std::span<const double>(v.begin(), v.size()));
}
inline void OTT_SET_STRING_VALUES(ERROR_HANDLER& eh, OUTPUT_TABLE& t,
                                  std::initializer_list<std::string_view> v)
{
  OTT_SET_STRING_VALUES(eh, t, std::span<const std::string_view>(v.begin(), v.size()));
}
/// OTT_SET_COLUMN_INTEGER: fills the first rows of an integer column and brings these rows into use.
void OTT_SET_COLUMN_INTEGER(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::int64_t column,
                            std::span<const std::int64_t> values);
/// OTT_SET_COLUMN_REAL_WP: fills the first rows of a real column and brings these rows into use.
void OTT_SET_COLUMN_REAL_WP(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::int64_t column,
                            std::span<const double> values);
/// OTT_SET_COLUMN_STRING: fills the first rows of a string column and brings these rows into use.
void OTT_SET_COLUMN_STRING(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::int64_t column,
                           std::span<const std::string> values);
/// OTT_ADD_TITLE: adds a line before the table.
void OTT_ADD_TITLE(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::string_view text,
                   TitleType type = TitleType::info);
/// OTT_ADD_FOOTNOTE: adds a line after the table.
void OTT_ADD_FOOTNOTE(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::string_view text,
                      TitleType type = TitleType::note);
/// OTT_ADD_SPANNING_LABEL: adds a label over the columns from_col to to_col, counted from 1.
void OTT_ADD_SPANNING_LABEL(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::int64_t from_col,
                            std::int64_t to_col, std::string_view label);
/// OTT_INSERT_TEXT: adds a line of text before a row; lineno 0 means before the row that comes after the
/// current one.
void OTT_INSERT_TEXT(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::string_view text, std::int64_t lineno = 0);

/// OTT_CHECK_COLUMN: gives whether the store of a column holds the rows in use, with a message if not.
bool OTT_CHECK_COLUMN(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, const INDIVIDUAL_COLUMN_INFO& column);

// JSON out.  The _TO_JSTR forms write large tables without a tree in between; both forms hold the same
// document.

/// OTT_ADD_TO_JPTR: adds the table to an object node under its name.
void OTT_ADD_TO_JPTR(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, JsonNode& parent,
                     TableValues values = TableValues::included);
/// OTT_TO_JSTR: the document {"<table>":{...}}, or {"<column>":{...}} when a column is named.
std::string OTT_TO_JSTR(ERROR_HANDLER& eh, const OUTPUT_TABLE& table,
                        TableValues values = TableValues::included, std::string_view column = {});
/// OTT_ADD_TABLE_COLUMN_TO_JPTR: adds one column to an object node under the column's name.
void OTT_ADD_TABLE_COLUMN_TO_JPTR(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::string_view column,
                                  JsonNode& parent, TableValues values = TableValues::included);
/// OTT_TABLE_COLUMN_TO_JSTR: the document {"<column>":{...}} of a column named by an output ID.
std::string OTT_TABLE_COLUMN_TO_JSTR(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::string_view column,
                                     TableValues values = TableValues::included);
/// OTT_ADD_TITLE_FOOTNOTES_TO_JPTR: adds titles or footnotes to an object node under a key.
void OTT_ADD_TITLE_FOOTNOTES_TO_JPTR(ERROR_HANDLER& eh, std::span<const TITLE_FOOTNOTE> lines,
                                     std::string_view key, JsonNode& parent);
/// OTT_TITLES_TO_JSTR: the document {"titles":[...]}.
std::string OTT_TITLES_TO_JSTR(ERROR_HANDLER& eh, const OUTPUT_TABLE& table);
/// OTT_FOOTNOTES_TO_JSTR: the document {"footnotes":[...]}.
std::string OTT_FOOTNOTES_TO_JSTR(ERROR_HANDLER& eh, const OUTPUT_TABLE& table);

// JSON in.  A failure leaves the record as it was and a terminating message with the path of the fault.

/// OTT_SET_FROM_JPTR: reads a table back from its JSON form with values; the node's key is the name.
void OTT_SET_FROM_JPTR(ERROR_HANDLER& eh, OUTPUT_TABLE& table, const JsonNode& node);
/// CIT_SET_FROM_JPTR: reads the column_info object.
void CIT_SET_FROM_JPTR(ERROR_HANDLER& eh, COLUMN_INFO& info, const JsonNode& node);
/// ICIT_SET_FROM_JPTR: reads one element of columns, without its values and position.
void ICIT_SET_FROM_JPTR(ERROR_HANDLER& eh, INDIVIDUAL_COLUMN_INFO& column, const JsonNode& node);
/// SLT_SET_FROM_JPTR: reads a spanning_labels array.
void SLT_SET_FROM_JPTR(ERROR_HANDLER& eh, std::vector<SPANNING_LABEL>& labels, const JsonNode& node);
/// TFT_SET_FROM_JPTR: reads a titles or footnotes array.
void TFT_SET_FROM_JPTR(ERROR_HANDLER& eh, std::vector<TITLE_FOOTNOTE>& lines, const JsonNode& node);
/// LITS_SET_FROM_JPTR: reads the line_inserts array.
void LITS_SET_FROM_JPTR(ERROR_HANDLER& eh, LINE_INSERTS& inserts, const JsonNode& node);

// Print.

inline constexpr std::int64_t default_line_width = 80;

/// OTT_PRETTY_PRINT: writes a table as text by its type, in blocks of columns that fit the line width.
///
/// Titles, spanning labels, headings, rows with their line inserts, footnotes; two blanks between columns; no
/// blank line before or after.  A column is as wide as its format says, or as its heading or the longest text
/// needs.  A block after the first repeats the first string column and stands after a blank line.  A packed
/// matrix prints as a lower triangle. Missing reals and integers print as "NA", or as blank where the column
/// does not display missing values; a real that meets the column's cut-off prints as the cut-off label.
void OTT_PRETTY_PRINT(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::string& out,
                      std::int64_t width = default_line_width);
void OTT_PRETTY_PRINT(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::FILE* unit,
                      std::int64_t width = default_line_width);
/// OTT_PRETTY_PRINT_TABLE: writes a line of text for each row.
void OTT_PRETTY_PRINT_TABLE(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::string& out,
                            std::int64_t width);
/// OTT_PRETTY_PRINT_TABLE_TRANSPOSED: writes a line of text for each column.
void OTT_PRETTY_PRINT_TABLE_TRANSPOSED(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::string& out,
                                       std::int64_t width);
/// OTT_PRETTY_PRINT_PACKED_SYM_MTX: writes a packed matrix as a lower triangle, its rows numbered.
void OTT_PRETTY_PRINT_PACKED_SYM_MTX(ERROR_HANDLER& eh, const OUTPUT_TABLE& table, std::string& out,
                                     std::int64_t width);

}  // namespace tolvan
