// Mending of covariance matrices that are not positive definite.  Routines: K4MVUS, K4MVPD.
#include "varstruct/mend_matrix.h"

#include <algorithm>
#include <cmath>

#include "base/lapack.h"
#include "base/memory.h"
#include "base/numbers.h"
#include "base/packed.h"

namespace tolvan {

namespace {

constexpr double unexplained_at_first = 1e30;
constexpr double zero_pivot = 1e-12;
constexpr double least_diagonal = 1e-8;
constexpr double accepted_ratio = wide(1e-5F);  // smallest to largest eigenvalue, times n
constexpr double bend_max = 0.999;
constexpr int floor_passes = 4;  // raising and scaling back: correlations far beyond 1 are scaled back much
constexpr double nearly = 0.5;   // of the floor

/// Multiplies the covariances of a level, from 1.
void weaken(const PackedSymmetric<double>& v, std::int64_t n, std::int64_t level, double f)
{
  for (std::int64_t j = 1; j <= n; ++j) {
    if (j != level) v(level, j) *= f;
  }
}

/// u(i) = 1 / (V^-1)_ii / V_ii, the share of the variance of each level that the others don't explain.  Any
/// symmetric V: a level whose pivot vanishes is explained by those before it, u = 0.
bool unexplained_shares(ERROR_HANDLER& eh, std::span<const double> v, std::int64_t n, std::vector<double>& u)
{
  std::vector<double> a;
  if (!assign(eh, a, n * n) || !assign(eh, u, n)) return false;
  const PackedSymmetric<const double> packed{v};
  const auto at = [&](std::int64_t i, std::int64_t j) -> double& {
    return a[static_cast<std::size_t>(i + j * n)];
  };
  for (std::int64_t j = 0; j < n; ++j) {
    for (std::int64_t i = 0; i < n; ++i) at(i, j) = packed(i + 1, j + 1);
  }
  // The sweep operator (Goodnight 1979): after sweeping every level the matrix is the inverse.
  std::vector<char> swept;
  if (!assign(eh, swept, n)) return false;
  for (std::int64_t k = 0; k < n; ++k) {
    const double pivot = at(k, k);
    if (!(std::fabs(pivot) > zero_pivot * std::fabs(packed(k + 1, k + 1)))) continue;
    swept[static_cast<std::size_t>(k)] = 1;
    for (std::int64_t j = 0; j < n; ++j) {
      if (j == k) continue;
      const double b = at(k, j) / pivot;
      for (std::int64_t i = 0; i < n; ++i) {
        if (i != k) at(i, j) -= at(i, k) * b;
      }
      at(k, j) = b;
    }
    for (std::int64_t i = 0; i < n; ++i) {
      if (i != k) at(i, k) = -at(i, k) / pivot;
    }
    at(k, k) = 1.0 / pivot;
  }
  for (std::int64_t i = 0; i < n; ++i) {
    const double product = at(i, i) * packed(i + 1, i + 1);
    u[static_cast<std::size_t>(i)] =
        swept[static_cast<std::size_t>(i)] != 0 && product != 0.0 ? 1.0 / product : 0.0;
  }
  return true;
}

/// The eigenvalues e (ascending) and vectors q of the correlations of a covariance matrix with positive
/// diagonal.  The answer is LAPACK's, or -1 with the memory message.
struct CORRELATIONS {
  std::int64_t n = 0;
  std::vector<double> q, e, sd;

