// Covariates that stand in a file.  Routines: READ_FILE_COVARIATES, HANDLE_MBF, GETMBF, L_SPSMBF, L_CHKMBFORD.
#include "data/file_covariates.h"

#include <algorithm>
#include <cmath>

#include "base/memory.h"
#include "base/text.h"
#include "data/cut_fields.h"
#include "data/field_values.h"
#include "data/label_text.h"
#include "data/request_values.h"
#include "model/named_definitions.h"
#include "model/request.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

constexpr std::int64_t most_duplicates_told = 20;

/// A definition, and the table on its way: rows in the order in which their keys were met.
struct MBF_TABLE {
  std::string name, file, dataset;
  std::int64_t skip = 0;
  std::int64_t columns = 0;  // declared; 0: as many as the first row has
  bool sparse = false;

  const VARIABLE* factor = nullptr;  // the variable with the keys; null where they are numbers of a variate
  DESIGN_BASIS& basis;
  std::vector<double> keys;  // of a variate, by row
  VALUE_INDEX met;           // of a variate
  std::int64_t rows = 0;
  std::int64_t duplicates = 0;
};

/// HANDLE_MBF: reads the definition of a name; of two the first counts.
void HANDLE_MBF(ERROR_HANDLER& eh, const JsonNode& request, MBF_TABLE& table)
{
  const Frame here{eh, __func__};
  const JsonNode* list = given_value(request, "mbf");
  const JsonNode* entry = find_definition(request, "mbf", table.name);
  if (entry == nullptr) {
    eh.internal(text("there is no definition of ", table.name));
    return;
  }
  if (list->is(JsonType::array) && !list->packed()) {
    const auto same = std::count_if(list->children().begin(), list->children().end(), [&](const auto& other) {
      const JsonNode* name = given_value(*other, "name");
      return name != nullptr && plain_name(*name) == table.name;
    });
    if (same > 1) eh.warning(text("ignoring redefinition of ", table.name));
  }
  const auto read_count = [&](std::string_view key, std::int64_t& value) {
    const JsonNode* node = given_value(*entry, key);
    if (node == nullptr) return;
    if (node->is(JsonType::integer) && node->integer() >= 0) {
      value = node->integer();
    } else {
      REPORT_JSON_ERROR(eh, *node, {"a number that isn't negative"});
    }
  };
  read_count("skip", table.skip);
  read_count("columns", table.columns);
  table.sparse = GET_VALUE_FROM_JPTR_LOGICAL(eh, *entry, "sparse", false);
  if (eh.terminate()) return;
  table.file = GET_VALUE_FROM_JPTR_STRING(eh, *entry, "file", false).value_or("");
  table.dataset = GET_VALUE_FROM_JPTR_STRING(eh, *entry, "dataset", false).value_or("");
  if (!eh.terminate() && table.file.empty() && table.dataset.empty()) REPORT_JSON_ERROR(eh, *entry, "file");
}

/// Room for the next row of the table; null with a message where there is none.
double* next_row(ERROR_HANDLER& eh, MBF_TABLE& table)
{
  const std::int64_t columns = table.basis.columns;
  std::int64_t cells = 0;
  if (!multiply_sizes(table.rows + 1, columns, cells)) {
    eh.out_of_memory();
    return nullptr;
  }
  const auto size = static_cast<std::size_t>(cells);
  if (size > table.basis.table.capacity() && !reserve(eh, table.basis.table, std::max<std::int64_t>(2 * cells, 1024))) return nullptr;
  table.basis.table.resize(size, 0.0);
  ++table.rows;
  return table.basis.table.data() + (table.rows - 1) * columns;
}

/// The level that a key stands for; 0 where the data have no such level.
std::int64_t level_of_key(const VARIABLE& factor, std::string_view key)
{
  const auto number = whole_number(key);
  if (factor.labels.size() == 0) {
    const std::int64_t level = number ? *number - factor.indexed_from + 1 : 0;
    return level >= 1 && level <= factor.levels ? level : 0;
  }
  const std::int64_t level = factor.labels.find(key);
  return level == 0 && number ? factor.labels.find(text(*number)) : level;
}

