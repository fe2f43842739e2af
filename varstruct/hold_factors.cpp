// Bounds of triangular factors near a singular covariance matrix.
#include "varstruct/hold_factors.h"

#include <algorithm>
#include <cmath>

namespace tolvan {

namespace {

constexpr double least_share = 1e-5;        // of V_jj that is the level's own
constexpr double largest_ratio = 1000000.0; // of D on the information scale
constexpr int times_to_fix = 3;

/// Takes a diagonal element back to its bound; true when it is there.
bool hold(VARIANCE_PARAMETER& d, double bound, bool above, int& times)
{
  const bool beyond = above ? d.value > bound : d.value < bound;
  if (!beyond || d.constraint == Constraint::F) {
    if (d.constraint != Constraint::B) times = 0;
    return false;
  }
  d.value = bound;
  if (++times >= times_to_fix && is_free(d.constraint)) d.constraint = Constraint::B;
  return true;
}

}  // namespace

void hold_cholesky_factors(const FACTOR_TRIANGLE& theta, std::int64_t n, std::vector<int>& times)
{
  times.resize(static_cast<std::size_t>(n), 0);
  for (std::int64_t j = 1; j <= n; ++j) {
    double explained = 0.0;
    for (std::int64_t c = 1; c < j; ++c) explained += theta(j, c).value * theta(j, c).value * theta(c, c).value;
    VARIANCE_PARAMETER& d = theta(j, j);
    if (!hold(d, least_share / (1.0 - least_share) * explained, false, times[static_cast<std::size_t>(j - 1)])) continue;
    for (std::int64_t i = j + 1; i <= n; ++i) {
      VARIANCE_PARAMETER& l = theta(i, j);
      if (l.constraint == Constraint::F) continue;
      double whole = std::max(theta(i, i).value, 0.0);
      for (std::int64_t c = 1; c < i; ++c) {
        if (c != j) whole += theta(i, c).value * theta(i, c).value * std::max(theta(c, c).value, 0.0);
      }
      const double most = std::sqrt(whole / (explained + d.value));
      l.value = std::clamp(l.value, -most, most);
      if (d.constraint == Constraint::B && is_free(l.constraint)) l.constraint = Constraint::B;
    }
  }
}

/// Row by row V_jk = -sum over i before j of u_ij V_ik, V_jj = 1 / D_j - sum of u_ij V_ij.
void hold_precision_factors(const FACTOR_TRIANGLE& theta, std::int64_t n, std::vector<int>& times)
{
  times.resize(static_cast<std::size_t>(n), 0);
  double smallest = theta(1, 1).value;
  for (std::int64_t j = 2; j <= n; ++j) smallest = std::min(smallest, theta(j, j).value);
  std::vector<double> v(static_cast<std::size_t>(packed_size(n)), 0.0);
  const PackedSymmetric<double> whole{v};
  for (std::int64_t j = 1; j <= n; ++j) {
    double explained = 0.0;
    for (std::int64_t k = 1; k < j; ++k) {
      double sum = 0.0;
      for (std::int64_t i = 1; i < j; ++i) {
        if (theta(j, i).value != 0.0) sum -= theta(j, i).value * whole(i, k);
      }
      whole(j, k) = sum;
      explained -= theta(j, k).value * sum;
    }
    VARIANCE_PARAMETER& d = theta(j, j);
    double most = smallest > 0.0 ? largest_ratio * smallest : d.value;
    if (explained > 0.0) most = std::min(most, (1.0 - least_share) / (least_share * explained));
    hold(d, most, true, times[static_cast<std::size_t>(j - 1)]);
    whole(j, j) = explained + (d.value > 0.0 ? 1.0 / d.value : 0.0);
  }
}

}  // namespace tolvan
