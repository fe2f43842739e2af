#include "relmat/lagrangian_rows.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "base/lapack.h"
#include "base/memory.h"

namespace tolvan {
namespace {

double diagonal_of(const AINV_MTX& m, std::int64_t k)
{
  if (m.shape == Shape::dense) return m.values[static_cast<std::size_t>(k + k * m.order)];
  return m.values[static_cast<std::size_t>(
      m.shape == Shape::diagonal ? k : m.start[static_cast<std::size_t>(k)])];
}

/// The row that an inverse binds by a row at its end.
struct BINDING {
  std::int64_t row = -1;
  double size = 0.0;
  bool has_diagonal = true;

  void offer(std::int64_t candidate, double value, bool diagonal)
  {
    const double x = std::abs(value);
    if (x < size || x == 0.0 || (x == size && (diagonal || !has_diagonal))) return;
    row = candidate;
    size = x;
    has_diagonal = diagonal;
  }
};

}  // namespace

void L_FIND_LAGRANGIAN_ROWS(ERROR_HANDLER& eh, AINV_MTX& matrix)
{
  const Frame here{eh, __func__};
  const std::int64_t n = matrix.order;
  std::int64_t first = n;
  while (first > 0 && diagonal_of(matrix, first - 1) == 0.0) --first;
  std::vector<BINDING> bindings;
  if (!assign(eh, bindings, n - first)) return;
  const auto offer = [&](std::int64_t i, std::int64_t j, double x) {
    if (i >= first && j < first)
      bindings[static_cast<std::size_t>(i - first)].offer(j, x, diagonal_of(matrix, j) != 0.0);
  };
  for (std::int64_t j = 0; j < first; ++j) {
    for (std::int64_t i = first; i < n && matrix.shape == Shape::dense; ++i)
      offer(i, j, matrix.values[static_cast<std::size_t>(i + j * n)]);
    if (matrix.shape != Shape::sparse) continue;
    for (auto k = static_cast<std::size_t>(matrix.start[static_cast<std::size_t>(j)]);
         k < static_cast<std::size_t>(matrix.start[static_cast<std::size_t>(j) + 1]); ++k)
      offer(matrix.row[k], j, matrix.values[k]);
  }
  // Empty rows at the end are none; behind one of them nothing counts.
  const auto empty =
      std::find_if(bindings.rbegin(), bindings.rend(), [](const BINDING& each) { return each.row < 0; });
  matrix.lagrangian = empty - bindings.rbegin();
  if (!reserve(eh, matrix.bound, matrix.lagrangian)) return;
  for (auto each = bindings.end() - matrix.lagrangian; each != bindings.end(); ++each)
    matrix.bound.push_back(each->row);
}

void L_STRENGTHEN(ERROR_HANDLER& eh, AINV_MTX& matrix)
{
  const Frame here{eh, __func__};
  const std::int64_t m = matrix.lagrangian;
  const std::int64_t order = matrix.order;
  const std::int64_t n = order - m;
  const bool needed = std::any_of(matrix.bound.begin(), matrix.bound.end(),
                                  [&](std::int64_t row) { return diagonal_of(matrix, row) == 0.0; });
  if (matrix.shape != Shape::dense || !needed) return;
  double rho = std::numeric_limits<double>::max();
  for (std::int64_t k = 0; k < n; ++k) {
    const double d = std::abs(diagonal_of(matrix, k));
    if (d > 0.0) rho = std::min(rho, d);
  }
  if (rho == std::numeric_limits<double>::max()) rho = 1.0;
  double* a = matrix.values.data();
  dsyrk('L', 'T', n, m, rho, a + n, order, 1.0, a, order);  // the Lagrangian rows stand below the others
  for (std::int64_t j = 0; j < n; ++j) {
    for (std::int64_t i = j + 1; i < n; ++i) a[j + i * order] = a[i + j * order];
  }
}

}  // namespace tolvan