/// L_CHKMBFORD: tells of a row whose key came before.
void L_CHKMBFORD(ERROR_HANDLER& eh, MBF_TABLE& table, std::string_view key)
{
  const Frame here{eh, __func__};
  if (++table.duplicates <= most_duplicates_told) eh.warning(text("duplicated data in MBF file dropped, KEY: ", key));
}

/// The row of a key.
///   again   a key may come again: its earlier row.  Otherwise null, as for keys that the data don't have
double* row_of_key(ERROR_HANDLER& eh, MBF_TABLE& table, std::string_view key, double number, bool again)
{
  std::int64_t* row = nullptr;
  if (table.factor != nullptr) {
    const std::int64_t level = level_of_key(*table.factor, key);
    if (level == 0) return nullptr;
    row = &table.basis.row_of_level[static_cast<std::size_t>(level - 1)];
  } else {
    const std::int64_t before = table.met.size();
    table.met.add(number);
    if (table.met.size() > before) {
      table.keys.push_back(number);
      return next_row(eh, table);
    }
  }
  if (row != nullptr && *row == 0) {
    double* values = next_row(eh, table);
    *row = table.rows;
    return values;
  }
  if (!again) {
    L_CHKMBFORD(eh, table, key);
    return nullptr;
  }
  const std::int64_t earlier = row != nullptr ? *row : table.met.find(number);
  return table.basis.table.data() + (earlier - 1) * table.basis.columns;
}

/// The fields of a line, as texts.
bool cut_line(const SEPARATION& by, std::string_view line, std::vector<std::string>& fields)
{
  fields.clear();
  Cursor cursor{.line = line};
  std::string scratch;
  std::string_view field;
  while (cursor.more) {
    if (!ININTR(by, cursor, field, scratch)) return false;
    fields.emplace_back(field);
  }
  return !fields.empty();
}

/// The number that a field spells; a missing one is 0, a covariate that isn't there.
bool cell(const std::string& field, double& value)
{
  if (is_missing_text(field)) {
    value = 0.0;
    return true;
  }
  return read_real(field, value) && std::isfinite(value);
}

/// L_SPSMBF: takes a line of the sparse form, a key with a column (from 1) and a value.
void L_SPSMBF(ERROR_HANDLER& eh, MBF_TABLE& table, const std::vector<std::string>& fields, std::int64_t line)
{
  const Frame here{eh, __func__};
  double key = 0.0, value = 0.0;
  const bool good = fields.size() >= 3 && (table.factor != nullptr || read_real(fields[0], key));
  const auto column = good ? whole_number(fields[1]) : std::nullopt;
  if (!column || !read_real(fields[2], value) || !std::isfinite(value)) {
    eh.error("key Values and cell values must be numeric");
    eh.continuation(text("in line ", line, " of ", table.file));
    return;
  }
  if (*column < 1 || *column > table.basis.columns) {
    // sic: the bracket stays open
    eh.error(text("issue parsing !MBF !SPARSE input, column number ", *column, " exceeds declared size (", table.basis.columns,
                  ") in row ", line, " (Key value ", fields[0]));
    return;
  }
  if (double* row = row_of_key(eh, table, fields[0], key, true); row != nullptr) row[*column - 1] = value;
}