  std::int64_t decompose(ERROR_HANDLER& eh, const PackedSymmetric<double>& v);
  /// Q E Q', with the standard deviations, into v.  The diagonal is kept if asked, by scaling the levels.
  bool rebuild(ERROR_HANDLER& eh, const PackedSymmetric<double>& v, bool keep_diagonal) const;
};

std::int64_t CORRELATIONS::decompose(ERROR_HANDLER& eh, const PackedSymmetric<double>& v)
{
  if (!assign(eh, q, n * n) || !assign(eh, e, n) || !assign(eh, sd, n)) return -1;
  for (std::int64_t i = 0; i < n; ++i) sd[static_cast<std::size_t>(i)] = std::sqrt(v(i + 1, i + 1));
  for (std::int64_t j = 0; j < n; ++j) {
    for (std::int64_t i = j; i < n; ++i) {
      const double scale = sd[static_cast<std::size_t>(i)] * sd[static_cast<std::size_t>(j)];
      q[static_cast<std::size_t>(i + j * n)] = i == j ? 1.0 : v(i + 1, j + 1) / scale;
    }
  }
  std::vector<double> work;
  std::vector<std::int32_t> iwork;
  std::int64_t info = -1;
  if (!attempt([&] { info = dsyevd('V', 'L', n, q.data(), n, e.data(), work, iwork); })) eh.out_of_memory();
  return info;
}

bool CORRELATIONS::rebuild(ERROR_HANDLER& eh, const PackedSymmetric<double>& v, bool keep_diagonal) const
{
  std::vector<double> scaled, r;
  if (!assign(eh, scaled, n * n) || !assign(eh, r, n * n)) return false;
  for (std::int64_t k = 0; k < n; ++k) {
    for (std::int64_t i = 0; i < n; ++i)
      scaled[static_cast<std::size_t>(i + k * n)] =
          q[static_cast<std::size_t>(i + k * n)] * e[static_cast<std::size_t>(k)];
  }
  dgemm('N', 'T', n, n, n, 1.0, scaled.data(), n, q.data(), n, 0.0, r.data(), n);
  const auto at = [&](std::int64_t i, std::int64_t j) {
    return r[static_cast<std::size_t>(i - 1 + (j - 1) * n)];
  };
  for (std::int64_t i = 1; i <= n; ++i) {
    for (std::int64_t j = 1; j <= i; ++j) {
      if (keep_diagonal && i == j) continue;
      const double by = keep_diagonal ? 1.0 / std::sqrt(at(i, i) * at(j, j)) : 1.0;
      v(i, j) = at(i, j) * by * sd[static_cast<std::size_t>(i - 1)] * sd[static_cast<std::size_t>(j - 1)];
    }
  }
  return true;
}

}  // namespace

void K4MVUS(ERROR_HANDLER& eh, std::span<double> v, std::int64_t n, std::int64_t& faults,
            std::vector<std::int64_t>& marked, std::int64_t cell, double fraction, double bend,
            Mended& status)
{
  const Frame here{eh, __func__};
  status = Mended::refused;
  const PackedSymmetric<double> packed{v};
  if (faults < 0) {
    std::int64_t answer = -1;
    K4MVPD(eh, v, n, bend, 1, answer);
    status = answer == 0 ? Mended::as_it_was : answer == 1 ? Mended::yes : Mended::refused;
    return;
  }
  if (cell > 0) {
    std::int64_t i = 1;
    while (packed_size(i) < cell) ++i;
    const std::int64_t j = cell - packed_size(i - 1);
    weaken(packed, n, i, fraction);
    if (j != i) weaken(packed, n, j, fraction);
    status = Mended::yes;
    return;
  }
  std::vector<double> u;
  if (!unexplained_shares(eh, v, n, u)) return;
  double smallest = unexplained_at_first;
  std::int64_t worst = -1;
  for (std::int64_t i = 0; i < n; ++i) {
    const double ui = u[static_cast<std::size_t>(i)];
    if (!(ui < smallest) || std::find(marked.begin(), marked.end(), i) != marked.end()) continue;
    smallest = ui;
    worst = i;
  }
  if (worst < 0) return;
  if (!attempt([&] { marked.push_back(worst); })) {
    eh.out_of_memory();
    return;
  }
  ++faults;
  weaken(packed, n, worst + 1, std::clamp(wide(0.99F) / (std::fabs(smallest) + 1.0), 0.05, 0.95));
  status = Mended::yes;
}

bool floor_eigenvalues(ERROR_HANDLER& eh, std::span<double> v, std::int64_t n, double least)
{
  const PackedSymmetric<double> packed{v};
  for (std::int64_t i = 1; i <= n; ++i) {
    if (!(packed(i, i) > 0.0)) return false;
  }
  CORRELATIONS c{.n = n};
  for (int pass = 0; pass < floor_passes; ++pass) {
    if (c.decompose(eh, packed) != 0) return false;
    if (c.e.front() >= nearly * least) return true;
    for (double& x : c.e) x = std::max(x, least);
    if (!c.rebuild(eh, packed, true)) return false;
  }
  return true;
}

void K4MVPD(ERROR_HANDLER& eh, std::span<double> v, std::int64_t n, double bend, std::int64_t count,
            std::int64_t& status)
{
  const Frame here{eh, __func__};
  const PackedSymmetric<double> packed{v};
  for (std::int64_t i = 1; i <= n; ++i) {
    if (!(packed(i, i) >= least_diagonal)) return;
  }
  CORRELATIONS c{.n = n};
  const std::int64_t info = c.decompose(eh, packed);
  if (info != 0) {
    status = -std::abs(info);
    return;
  }
  const double least = c.e.front(), largest = c.e.back();
  if (least > largest * accepted_ratio / static_cast<double>(n)) {
    status = 0;
    return;
  }
  status = count;
  if (count > 1) return;
  status = 1;
  // e' = m + (e - m) b m / (m - least): the mean m stays, the least one becomes m (1 - b).
  const double b = std::min(std::fabs(bend), bend_max);
  double mean = 0.0;
  for (const double x : c.e) mean += x / static_cast<double>(n);
  for (double& x : c.e) x = (x - mean) * b / (mean - least) * mean + mean;
  c.rebuild(eh, packed, false);
}

}  // namespace tolvan
