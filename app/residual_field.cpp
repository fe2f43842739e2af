// The residuals of a spatial model in their field.
#include <algorithm>
#include <cmath>
#include <limits>
#include <map>

#include "app/csv_file.h"
#include "app/files.h"
#include "app/html_report.h"
#include "app/json_value.h"
#include "app/model_terms.h"

namespace tolvan::driver {
namespace {

constexpr double nothing = std::numeric_limits<double>::quiet_NaN();
constexpr std::size_t most_fields = 6;

/// A text cut at the separators outside brackets.
std::vector<std::string> outer_parts(const std::string& text, char separator)
{
  std::vector<std::string> parts(1);
  int depth = 0;
  for (const char c : text) {
    depth += c == '(' || c == '[' ? 1 : c == ')' || c == ']' ? -1 : 0;
    if (c == separator && depth == 0)
      parts.emplace_back();
    else
      parts.back() += c;
  }
  return parts;
}

std::string trimmed(std::string s)
{
  while (!s.empty() && (s.back() == ' ' || s.back() == '"' || s.back() == '\'')) s.pop_back();
  std::size_t from = 0;
  while (from < s.size() && (s[from] == ' ' || s[from] == '"' || s[from] == '\'')) ++from;
  return s.substr(from);
}

/// A call taken apart: "ar1(row,0.5)" gives ar1 and its arguments; a plain name has none.
struct Call {
  std::string function;
  std::vector<std::string> arguments;
};

Call call_of(const std::string& text)
{
  const std::size_t open = text.find('(');
  if (open == std::string::npos || text.back() != ')') return {"", {trimmed(text)}};
  Call call{trimmed(text.substr(0, open)), outer_parts(text.substr(open + 1, text.size() - open - 2), ',')};
  for (std::string& each : call.arguments) each = trimmed(each);
  return call;
}

/// What a residual term says: the two dimensions of the field, and the records that it holds.
struct Place {
  std::string row, column, condition, level;
};

bool place_of(const std::string& term, Place& place)
{
  std::vector<std::string> dimensions;
  for (const std::string& part : outer_parts(term, ':')) {
    const Call call = call_of(part);
    if (call.arguments.empty()) return false;
    if ((call.function == "sat" || call.function == "at") && call.arguments.size() == 2) {
      place.condition = call.arguments[0];
      place.level = call.arguments[1];
    } else {
      dimensions.push_back(call.arguments.front());
    }
  }
  if (dimensions.size() != 2 || dimensions[0] == "units" || dimensions[1] == "units") return false;
  place.row = dimensions[0];
  place.column = dimensions[1];
  return true;
}

/// The columns of the data by name, read again from the file that the fit had.
struct DataColumns {
  CsvFile file;
  std::vector<std::string> names;
  std::ptrdiff_t find(const std::string& name) const
  {
    const auto at = std::find(names.begin(), names.end(), name);
    return at == names.end() ? -1 : at - names.begin();
  }
};

bool read_columns(const FitArguments& arguments, const Request& request, DataColumns& out)
{
  std::string path;
  if (!arguments.data.empty()) {
    path = arguments.data.front().substr(arguments.data.front().find('=') + 1);
  } else if (const auto document = read_json(request.document)) {
    if (const Json* file = document->find("data_file")) {
      if (const Json* name = file->string_at("name")) path = name->text;
    }
    if (const Json* variables = document->find("variables")) {
      for (const Json& each : variables->items) {
        const Json* name = each.string_at("name");
        out.names.push_back(name ? name->text : "");
      }
    }
  }
  if (path.empty() || path == "-" || read_csv(path, out.file)) return false;
  if (out.names.size() != out.file.header.size()) out.names = out.file.header;
  return true;
}

/// The distinct texts of a column, by number where all are numbers.
std::vector<std::string> levels_of(const DataColumns& data, std::size_t column, const std::vector<std::int64_t>& records)
{
  std::vector<std::string> levels;
  std::map<std::string, int> seen;
  bool numbers = true;
  for (const std::int64_t r : records) {
    const std::string text(data.file.field(r, column));
    if (is_missing(text) || !seen.emplace(text, 0).second) continue;
    numbers = numbers && number_of(text, data.file.separator).has_value();
    levels.push_back(text);
  }
  if (numbers) {
    std::stable_sort(levels.begin(), levels.end(), [&](const std::string& a, const std::string& b) {
      return *number_of(a, data.file.separator) < *number_of(b, data.file.separator);
    });
  }
  return levels;
}

}  // namespace

std::vector<Field> residual_fields(Engine& engine, const FitArguments& arguments, const Request& request,
                                   const std::vector<double>& residuals)
{
  std::vector<Field> fields;
  DataColumns data;
  bool read = false;
  for (const std::string& term : model_terms(engine, "residual")) {
    Place place;
    if (!place_of(term, place)) continue;
    if (!read && !read_columns(arguments, request, data)) return fields;
    read = true;
    if (data.file.records() != static_cast<std::int64_t>(residuals.size())) return fields;  // filtered, or of several traits
    const std::ptrdiff_t row = data.find(place.row), column = data.find(place.column), condition = data.find(place.condition);
    if (row < 0 || column < 0 || (!place.condition.empty() && condition < 0)) continue;
    const auto at_row = static_cast<std::size_t>(row), at_column = static_cast<std::size_t>(column);
    std::vector<std::int64_t> all(residuals.size()), records;
    for (std::size_t k = 0; k < all.size(); ++k) all[k] = static_cast<std::int64_t>(k);
    if (condition >= 0) {
      // The level is a label, or its number among the labels.
      const auto at = static_cast<std::size_t>(condition);
      std::string level = place.level;
      const std::vector<std::string> levels = levels_of(data, at, all);
      if (std::find(levels.begin(), levels.end(), level) == levels.end()) {
        const auto number = number_of(level, ',');
        if (!number || *number < 1 || *number > static_cast<double>(levels.size())) continue;
        level = levels[static_cast<std::size_t>(*number) - 1];
      }
      std::copy_if(all.begin(), all.end(), std::back_inserter(records), [&](std::int64_t r) { return data.file.field(r, at) == level; });
    } else {
      records = all;
    }
    const std::vector<std::string> rows = levels_of(data, at_row, records), columns = levels_of(data, at_column, records);
    Field field{term, place.row, place.column, static_cast<std::int64_t>(rows.size()), static_cast<std::int64_t>(columns.size()), {}};
    if (rows.size() < 2 || columns.size() < 2 || rows.size() * columns.size() > 40000) continue;
    field.cells.assign(rows.size() * columns.size(), nothing);
    std::map<std::string, std::size_t, std::less<>> row_at, column_at;
    for (std::size_t k = 0; k < rows.size(); ++k) row_at[rows[k]] = k;
    for (std::size_t k = 0; k < columns.size(); ++k) column_at[columns[k]] = k;
    for (const std::int64_t r : records) {
      const auto i = row_at.find(data.file.field(r, at_row)), j = column_at.find(data.file.field(r, at_column));
      if (i == row_at.end() || j == column_at.end()) continue;
      field.cells[i->second * columns.size() + j->second] = residuals[static_cast<std::size_t>(r)];
    }
    fields.push_back(std::move(field));
    if (fields.size() == most_fields) break;
  }
  return fields;
}

std::vector<double> sample_variogram(const Field& field, std::int64_t& rows, std::int64_t& columns)
{
  constexpr std::int64_t most = 25;
  rows = std::min(most, field.rows / 2) + 1;
  columns = std::min(most, field.columns / 2) + 1;
  std::vector<double> out(static_cast<std::size_t>(rows * columns), nothing);
  const auto cell = [&](std::int64_t r, std::int64_t c) { return field.cells[static_cast<std::size_t>(r * field.columns + c)]; };
  for (std::int64_t dr = 0; dr < rows; ++dr) {
    for (std::int64_t dc = 0; dc < columns; ++dc) {
      double sum = 0.0, pairs = 0.0;
      const auto add = [&](double a, double b) {
        if (!std::isfinite(a) || !std::isfinite(b)) return;
        sum += 0.5 * (a - b) * (a - b);
        pairs += 1.0;
      };
      for (std::int64_t r = 0; r + dr < field.rows; ++r) {
        for (std::int64_t c = 0; c + dc < field.columns; ++c) {
          add(cell(r, c), cell(r + dr, c + dc));
          if (dr > 0 && dc > 0) add(cell(r + dr, c), cell(r, c + dc));
        }
      }
      if (pairs > 0.0) out[static_cast<std::size_t>(dr * columns + dc)] = sum / pairs;
    }
  }
  return out;
}

}  // namespace tolvan::driver