/// L_TAKE_LINE: takes a line with a key and all its covariates.  The first line may hold names instead.
void L_TAKE_LINE(ERROR_HANDLER& eh, MBF_TABLE& table, const std::vector<std::string>& fields, std::int64_t line, bool is_first)
{
  const Frame here{eh, __func__};
  if (is_first) table.basis.columns = table.columns > 0 ? table.columns : std::ssize(fields) - 1;
  const std::int64_t columns = table.basis.columns;
  if (columns < 1 || std::ssize(fields) - 1 < columns) {
    eh.error(text("line ", line, " of ", table.file, " has ", fields.size(), " fields, a key and ", std::max<std::int64_t>(columns, 1),
                  " covariates were expected"));
    return;
  }
  double value = 0.0;
  if (is_first && std::none_of(fields.begin() + 1, fields.begin() + 1 + columns, [&](const std::string& f) { return cell(f, value); })) {
    table.basis.names.assign(fields.begin() + 1, fields.begin() + 1 + columns);
    return;
  }
  double key = 0.0;
  if (table.factor == nullptr && !read_real(fields[0], key)) {
    eh.error(text(fields[0], " in line ", line, " of ", table.file, " is no number"));
    return;
  }
  double* row = row_of_key(eh, table, fields[0], key, false);
  for (std::int64_t j = 0; j < columns; ++j) {
    const std::string& field = fields[static_cast<std::size_t>(j + 1)];
    if (!cell(field, value)) {
      eh.error(text(field, " in line ", line, " of ", table.file, " is no number"));
      return;
    }
    if (row != nullptr) row[j] = value;
  }
}

/// GETMBF: reads the table from a text file.
void GETMBF(ERROR_HANDLER& eh, MBF_TABLE& table)
{
  const Frame here{eh, __func__};
  DATA_FILE_KEYS keys;
  keys.name = table.file;
  keys.skip_lines = table.skip;
  const bool is_csv = table.file.size() > 4 && equal_nocase(std::string_view(table.file).substr(table.file.size() - 4), ".csv");
  keys.kind = is_csv ? FileKind::csv : FileKind::text;
  if (table.sparse) {
    table.basis.columns = table.columns;
    if (table.columns == 0) {
      eh.error(text("the number of columns of ", table.name, " has to be given for a sparse file"));
      return;
    }
  }
  DATA_LINES lines;
  L_OPEN_DATA_FILE(eh, keys, lines);
  if (eh.terminate()) return;
  const SEPARATION by{.free = !is_csv};
  std::vector<std::string> fields;
  bool is_first = true;
  while (GTLINE(eh, lines)) {
    if (!cut_line(by, lines.line, fields)) {
      eh.error(text("line ", lines.number, " of ", table.file, " can not be read"));
      return;
    }
    if (table.sparse) {
      L_SPSMBF(eh, table, fields, lines.number);
    } else {
      L_TAKE_LINE(eh, table, fields, lines.number, is_first);
    }
    if (eh.terminate()) return;
    is_first = false;
  }
  if (!eh.terminate() && is_first) eh.error(text("the file ", table.file, " holds no covariates"));
}

/// L_TAKE_DATASET: takes the table from a matrix whose first column holds the keys.
void L_TAKE_DATASET(ERROR_HANDLER& eh, const JsonNode& request, const USER_DATASET_STORE& datasets, MBF_TABLE& table)
{
  const Frame here{eh, __func__};
  DATASET_VIEW view;
  for (const JsonNode* description : dataset_descriptions(eh, request)) {
    const JsonNode* name = given_value(*description, "name");
    if (name == nullptr || !name->is_text(table.dataset)) continue;
    UDST_BIND(eh, datasets, *description, view);
    if (eh.terminate()) return;
  }
  if (view.data == nullptr) {
    eh.error(text("there is no dataset ", table.dataset));
    return;
  }
  table.basis.columns = table.columns > 0 ? table.columns : view.info.number_of_variables - 1;
  if (table.basis.columns < 1 || table.basis.columns > view.info.number_of_variables - 1) {
    const std::int64_t covariates = std::max<std::int64_t>(table.basis.columns, 1);
    eh.error(text(table.dataset, " does not contain ", covariates + 1, " variables"));
    eh.continuation(text("a key and ", covariates, " covariates were expected, the dataset has ", view.info.number_of_variables, " columns"));
    return;
  }
  for (std::int64_t j = 1; j <= table.basis.columns && j < std::ssize(view.info.variables); ++j)
    table.basis.names.push_back(view.info.variables[static_cast<std::size_t>(j)]);
  for (std::int64_t i = 0; i < view.info.number_of_observations; ++i) {
    const double key = view.value(i, 0);
    if (is_no_value(key) || !std::isfinite(key)) continue;
    double* row = row_of_key(eh, table, text(key), key, false);
    if (eh.terminate()) return;
    for (std::int64_t j = 0; row != nullptr && j < table.basis.columns; ++j) {
      const double value = view.value(i, j + 1);
      row[j] = is_no_value(value) ? 0.0 : value;
    }
  }
}

