// Dense inverses: SMILM, SMIDENSE, K4MSMISG, K4MSMI, K4MSMIGE, K4MSMIGE1.  The sweep is in sweep_dense.cpp.
#include "relmat/invert_dense.h"

#include <algorithm>
#include <cmath>

#include "base/lapack.h"
#include "base/memory.h"
#include "base/text.h"

namespace tolvan {
namespace {

constexpr double pivot_floor = 1e-10;

/// Copies the lower triangle to the upper one, in tiles that stay in the cache.
void fill_upper(std::int64_t n, double* a)
{
  constexpr std::int64_t tile = 64;
  for (std::int64_t j0 = 0; j0 < n; j0 += tile) {
    for (std::int64_t i0 = j0; i0 < n; i0 += tile) {
      for (std::int64_t j = j0; j < std::min(j0 + tile, n); ++j) {
        for (std::int64_t i = std::max(i0, j + 1); i < std::min(i0 + tile, n); ++i)
          a[j + i * n] = a[i + j * n];
      }
    }
  }
}

std::string shown(double x)
{
  return std::string(trim(edit(x, "G12.5")));
}

/// Turns the round of a sweep into a generalized inverse, and its share that binds singular rows into 0.
void inverse_from_sweep(std::int64_t n, const PIVOTS& pivots, double* a)
{
  const auto has_pivot = [&](std::int64_t k) { return pivots.mark[static_cast<std::size_t>(k)] <= 0; };
  for (std::int64_t j = 0; j < n; ++j) {
    for (std::int64_t i = j; i < n; ++i) a[i + j * n] = has_pivot(i) && has_pivot(j) ? -a[i + j * n] : 0.0;
  }
  fill_upper(n, a);
}

}  // namespace

double singularity_criterion(std::int64_t precision)
{
  if (precision <= 0) return 1e-10;
  return precision < 5 ? 0.0001 : std::pow(10.0, -static_cast<double>(precision));
}

void SMILM(ERROR_HANDLER& eh, std::int64_t n, double* a, std::int64_t precision, double& log_determinant)
{
  const Frame here{eh, __func__};
  log_determinant = 0.0;
  const double criterion = singularity_criterion(precision);
  std::vector<double> tolerance;
  if (!assign(eh, tolerance, n)) return;
  for (std::int64_t k = 0; k < n; ++k) tolerance[static_cast<std::size_t>(k)] = criterion * std::abs(a[k + k * n]);
  if (const std::int64_t info = dpotrf('L', n, a, n); info != 0) {
    eh.error(text("DPOTRF error = ", info));
    return;
  }
  for (std::int64_t k = 0; k < n; ++k) {
    const double pivot = a[k + k * n] * a[k + k * n];
    if (pivot < tolerance[static_cast<std::size_t>(k)]) {
      eh.error(text("the matrix is singular in row ", k + 1, ", its pivot there is ", shown(pivot)));
      eh.continuation(text("singularity declared when |pivot| < ", shown(tolerance[static_cast<std::size_t>(k)])));
      return;
    }
    log_determinant += std::log(pivot);
  }
  if (const std::int64_t info = dtrtri('L', 'N', n, a, n); info != 0) {
    eh.error(text("DTRTRI error = ", info));
    return;
  }
  if (const std::int64_t info = dlauum('L', n, a, n); info != 0) {
    eh.error(text("DLAUUM error = ", info));
    return;
  }
  fill_upper(n, a);
}

void SMIDENSE(ERROR_HANDLER& eh, std::int64_t n, double* a, std::int64_t precision, PIVOTS& pivots)
{
  const Frame here{eh, __func__};
  L_SWEEP(eh, n, a, singularity_criterion(precision), pivot_floor, pivots);
  if (eh.terminate()) return;
  inverse_from_sweep(n, pivots, a);
  eh.note(text("with singularity criterion ", pivots.criterion, ", ", pivots.singular, " Singular and ",
               pivots.negative, " negative"));
}

void K4MSMISG(ERROR_HANDLER& eh, std::int64_t n, std::vector<double>& a, std::int64_t precision,
              bool bind_empty, PIVOTS& pivots, std::vector<std::int64_t>& bound)
{
  const Frame here{eh, __func__};
  L_SWEEP(eh, n, a.data(), singularity_criterion(precision), pivot_floor, pivots);
  if (eh.terminate()) return;

  const std::int64_t added = pivots.singular + (bind_empty ? pivots.zero_rows : 0);
  const std::int64_t wide = n + added;
  std::int64_t size = 0;
  std::vector<std::int64_t> binds;  // the Lagrangian row of each row without a pivot, -1 for none
  if (!assign(eh, binds, n, std::int64_t{-1}) || !reserve(eh, bound, added)) return;
  bound.clear();
  if (!multiply_sizes(wide, wide, size)) return eh.out_of_memory();
  if (!resize(eh, a, size)) return;
  // To the longer columns, the last first, so that nothing is overwritten that is still to be moved.
  for (std::int64_t j = n - 1; j > 0 && added > 0; --j) {
    std::copy_backward(a.data() + j * n, a.data() + (j + 1) * n, a.data() + j * wide + n);
  }
  for (std::int64_t j = 0; j < n; ++j) std::fill(a.data() + j * wide + n, a.data() + (j + 1) * wide, 0.0);
  std::fill(a.data() + n * wide, a.data() + size, 0.0);
  const auto marked = [&](std::int64_t k) { return pivots.mark[static_cast<std::size_t>(k)] > 0; };
  std::vector<std::int64_t> without;  // rows without a pivot
  if (!reserve(eh, without, pivots.singular + pivots.zero_rows)) return;
  for (std::int64_t k = 0; k < n; ++k) {
    if (marked(k)) without.push_back(k);
    if (!marked(k) || (!bind_empty && pivots.empty[static_cast<std::size_t>(k)])) continue;
    binds[static_cast<std::size_t>(k)] = n + std::ssize(bound);
    bound.push_back(k);
  }
  // The sign changes; an element between a row without a pivot and one with one moves to the Lagrangian row of the former.
  auto below = without.begin();
  for (std::int64_t j = 0; j < n; ++j) {
    double* column = a.data() + j * wide;
    while (below != without.end() && *below < j) ++below;
    if (!marked(j)) {
      for (std::int64_t i = j; i < n; ++i) column[i] = -column[i];
      for (auto k = below; k != without.end(); ++k) {
        const std::int64_t bound_by = binds[static_cast<std::size_t>(*k)];
        if (bound_by >= 0) column[bound_by] = column[*k];
        column[*k] = 0.0;
      }
      continue;
    }
    const std::int64_t bound_by = binds[static_cast<std::size_t>(j)];
    for (std::int64_t i = j; i < n; ++i) {
      if (bound_by >= 0 && !marked(i)) a[static_cast<std::size_t>(bound_by + i * wide)] = -column[i];
      column[i] = 0.0;
    }
    if (bound_by >= 0) column[bound_by] = 1.0;
  }
  fill_upper(wide, a.data());
  eh.note(
      text(pivots.singular, " singularities and ", pivots.negative,
           " negative pivots found inverting the GRM matrix, the inverse matrix has been augmented to order ",
           wide));
  if (pivots.zero_rows > 0) eh.continuation(text("includes the ", pivots.zero_rows, " empty rows"));
  eh.continuation(text("singularity declared when |pivot| < ", pivots.criterion));
}

void K4MSMI(ERROR_HANDLER& eh, std::int64_t n, double* a, double& log_determinant)
{
  const Frame here{eh, __func__};
  PIVOTS pivots;
  L_SWEEP(eh, n, a, 1e-07, 0.0, pivots);
  if (eh.terminate()) return;
  if (pivots.singular + pivots.zero_rows > 0) {
    eh.error(text("a matrix of order ", n, " is singular"));
    return;
  }
  inverse_from_sweep(n, pivots, a);
  log_determinant = pivots.log_determinant;
}

void K4MSMIGE(ERROR_HANDLER& eh, std::int64_t n, double* a, PIVOTS& pivots)
{
  const Frame here{eh, __func__};
  L_SWEEP(eh, n, a, 1e-10, 0.0, pivots);
  if (!eh.terminate()) inverse_from_sweep(n, pivots, a);
}

void K4MSMIGE1(ERROR_HANDLER& eh, std::int64_t n, double* a, PIVOTS& pivots)
{
  const Frame here{eh, __func__};
  L_SWEEP(eh, n, a, 1e-12, 0.0, pivots);
  if (!eh.terminate()) inverse_from_sweep(n, pivots, a);
}

}  // namespace tolvan
