// What a sweep makes of a dense symmetric matrix, by blocks.  Routine: L_SWEEP.
//
// Rows are eliminated from the last to the first.  With the order of rows turned round that is G = L D L', a column without a pivot
// being 0 in L and in 1/D.  N = L^-1 then holds all of the round: G11^-1 = N1' D1^-1 N1 for the rows with a pivot, and for one
// without its row of -N is G21 G11^-1.  Sweeping one row after the other would do the same work, but what it leaves of a nearly
// singular matrix is not the inverse of any matrix close to it: its errors grow with the square of the condition number, where
// those of a factor grow with the condition number itself (Higham 2002, Accuracy and Stability of Numerical Algorithms, chapter 14).
#include <algorithm>
#include <cmath>
#include <utility>

#include "base/lapack.h"
#include "base/memory.h"
#include "relmat/invert_dense.h"

namespace tolvan {
namespace {

constexpr std::int64_t block_size = 96;
constexpr std::int64_t tile_size = 128;     // columns of the triangle that one product updates
constexpr std::int64_t few_elements = 100;  // off the diagonal: below this no blocks are worth while

/// One sweep with its tests and its work space.
struct SWEEP {
  std::int64_t n;
  double* a;
  std::vector<double> tolerance;  // of each row
  PIVOTS& pivots;
  std::vector<double> reciprocal;  // 1/D by turned rows, 0 without a pivot
  std::vector<double> panel;       // n x block: columns of the rows in hand
  std::vector<double> scaled;      // n x block: the same times 1/D
  std::vector<double> product;     // block x n

