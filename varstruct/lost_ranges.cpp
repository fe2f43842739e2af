// Ranges of models with distances about which the points tell nothing.  Routines: lost_ranges, ranges_with_kinks.
#include "varstruct/lost_ranges.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "varstruct/form_row.h"
#include "varstruct/make_component.h"

namespace tolvan {

namespace {

enum Metric : std::int64_t { EXP = 1, GAU = 2, EUC = 3, SPH = 4, CIR = 5, LIN = 6, LVR = 7, MAT = 9 };

constexpr std::int64_t metric_family = 6;  // internal code
constexpr double nearly_none = 0.02;       // mean correlation of a point with its nearest
constexpr double nearly_one = 0.9;         // mean correlation of a point with its farthest
constexpr int places = 5;                  // ranges to try, from the nearest points to the farthest
// Where correlations end at the range the likelihood has kinks and many tops (Mardia & Watkins 1989): the best is among them.
constexpr int places_with_kinks = 25;
constexpr double least_separation = 1e-12;

/// How a correlation falls along its range parameter.
struct RANGE {
  std::int64_t metric = EXP;
  int direction = 0;  // of two powers: 0 both together, 1 and 2 along one coordinate each

  bool has_kinks() const { return metric >= SPH && metric <= LVR; }
  double separation(double dx, double dy) const
  {
    if (direction > 0) return std::fabs(direction == 1 ? dx : dy);
    return metric == EXP ? std::fabs(dx) + std::fabs(dy) : std::sqrt(dx * dx + dy * dy);
  }
  double correlation(double d, double value) const
  {
    switch (metric) {
      case EXP:
      case EUC:
        return std::pow(value, d);
      case GAU:
        return std::pow(value, d * d);
      case LIN:
        return std::max(0.0, 1.0 - d * value);
      case MAT:
        return std::exp(-d / value);
      default:
        return std::max(0.0, 1.0 - d / value);
    }
  }
  /// The value at which the correlation is about a half at the separation d.
  double half_at(double d) const
  {
    switch (metric) {
      case EXP:
      case EUC:
        return std::exp2(-1.0 / d);
      case GAU:
        return std::exp2(-1.0 / (d * d));
      case LIN:
        return 0.5 / d;
      case MAT:
        return d / std::log(2.0);
      default:
        return 2.0 * d;
    }
  }
};

/// For every point with others in its piece the separations from the nearest and from the farthest of them.
struct NEIGHBOURS {
  std::vector<double> nearest, farthest;
};

NEIGHBOURS neighbours(const RANGE& range, const COORDINATES& at, const std::vector<std::int64_t>& starts)
{
  NEIGHBOURS found;
  for (std::size_t piece = 0; piece + 1 < starts.size(); ++piece) {
    for (std::int64_t i = starts[piece]; i < starts[piece + 1]; ++i) {
      double least = std::numeric_limits<double>::infinity(), most = 0.0;
      for (std::int64_t j = starts[piece]; j < starts[piece + 1]; ++j) {
        const auto a = static_cast<std::size_t>(i), b = static_cast<std::size_t>(j);
        const double d = range.separation(at.x[a] - at.x[b], at.y.empty() ? 0.0 : at.y[a] - at.y[b]);
        if (!(d > least_separation)) continue;  // itself, and points beside it in another direction
        least = std::min(least, d);
        most = std::max(most, d);
      }
      if (most == 0.0) continue;
      found.nearest.push_back(least);
      found.farthest.push_back(most);
    }
  }
  return found;
}

double mean_correlation(const RANGE& range, const std::vector<double>& separations, double value)
{
  double sum = 0.0;
  for (const double d : separations) sum += range.correlation(d, value);
  return sum / static_cast<double>(separations.size());
}

double median(std::vector<double> x)
{
  const auto middle = x.begin() + static_cast<std::ptrdiff_t>(x.size() / 2);
  std::nth_element(x.begin(), middle, x.end());
  return *middle;
}

/// The range parameters of a metric row.
std::vector<RANGE> ranges_of(const STRUCTURE_ROW& row, std::int64_t own)
{
  const std::int64_t metric = row.sub_code;
  const bool known = (metric >= EXP && metric <= LVR) || metric == MAT;
  if (!known || own < 1) return {};
  const bool by_direction = (metric == EXP || metric == GAU) && own > 1;
  if (by_direction) return {{metric, 1}, {metric, 2}};
  return {{metric, 0}};
}

bool may_move(const VARIANCE_PARAMETER& v)
{
  return (is_free(v.constraint) || v.constraint == Constraint::S) && v.master < 0 && v.sum < 0;
}

void judge_row(const VARIANCE_MODEL& model, const STRUCTURE_ROW& row, const std::vector<double>& values, bool failed,
               std::vector<LOST_RANGE>& lost)
{
  if (row.model != metric_family || row.coordinates < 0) return;
  const std::int64_t own = row_parameters(row).own;
  const COORDINATES& at = model.coordinates[static_cast<std::size_t>(row.coordinates)];
  std::int64_t next = row.first;
  for (const RANGE& range : ranges_of(row, own)) {
    const std::int64_t parameter = next++;
    const double value = values[static_cast<std::size_t>(parameter)];
    if (!may_move(model.parameters[static_cast<std::size_t>(parameter)]) || !(value > 0.0)) continue;
    const NEIGHBOURS points = neighbours(range, at, pieces_of(row, model));
    if (points.nearest.empty()) continue;
    const bool none = mean_correlation(range, points.nearest, value) < nearly_none;
    const bool alike = mean_correlation(range, points.farthest, value) > nearly_one;
    if (!none && !alike && !failed) continue;
    LOST_RANGE found{.parameter = parameter, .first = row.first, .own = own};
    found.why = none ? Lost::none_alike : alike ? Lost::all_alike : Lost::failed;
    const double shortest = median(points.nearest), longest = median(points.farthest);
    const int tried = range.has_kinks() ? places_with_kinks : places;
    for (int k = 0; k < tried; ++k) {
      const double share = static_cast<double>(k) / (tried - 1);
      found.others.push_back(range.half_at(shortest * std::pow(longest / shortest, share)));
    }
    lost.push_back(std::move(found));
  }
  const std::int64_t smoothness = row.first + 1;
  if (failed && row.sub_code == MAT && own > 1 && may_move(model.parameters[static_cast<std::size_t>(smoothness)]))
    lost.push_back({smoothness, row.first, own, Lost::failed, {0.5, 1.5}});
}

/// Calls use(row) for the rows of the terms in the run and of the residual.
template <class Use>
void each_row(const VARIANCE_MODEL& model, Use use)
{
  for (const TERM_STRUCTURE& term : model.terms) {
    if (term.dropped) continue;
    for (std::int64_t r = term.first_row; r < term.first_row + term.rows; ++r) use(model.rows[static_cast<std::size_t>(r)]);
  }
  for (const STRUCTURE_ROW& row : model.residual) use(row);
}

}  // namespace

std::vector<LOST_RANGE> lost_ranges(const VARIANCE_MODEL& model, const std::vector<double>& values, bool failed)
{
  std::vector<LOST_RANGE> lost;
  each_row(model, [&](const STRUCTURE_ROW& row) { judge_row(model, row, values, failed, lost); });
  return lost;
}

std::vector<std::int64_t> ranges_with_kinks(const VARIANCE_MODEL& model)
{
  std::vector<std::int64_t> found;
  each_row(model, [&](const STRUCTURE_ROW& row) {
    const bool kinks = row.model == metric_family && RANGE{row.sub_code}.has_kinks();
    if (kinks && may_move(model.parameters[static_cast<std::size_t>(row.first)])) found.push_back(row.first);
  });
  return found;
}

}  // namespace tolvan
