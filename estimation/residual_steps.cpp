// Long steps of the variances and covariance matrices of the residual.
#include "estimation/residual_steps.h"

#include <algorithm>
#include <cmath>

#include "base/lapack.h"

namespace tolvan {
namespace {

constexpr double long_step = 0.1;      // of a variance, in its own size
constexpr double furthest = 15.8;      // that a variance may go in one step, up or down, in its own size
constexpr double longest_inverse = 0.95; // that a step up may be on the scale of the inverse
constexpr std::int64_t unstructured = 9;                    // internal codes of models
constexpr std::int64_t without_own_sizes[] = {10, 11, 12, 13, 15};  // factors and triangular factors

enum class Sizes { none, variances, matrix };

Sizes sizes_of(const STRUCTURE_ROW& row)
{
  if (row.model == unstructured) return Sizes::matrix;
  const auto end = std::end(without_own_sizes);
  return std::find(std::begin(without_own_sizes), end, row.model) == end ? Sizes::variances : Sizes::none;
}

/// The active positions of a stretch of parameters, the profiled residual variance left out.
std::vector<std::size_t> positions(const INFORMATION& information, std::int64_t first, std::int64_t count)
{
  std::vector<std::size_t> found;
  const auto& active = information.active;
  for (auto at = std::lower_bound(active.begin(), active.end(), first); at != active.end() && *at < first + count; ++at) {
    if (at - active.begin() != information.held_out) found.push_back(static_cast<std::size_t>(at - active.begin()));
  }
  return found;
}

/// Calls use(positions, levels): once for each variance by itself with levels 0, once for each matrix with its levels.
template <class Use>
void each_size(const VARIANCE_MODEL& model, const INFORMATION& information, Use use)
{
  const auto variances = [&](std::int64_t first, std::int64_t count) {
    for (const std::size_t i : positions(information, first, count)) {
      if (model.parameters[static_cast<std::size_t>(information.active[i])].role == ParamRole::variance) use(std::vector<std::size_t>{i}, 0);
    }
  };
  for (const RESIDUAL_SECTION& section : model.sections) {
    for (std::int64_t r = section.first_row; r < section.first_row + section.rows; ++r) {
      const STRUCTURE_ROW& row = model.residual[static_cast<std::size_t>(r)];
      const Sizes sizes = sizes_of(row);
      if (sizes == Sizes::variances) variances(row.first, row.parameters);
      if (sizes == Sizes::matrix) use(positions(information, row.first, row.size * (row.size + 1) / 2), row.size);
    }
    if (section.scale >= 0) variances(section.scale, 1);
  }
}

/// Where a step of delta from 1 leads when it is taken on the scale of the inverse; within reach.  Where the residual is all there is
/// delta is below 1: a longer step is to make up for other parameters, and is taken as it is.
double by_inverse(double delta)
{
  if (delta >= longest_inverse) return std::min(1.0 + delta, furthest);
  return 1.0 / std::min(1.0 - delta, furthest);
}

/// The same for a matrix, by its principal directions: with V = LL' and L^-1 D L'^-1 = Q diag(d) Q', L Q diag(by_inverse(d)) Q'L'.
/// False where V is not positive definite or no direction has a long step; v and d by columns, v is overwritten.
bool matrix_by_inverse(std::int64_t n, std::vector<double>& v, std::vector<double>& d)
{
  if (dpotrf('L', n, v.data(), n) != 0) return false;
  for (std::int64_t j = 0; j < n; ++j) std::fill_n(v.begin() + j * n, j, 0.0);
  dtrsm('L', 'L', 'N', 'N', n, n, 1.0, v.data(), n, d.data(), n);
  dtrsm('R', 'L', 'T', 'N', n, n, 1.0, v.data(), n, d.data(), n);
  std::vector<double> eigenvalue(static_cast<std::size_t>(n));
  std::vector<double> work;
  std::vector<std::int32_t> iwork;
  if (dsyevd('V', 'L', n, d.data(), n, eigenvalue.data(), work, iwork) != 0) return false;
  if (std::max(std::fabs(eigenvalue.front()), std::fabs(eigenvalue.back())) < long_step) return false;
  std::vector<double> lq(v.size());
  dgemm('N', 'N', n, n, n, 1.0, v.data(), n, d.data(), n, 0.0, lq.data(), n);
  std::vector<double> scaled = lq;
  for (std::int64_t j = 0; j < n; ++j) {
    const double by = by_inverse(eigenvalue[static_cast<std::size_t>(j)]);
    for (std::int64_t i = 0; i < n; ++i) scaled[static_cast<std::size_t>(i + j * n)] *= by;
  }
  dgemm('N', 'T', n, n, n, 1.0, scaled.data(), n, lq.data(), n, 0.0, v.data(), n);
  return true;
}

}  // namespace

std::vector<std::uint8_t> sizes_of_residual(const VARIANCE_MODEL& model, const INFORMATION& information)
{
  std::vector<std::uint8_t> found(static_cast<std::size_t>(information.count()), 0);
  each_size(model, information, [&](const std::vector<std::size_t>& at, std::int64_t) {
    for (const std::size_t i : at) found[i] = 1;
  });
  return found;
}

std::vector<std::pair<std::size_t, double>> long_residual_steps(const VARIANCE_MODEL& model, const INFORMATION& information,
                                                                const std::vector<std::uint8_t>& open, const std::vector<double>& delta)
{
  std::vector<std::pair<std::size_t, double>> placed;
  const auto value = [&](std::size_t i) {
    return model.parameters[static_cast<std::size_t>(information.active[i])].value / information.unit[i];
  };
  each_size(model, information, [&](const std::vector<std::size_t>& at, std::int64_t levels) {
    if (!std::all_of(at.begin(), at.end(), [&](std::size_t i) { return open[i] != 0; })) return;
    if (levels == 0) {
      const double x = value(at[0]);
      if (x > 0.0 && std::fabs(delta[at[0]]) >= long_step * x) placed.emplace_back(at[0], x * by_inverse(delta[at[0]] / x));
      return;
    }
    if (static_cast<std::int64_t>(at.size()) != levels * (levels + 1) / 2) return;
    std::vector<double> v(static_cast<std::size_t>(levels * levels));
    std::vector<double> d(v.size());
    const auto element = [levels](std::int64_t i, std::int64_t j) { return static_cast<std::size_t>(i + j * levels); };
    std::size_t k = 0;
    for (std::int64_t i = 0; i < levels; ++i) {
      for (std::int64_t j = 0; j <= i; ++j, ++k) {
        v[element(i, j)] = v[element(j, i)] = value(at[k]);
        d[element(i, j)] = d[element(j, i)] = delta[at[k]];
      }
    }
    if (!matrix_by_inverse(levels, v, d)) return;
    k = 0;
    for (std::int64_t i = 0; i < levels; ++i) {
      for (std::int64_t j = 0; j <= i; ++j, ++k) placed.emplace_back(at[k], v[element(i, j)]);
    }
  });
  return placed;
}

}  // namespace tolvan