  double& at(std::int64_t i, std::int64_t j) { return i >= j ? a[i + j * n] : a[j + i * n]; }
  bool has_pivot(std::int64_t k) const { return pivots.mark[static_cast<std::size_t>(k)] <= 0; }
};

/// Tests the pivot of a row and keeps the books; false where it has none.
bool take_pivot(SWEEP& s, std::int64_t row, double d)
{
  PIVOTS& p = s.pivots;
  auto& mark = p.mark[static_cast<std::size_t>(row)];
  if (p.empty[static_cast<std::size_t>(row)] ||
      !(std::abs(d) >= s.tolerance[static_cast<std::size_t>(row)]) || d == 0.0) {
    mark = row + 1;
    p.singular += p.empty[static_cast<std::size_t>(row)] ? 0 : 1;
    return false;
  }
  p.log_determinant += std::log(std::abs(d));
  p.negative += d < 0.0 ? 1 : 0;
  mark = d < 0.0 ? -(row + 1) : 0;
  return true;
}

/// Finds the tolerances from the diagonal, the rows without any element, and counts the elements off the
/// diagonal.
std::int64_t examine(SWEEP& s, double criterion, double floor)
{
  std::int64_t elements = 0;
  std::vector<bool>& empty = s.pivots.empty;
  for (std::int64_t j = 0; j < s.n; ++j) {
    for (std::int64_t i = j + 1; i < s.n; ++i) {
      if (s.a[i + j * s.n] == 0.0) continue;
      ++elements;
      empty[static_cast<std::size_t>(i)] = empty[static_cast<std::size_t>(j)] = false;
    }
    const double d = s.a[j + j * s.n];
    if (d != 0.0) empty[static_cast<std::size_t>(j)] = false;
    s.tolerance[static_cast<std::size_t>(j)] = std::abs(d) * criterion + floor;
  }
  s.pivots.zero_rows = std::count(empty.begin(), empty.end(), true);
  return elements;
}

/// Row after row on the whole matrix, for a large one that is nearly diagonal.
void sweep_by_rows(SWEEP& s)
{
  std::vector<std::int64_t> others;
  for (std::int64_t k = s.n - 1; k >= 0; --k) {
    const double d = s.at(k, k);
    const bool pivot = take_pivot(s, k, d);
    others.clear();
    for (std::int64_t i = 0; i < s.n; ++i) {
      double& x = s.at(i, k);
      if (i == k || x == 0.0) continue;
      if (pivot) {
        others.push_back(i);
      } else if (i < k || !s.has_pivot(i)) {
        x = 0.0;
      }
    }
    if (!pivot) {
      s.at(k, k) = 0.0;
      continue;
    }
    for (std::size_t q = 0; q < others.size(); ++q) {
      const double factor = s.at(others[q], k) / d;
      for (std::size_t p = q; p < others.size(); ++p)
        s.at(others[p], others[q]) -= factor * s.at(others[p], k);
    }
    for (const std::int64_t i : others) s.at(i, k) /= d;
    s.at(k, k) = -1.0 / d;
  }
}

/// Turns the order of rows and columns round: the element (i, j) of the lower triangle changes places with (n - 1 - j, n - 1 - i).
void turn_round(std::int64_t n, double* a)
{
  constexpr std::int64_t side = 32;
  const std::int64_t last = n - 1;
  for (std::int64_t j0 = 0; j0 < n; j0 += side) {
    for (std::int64_t i0 = j0; i0 < n - j0; i0 += side) {
      for (std::int64_t j = j0; j < std::min(j0 + side, n); ++j) {
        const std::int64_t end = std::min(i0 + side, last - j);  // each pair once
        for (std::int64_t i = std::max(i0, j); i < end; ++i) std::swap(a[i + j * n], a[last - j + (last - i) * n]);
      }
    }
  }
}

/// Factorises the square on the diagonal of the block that begins at b0.
void factor_square(SWEEP& s, std::int64_t b0, std::int64_t nb)
{
  double* w = s.a + b0 * (s.n + 1);
  double* x = s.panel.data();
  for (std::int64_t k = 0; k < nb; ++k) {
    double* column = w + k * s.n;
    const double d = column[k];
    if (!take_pivot(s, s.n - 1 - b0 - k, d)) {
      s.reciprocal[static_cast<std::size_t>(b0 + k)] = 0.0;
      std::fill(column + k + 1, column + nb, 0.0);
      continue;
    }
    const double by = 1.0 / d;
    s.reciprocal[static_cast<std::size_t>(b0 + k)] = by;
    for (std::int64_t i = k + 1; i < nb; ++i) {
      x[i] = column[i];
      column[i] *= by;
    }
    for (std::int64_t j = k + 1; j < nb; ++j) {
      for (std::int64_t i = j; i < nb; ++i) w[i + j * s.n] -= x[i] * column[j];
    }
  }
}

/// G = L D L': unit L below the diagonal.
void factorise(SWEEP& s)
{
  const std::int64_t n = s.n;
  for (std::int64_t b0 = 0; b0 < n; b0 += block_size) {
    const std::int64_t nb = std::min(block_size, n - b0);
    const std::int64_t b1 = b0 + nb;
    const std::int64_t below = n - b1;
    factor_square(s, b0, nb);
    if (below == 0) break;
    double* l = s.a + b1 + b0 * n;
    dtrsm('R', 'L', 'T', 'U', below, nb, 1.0, s.a + b0 * (n + 1), n, l, n);
    for (std::int64_t k = 0; k < nb; ++k) {
      const double by = s.reciprocal[static_cast<std::size_t>(b0 + k)];
      double* kept = s.panel.data() + k * below;
      for (std::int64_t i = 0; i < below; ++i) {
        kept[i] = by == 0.0 ? 0.0 : l[i + k * n];
        l[i + k * n] = kept[i] * by;
      }
    }
    for (std::int64_t j = 0; j < below; j += tile_size) {
      dgemm('N', 'T', below - j, std::min(tile_size, below - j), nb, -1.0, l + j, n, s.panel.data() + j, below, 1.0,
            s.a + (b1 + j) * (n + 1), n);
    }
  }
}

/// From N: -N' D^-1 N between rows with a pivot, -N between one without and one with.  Rows rise, so that those of N that are
/// overwritten are no longer needed.
void multiply_out(SWEEP& s)
{
  const std::int64_t n = s.n;
  for (std::int64_t i0 = 0; i0 < n; i0 += block_size) {
    const std::int64_t nb = std::min(block_size, n - i0);
    const std::int64_t m = n - i0;
    double* v = s.panel.data();   // N, its unit diagonal filled in
    double* w = s.scaled.data();  // D^-1 N
    for (std::int64_t c = 0; c < nb; ++c) {
      const double* column = s.a + i0 + (i0 + c) * n;
      std::fill_n(v + c * m, c, 0.0);
      v[c + c * m] = 1.0;
      std::copy(column + c + 1, column + m, v + c + 1 + c * m);
      for (std::int64_t k = 0; k < m; ++k) w[k + c * m] = v[k + c * m] * s.reciprocal[static_cast<std::size_t>(i0 + k)];
    }
    double* t = s.product.data();
    if (i0 > 0) dgemm('T', 'N', nb, i0, m, -1.0, w, m, s.a + i0, n, 0.0, t, nb);
    dgemm('T', 'N', nb, nb, m, -1.0, w, m, v, m, 0.0, t + i0 * nb, nb);
    for (std::int64_t j = 0; j < i0 + nb; ++j) {
      for (std::int64_t r = std::max<std::int64_t>(0, j - i0); r < nb; ++r) {
        double& x = s.a[i0 + r + j * n];
        if (s.reciprocal[static_cast<std::size_t>(i0 + r)] != 0.0) {
          x = t[r + j * nb];
        } else {
          x = j == i0 + r ? 0.0 : -x;
        }
      }
    }
  }
}

void sweep_by_factor(SWEEP& s)
{
  turn_round(s.n, s.a);
  factorise(s);
  dtrtri('L', 'U', s.n, s.a, s.n);
  multiply_out(s);
  turn_round(s.n, s.a);
}

}  // namespace

void L_SWEEP(ERROR_HANDLER& eh, std::int64_t n, double* a, double criterion, double floor, PIVOTS& pivots)
{
  const Frame here{eh, __func__};
  pivots = {};
  pivots.criterion = criterion;
  SWEEP s{n, a, {}, pivots, {}, {}, {}, {}};
  if (!assign(eh, s.tolerance, n) || !assign(eh, pivots.mark, n)) return;
  if (!attempt([&] { pivots.empty.assign(static_cast<std::size_t>(n), true); }))
    return eh.out_of_memory(n / 8);
  if (examine(s, criterion, floor) < few_elements && n > block_size) {
    if (!attempt([&] { sweep_by_rows(s); })) eh.out_of_memory();
    return;
  }
  const std::int64_t width = std::min(block_size, n);
  if (!assign(eh, s.reciprocal, n) || !assign(eh, s.panel, n * width) || !assign(eh, s.scaled, n * width) ||
      !assign(eh, s.product, n * width))
    return;
  sweep_by_factor(s);
}

}  // namespace tolvan