/// L_TAKE_READ_AHEAD: takes the table from one that was read ahead.
void L_TAKE_READ_AHEAD(ERROR_HANDLER& eh, const COVARIATE_TABLE& from, MBF_TABLE& table)
{
  const Frame here{eh, __func__};
  table.basis.columns = table.columns > 0 ? table.columns : from.columns;
  if (table.basis.columns > from.columns) {
    eh.error(text("the file ", from.file, " has ", from.columns, " columns, ", table.columns, " covariates were expected"));
    return;
  }
  table.basis.names.assign(from.names.begin(), from.names.begin() + table.basis.columns);
  for (std::size_t i = 0; i < from.keys.size(); ++i) {
    double key = 0.0;
    if (table.factor == nullptr && !read_real(from.keys[i], key)) {
      eh.error(text(from.keys[i], ", a key in ", from.file, ", is no number"));
      return;
    }
    double* row = row_of_key(eh, table, from.keys[i], key, false);
    if (eh.terminate()) return;
    if (row != nullptr)
      std::copy_n(from.values.begin() + static_cast<std::ptrdiff_t>(i) * from.columns, table.basis.columns, row);
  }
}

}  // namespace

const COVARIATE_TABLE* find_table(const COVARIATE_TABLES& tables, const std::string& file)
{
  const auto found = std::find_if(tables.begin(), tables.end(), [&](const COVARIATE_TABLE& t) { return t.file == file; });
  return found == tables.end() ? nullptr : &*found;
}

void READ_FILE_COVARIATES(ERROR_HANDLER& eh, const JsonNode& request, const USER_DATASET_STORE& datasets,
                          const COVARIATE_TABLES& tables, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
                          std::int64_t row, DESIGN_BASIS& basis)
{
  const Frame here{eh, __func__};
  const FACTOR_ROW& source = factors.row(factors.row(row).source);
  MBF_TABLE table{.name = factors.row(row).name, .basis = basis};
  if (source.is_factor) {
    table.factor = &variables.row(source.variable);
    if (!assign(eh, basis.row_of_level, source.levels)) return;
  }
  HANDLE_MBF(eh, request, table);
  if (!eh.terminate()) {
    if (!table.dataset.empty()) {
      L_TAKE_DATASET(eh, request, datasets, table);
    } else if (const COVARIATE_TABLE* ahead = find_table(tables, table.file); ahead != nullptr) {
      L_TAKE_READ_AHEAD(eh, *ahead, table);
    } else {
      GETMBF(eh, table);
    }
  }
  if (eh.terminate()) {
    eh.continuation("issue processing the mbf information");
    return;
  }
  if (table.duplicates > most_duplicates_told)
    eh.warning(text(table.duplicates, " rows of ", table.name, " have a key that came before"));
  if (source.is_factor) return;

  // The rows in the order of their keys.
  basis.distinct = std::move(table.met);
  basis.distinct.sort();
  std::vector<double> sorted(basis.table.size());
  const auto columns = static_cast<std::ptrdiff_t>(basis.columns);
  for (std::size_t k = 0; k < table.keys.size(); ++k) {
    const std::int64_t place = basis.distinct.find(table.keys[k]) - 1;
    std::copy_n(basis.table.begin() + static_cast<std::ptrdiff_t>(k) * columns, columns, sorted.begin() + place * columns);
  }
  basis.table.swap(sorted);
}

}  // namespace tolvan
