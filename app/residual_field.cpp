// The residuals of a spatial model in their field.
#include <algorithm>
#include <cmath>
#include <limits>

#include "app/html_report.h"
#include "app/json_value.h"

namespace tolvan::driver {
namespace {

constexpr double nothing = std::numeric_limits<double>::quiet_NaN();
constexpr int most_fields = 6;

/// The heading of a column of a table.
std::string heading_of(const Json& table, std::string_view column)
{
  const Json* info = table.find("column_info");
  const Json* columns = info ? info->find("columns") : nullptr;
  for (const Json& each : columns ? columns->items : std::vector<Json>{}) {
    const Json* name = each.string_at("name");
    const Json* heading = each.string_at("heading");
    if (name && heading && name->text == column) return heading->text;
  }
  return std::string(column);
}

}  // namespace

std::vector<Field> residual_fields(Engine& engine, const std::vector<double>& residuals)
{
  std::vector<Field> fields;
  for (int k = 1; k <= most_fields; ++k) {
    const std::string name = k == 1 ? "TABLE_FIELD" : "TABLE_FIELD_" + std::to_string(k);
    const auto document = read_json(engine.json(name).value_or(""));
    const Json* table = document ? document->find(name) : nullptr;
    if (!table) break;
    const auto record = engine.integers(name + ":RECORD"), row = engine.integers(name + ":ROW"), column = engine.integers(name + ":COLUMN");
    if (record.empty() || row.size() != record.size() || column.size() != record.size()) break;
    Field field{"", heading_of(*table, "ROW"), heading_of(*table, "COLUMN"), *std::max_element(row.begin(), row.end()),
                *std::max_element(column.begin(), column.end()), {}};
    field.name = engine.table_title(name);
    if (field.name.starts_with("Field of ")) field.name.erase(0, 9);
    field.cells.assign(static_cast<std::size_t>(field.rows * field.columns), nothing);
    for (std::size_t i = 0; i < record.size(); ++i) {
      const auto of = static_cast<std::size_t>(record[i] - 1);
      if (of < residuals.size()) field.cells[static_cast<std::size_t>((row[i] - 1) * field.columns + column[i] - 1)] = residuals[of];
    }
    fields.push_back(std::move(field));
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
