// The sweep of a dense symmetric matrix, by blocks.  Routine: L_SWEEP.
//
// One block B of rows after the other, the last first, with R all other rows and S = A_BB^-1:
//     A_RR <- A_RR - A_RB S A_BR        A_RB <- A_RB S        A_BB <- -S
// Within a block rows are swept one by one, and those without a pivot keep out of S.  Each block costs a
// product of the whole triangle with a panel: together the flops of a Cholesky factor and the inverse from
// it.
#include <algorithm>
#include <cmath>

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
  std::vector<double> panel;    // n x block: the columns of the rows in hand before their sweep
  std::vector<double> swept;    // n x block: panel times S
  std::vector<double> block;    // block x block, both triangles
  std::vector<double> inverse;  // S, 0 for rows without a pivot

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

/// Row after row on the whole matrix, for one that is nearly diagonal; the blocks' twin.
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

/// Sweeps the rows of the block in hand, that begins at b0, among themselves.
void sweep_block(SWEEP& s, std::int64_t b0, std::int64_t nb)
{
  double* w = s.block.data();
  for (std::int64_t k = nb - 1; k >= 0; --k) {
    const double d = w[k + k * nb];
    if (!take_pivot(s, b0 + k, d)) {
      for (std::int64_t i = 0; i < nb; ++i) {
        if (i <= k || !s.has_pivot(b0 + i)) w[i + k * nb] = w[k + i * nb] = 0.0;
      }
      continue;
    }
    for (std::int64_t j = 0; j < nb; ++j) {
      const double factor = w[k + j * nb] / d;
      if (j == k || factor == 0.0) continue;
      for (std::int64_t i = 0; i < nb; ++i) {
        if (i != k) w[i + j * nb] -= factor * w[i + k * nb];
      }
    }
    for (std::int64_t i = 0; i < nb; ++i) {
      if (i != k) w[i + k * nb] = w[k + i * nb] /= d;
    }
    w[k + k * nb] = -1.0 / d;
  }
}

void sweep_by_blocks(SWEEP& s)
{
  const std::int64_t n = s.n;
  for (std::int64_t b1 = n; b1 > 0; b1 = (b1 - 1) / block_size * block_size) {
    const std::int64_t b0 = (b1 - 1) / block_size * block_size;
    const std::int64_t nb = b1 - b0;
    double* panel = s.panel.data();
    double* swept = s.swept.data();

    // Get the columns of the block; its own rows of the panel stay 0, so that the update leaves them alone.
    for (std::int64_t k = 0; k < nb; ++k) {
      const double* row = s.a + b0 + k;
      for (std::int64_t i = 0; i < b0; ++i) panel[i + k * n] = row[i * n];
      std::fill(panel + b0 + k * n, panel + b1 + k * n, 0.0);
      std::copy(s.a + b1 + (b0 + k) * n, s.a + n + (b0 + k) * n, panel + b1 + k * n);
      for (std::int64_t i = 0; i < nb; ++i)
        s.block[static_cast<std::size_t>(i + k * nb)] = s.at(b0 + i, b0 + k);
    }
    sweep_block(s, b0, nb);
    for (std::int64_t k = 0; k < nb; ++k) {
      for (std::int64_t i = 0; i < nb; ++i) {
        const bool both = s.has_pivot(b0 + i) && s.has_pivot(b0 + k);
        s.inverse[static_cast<std::size_t>(i + k * nb)] =
            both ? -s.block[static_cast<std::size_t>(i + k * nb)] : 0.0;
      }
    }

    // Update the triangle in tiles of columns; where the rank is used up there is nothing to update.
    bool any = false;
    for (std::int64_t k = b0; k < b1; ++k) any = any || s.has_pivot(k);
    if (any) dgemm('N', 'N', n, nb, nb, 1.0, panel, n, s.inverse.data(), nb, 0.0, swept, n);
    for (std::int64_t j = 0; j < n && any; j += tile_size) {
      const std::int64_t width = std::min(tile_size, n - j);
      dgemm('N', 'T', n - j, width, nb, -1.0, swept + j, n, panel + j, n, 1.0, s.a + j + j * n, n);
    }

    // A row u without a pivot: A_Ru <- A_Ru - A_RK A_KK^-1 A_Ku for the rows R with one, 0 for those to come
    // and those without.
    for (std::int64_t u = 0; u < nb; ++u) {
      if (s.has_pivot(b0 + u)) continue;
      double* column = swept + u * n;
      std::copy(panel + u * n, panel + (u + 1) * n, column);
      for (std::int64_t k = 0; k < nb; ++k) {
        const double b = s.has_pivot(b0 + k) ? s.block[static_cast<std::size_t>(u + k * nb)] : 0.0;
        if (b != 0.0) daxpy(n, -b, panel + k * n, 1, column, 1);
      }
      std::fill(column, column + b0, 0.0);
      for (std::int64_t i = b1; i < n; ++i) {
        if (!s.has_pivot(i)) column[i] = 0.0;
      }
    }

    // Put the block and its columns back.
    for (std::int64_t k = 0; k < nb; ++k) {
      double* row = s.a + b0 + k;
      for (std::int64_t i = 0; i < b0; ++i) row[i * n] = swept[i + k * n];
      std::copy(swept + b1 + k * n, swept + n + k * n, s.a + b1 + (b0 + k) * n);
      for (std::int64_t i = k; i < nb; ++i)
        s.a[b0 + i + (b0 + k) * n] = s.block[static_cast<std::size_t>(i + k * nb)];
    }
  }
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
  if (examine(s, criterion, floor) < few_elements) {
    if (!attempt([&] { sweep_by_rows(s); })) eh.out_of_memory();
    return;
  }
  const std::int64_t width = std::min(block_size, n);
  if (!assign(eh, s.panel, n * width) || !assign(eh, s.swept, n * width) ||
      !assign(eh, s.block, width * width) || !assign(eh, s.inverse, width * width))
    return;
  sweep_by_blocks(s);
}

}  // namespace tolvan
