// Products of a symmetric matrix with the vectors of a block, by shape.
#include "varstruct/block_products.h"

#include <algorithm>

#include "base/lapack.h"

namespace tolvan {

namespace {

constexpr std::int64_t small_copy = std::int64_t{1} << 16;  // numbers

void sparse_times(const SYMMETRIC& a, const double* x, double* y, std::int64_t inner)
{
  std::fill(y, y + a.n * inner, 0.0);
  for (std::int64_t j = 0; j < a.n; ++j) {
    for (std::int64_t at = a.start[j]; at < a.start[j + 1]; ++at) {
      const std::int64_t i = a.row[at];
      const double value = a.scale * a.values[at];
      for (std::int64_t k = 0; k < inner; ++k) y[i * inner + k] += value * x[j * inner + k];
      if (i == j) continue;
      for (std::int64_t k = 0; k < inner; ++k) y[j * inner + k] += value * x[i * inner + k];
    }
  }
}

}  // namespace

void banded_times(const double* bands, std::int64_t n, std::int64_t bandwidth, double alpha, const double* x,
                  double* y, std::int64_t outer, std::int64_t inner)
{
  for (std::int64_t o = 0; o < outer; ++o, x += n * inner, y += n * inner) {
    for (std::int64_t j = 0; j < n; ++j) {
      const double value = alpha * bands[j];
      for (std::int64_t k = j * inner; k < (j + 1) * inner; ++k) y[k] = value * x[k];
    }
    for (std::int64_t d = 1; d <= std::min(bandwidth, n - 1); ++d) {
      const double* band = bands + d * n;
      const std::int64_t gap = d * inner;
      for (std::int64_t j = 0; j < n - d; ++j) {
        const double value = alpha * band[j];
        for (std::int64_t k = j * inner; k < (j + 1) * inner; ++k) {
          y[k + gap] += value * x[k];
          y[k] += value * x[k + gap];
        }
      }
    }
  }
}

void dense_times(const double* a, std::int64_t n, double alpha, const double* x, double* y,
                 std::int64_t outer, std::int64_t inner)
{
  if (n == 0 || outer == 0 || inner == 0) return;
  if (inner == 1) {  // the block is an n x outer matrix by columns
    dgemm('N', 'N', n, outer, n, alpha, a, n, x, n, 0.0, y, n);
    return;
  }
  for (std::int64_t o = 0; o < outer; ++o)  // a slice is an inner x n matrix by columns
    dgemm('N', 'N', inner, n, n, alpha, x + o * n * inner, inner, a, n, 0.0, y + o * n * inner, inner);
}

void symmetric_times(const SYMMETRIC& a, const double* x, double* y, std::int64_t outer, std::int64_t inner)
{
  const std::int64_t slice = a.n * inner;
  switch (a.shape) {
    case Shape::identity:
      for (std::int64_t k = 0; k < outer * slice; ++k) y[k] = a.scale * x[k];
      return;
    case Shape::diagonal:
      banded_times(a.values, a.n, 0, a.scale, x, y, outer, inner);
      return;
    case Shape::banded:
      banded_times(a.values, a.n, a.bandwidth, a.scale, x, y, outer, inner);
      return;
    case Shape::dense:
      dense_times(a.values, a.n, a.scale, x, y, outer, inner);
      return;
    case Shape::sparse:
      for (std::int64_t o = 0; o < outer; ++o) sparse_times(a, x + o * slice, y + o * slice, inner);
      return;
  }
}

void row_times(const SYMMETRIC& a, std::int64_t i, const double* x, double* z, std::int64_t outer,
               std::int64_t inner)
{
  const std::int64_t reach = a.shape == Shape::dense ? a.n : a.shape == Shape::banded ? a.bandwidth : 0;
  const std::int64_t from = std::max<std::int64_t>(0, i - reach);
  const std::int64_t to = std::min(a.n - 1, i + reach);
  std::fill(z, z + outer * inner, 0.0);
  for (std::int64_t j = from; j <= to; ++j) {
    const double value = a.scale * (a.shape == Shape::identity   ? 1.0
                                    : a.shape == Shape::diagonal ? a.values[i]
                                    : a.shape == Shape::dense    ? a.values[j + i * a.n]
                                                                 : a.values[std::abs(i - j) * a.n + std::min(i, j)]);
    for (std::int64_t o = 0; o < outer; ++o) {
      const double* xo = x + (o * a.n + j) * inner;
      for (std::int64_t k = 0; k < inner; ++k) z[o * inner + k] += value * xo[k];
    }
  }
}

double sum_of_products(const SYMMETRIC& a, const double* s)
{
  switch (a.shape) {
    case Shape::identity:
      return a.scale * s[0];
    case Shape::diagonal:
    case Shape::dense:
      return a.scale * ddot(a.stored(), a.values, 1, s, 1);
    case Shape::banded:
      return a.scale * (ddot(a.n, a.values, 1, s, 1) +
                        2.0 * ddot(a.n * a.bandwidth, a.values + a.n, 1, s + a.n, 1));
    case Shape::sparse: {
      double sum = 0.0;
      for (std::int64_t j = 0; j < a.n; ++j) {
        for (std::int64_t at = a.start[j]; at < a.start[j + 1]; ++at)
          sum += (a.row[at] == j ? 1.0 : 2.0) * a.values[at] * s[at];
      }
      return a.scale * sum;
    }
  }
  return 0.0;
}

std::int64_t slices_at_once(std::int64_t n, std::int64_t outer, std::int64_t inner)
{
  return std::clamp<std::int64_t>(small_copy / std::max<std::int64_t>(1, n * inner), 1,
                                  std::max<std::int64_t>(1, outer));
}

}  // namespace tolvan
