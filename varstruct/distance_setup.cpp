// Where the levels of models with distances lie.  Routines: SETUP_POWER_STRUCTURES, LEVEL_COORDINATES.
#include "varstruct/distance_setup.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "base/numbers.h"
#include "base/text.h"
#include "model/design_kinds.h"

namespace tolvan {

namespace {

constexpr std::int64_t metric = 6;  // the model code of the metric family

/// The numbers that stand for the levels of a variable: its labels if all of them are numbers, else 1, 2, ...
std::vector<double> numbers_of_levels(ERROR_HANDLER& eh, const VARIABLE& variable)
{
  std::vector<double> numbers;
  for (std::int64_t l = 1; l <= variable.levels; ++l) {
    double number = 0.0;
    if (!read_real(GET_LEVEL_NAME(eh, variable, l), number) || !std::isfinite(number)) break;
    numbers.push_back(number);
  }
  if (std::ssize(numbers) == variable.levels) return numbers;
  numbers.clear();
  for (std::int64_t l = 1; l <= variable.levels; ++l) numbers.push_back(static_cast<double>(l));
  return numbers;
}

/// Replaces the levels of a factor by their numbers; the values of a variate stay.
void to_numbers(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_ROW& factor,
                std::vector<double>& values)
{
  if (!factor.is_factor || factor.variable == 0) return;
  const std::vector<double> numbers = numbers_of_levels(eh, variables.row(factor.variable));
  for (double& x : values) {
    if (x >= 1.0 && x <= static_cast<double>(numbers.size())) x = numbers[static_cast<std::size_t>(x) - 1];
  }
}

/// L_CHECK_COORDINATES: complains of coordinates that can not be ordered.
void L_CHECK_COORDINATES(ERROR_HANDLER& eh, const COORDINATES& coordinates)
{
  const Frame here{eh, __func__};
  const auto good = [](double x) { return std::isfinite(x) && !is_no_value(x); };
  if (std::all_of(coordinates.x.begin(), coordinates.x.end(), good) &&
      std::all_of(coordinates.y.begin(), coordinates.y.end(), good)) {
    return;
  }
  eh.error(text("issue sorting X", coordinates.y.empty() ? "" : ",Y", " values for Spatial structure"));
  eh.continuation("failed while setting up the power model");
}

}  // namespace

std::int64_t data_row(const FACTOR_TABLE& factors, std::int64_t row)
{
  for (std::int64_t depth = factors.count(); row > 0 && depth >= 0; --depth) {
    const FACTOR_ROW& f = factors.row(row);
    const auto kind = static_cast<DesignKind>(f.kind);
    if (kind == DesignKind::none && !f.copy) return f.variable > 0 ? row : 0;
    if (!f.copy && kind != DesignKind::fac && kind != DesignKind::dev) return 0;
    row = f.source;
  }
  return 0;
}

void LEVEL_COORDINATES(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
                       std::int64_t row, COORDINATES& coordinates)
{
  const Frame here{eh, __func__};
  const FACTOR_ROW& f = factors.row(row);
  const FACTOR_ROW& x = factors.row(data_row(factors, row));
  if (!f.dist.empty()) {
    // By level where the levels are those of a factor, else in the order of the distinct values.
    const auto given = static_cast<std::int64_t>(f.dist.size());
    const auto found = static_cast<std::int64_t>(coordinates.x.size());
    const std::int64_t levels = x.is_factor ? variables.row(x.variable).levels : found;
    if (given != levels) {
      eh.error(text("wrong number of coordinates specified for ", f.shown()));
      eh.continuation(text("number expected = ", levels, ", number supplied = ", given));
      return;
    }
    for (std::int64_t i = 0; i < found; ++i) {
      double& at = coordinates.x[static_cast<std::size_t>(i)];
      const std::int64_t level = x.is_factor ? static_cast<std::int64_t>(at) - 1 : i;
      at = level >= 0 && level < given ? f.dist[static_cast<std::size_t>(level)] : no_value;
    }
  } else {
    to_numbers(eh, variables, x, coordinates.x);
    const std::int64_t y = f.second > 0 ? data_row(factors, f.second) : 0;
    if (y > 0) to_numbers(eh, variables, factors.row(y), coordinates.y);
  }
  if (eh.terminate()) return;
  L_CHECK_COORDINATES(eh, coordinates);
}

namespace {

/// L_RANDOM_COORDINATES: the coordinates of the levels of one random component: those of a factor, or the
/// distinct values of the data in rising order, x slowest.
void L_RANDOM_COORDINATES(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
                          const DATA_STORE& store, std::int64_t row, std::int64_t levels,
                          COORDINATES& coordinates)
{
  const Frame here{eh, __func__};
  coordinates = {};
  const std::int64_t x = row > 0 ? data_row(factors, row) : 0;
  const std::int64_t y =
      x > 0 && factors.row(row).second > 0 ? data_row(factors, factors.row(row).second) : 0;
  if (x == 0 || (y == 0 && factors.row(x).is_factor)) {
    // The levels of a factor, or those that the model counts.
    for (std::int64_t l = 1; l <= levels; ++l) coordinates.x.push_back(static_cast<double>(l));
  } else {
    const auto column = static_cast<std::size_t>(factors.row(x).variable - 1);
    const auto second =
        static_cast<std::size_t>(std::max<std::int64_t>(y > 0 ? factors.row(y).variable : 1, 1) - 1);
    std::vector<std::pair<double, double>> points;
    for (std::int64_t r = 0; r < store.records(); ++r) {
      const auto data = store.row(r);
      const std::pair<double, double> point{data[column], y > 0 ? data[second] : 0.0};
      if (!is_no_value(point.first) && !is_no_value(point.second)) points.push_back(point);
    }
    std::sort(points.begin(), points.end());
    points.erase(std::unique(points.begin(), points.end()), points.end());
    if (static_cast<std::int64_t>(points.size()) != levels) {
      eh.error(text(points.size(), " unique points but expected to find ", levels, " in the ",
                    store.records(), " records assigned to this section"));
      eh.continuation("failed while setting up the power model");
      return;
    }
    for (const auto& [px, py] : points) {
      coordinates.x.push_back(px);
      if (y > 0) coordinates.y.push_back(py);
    }
  }
  if (x > 0) {
    LEVEL_COORDINATES(eh, variables, factors, row, coordinates);
  } else if (row > 0 && !factors.row(row).dist.empty()) {
    const std::vector<double>& dist = factors.row(row).dist;
    if (static_cast<std::int64_t>(dist.size()) != levels) {
      eh.error(text("wrong number of coordinates specified for ", factors.row(row).shown()));
      eh.continuation(text("number expected = ", levels, ", number supplied = ", dist.size()));
      return;
    }
    coordinates.x = dist;
    L_CHECK_COORDINATES(eh, coordinates);
  }
}

}  // namespace

void SETUP_POWER_STRUCTURES(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
                            const TERM_TABLE& terms, const DATA_STORE& store, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  for (const TERM_STRUCTURE& structure : model.terms) {
    for (std::int64_t r = structure.first_row; r < structure.first_row + structure.rows; ++r) {
      STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(r)];
      if (row.model != metric || row.coordinates >= 0) continue;
      COORDINATES coordinates;
      L_RANDOM_COORDINATES(eh, variables, factors, store, row.factor, row.size, coordinates);
      if (eh.terminate()) {
        eh.continuation(
            text("this was found at the term ", terms.rows[static_cast<std::size_t>(structure.term)].name));
        return;
      }
      row.coordinates = static_cast<std::int64_t>(model.coordinates.size());
      model.coordinates.push_back(std::move(coordinates));
    }
  }
}

}  // namespace tolvan
