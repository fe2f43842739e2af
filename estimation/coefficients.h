// The coefficient matrix of the mixed-model equations and its pattern.
//
// Three numberings are in use.  Model order: terms as the model lists them.  Inner order: the sparse
// equations first, in model order among themselves, then the dense ones (fixed effects), in model order.
// Elimination order: what the ordering makes of the inner order; it permutes the sparse equations and leaves
// the dense ones last and in place.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

namespace tolvan {

/// The pattern of a symmetric matrix in inner order: strictly lower triangle by columns, rows rising in a
/// column. The last `dense` equations are taken as joined to each other; those pairs need not be listed.
struct PATTERN {
  std::int64_t n = 0;
  std::int64_t dense = 0;
  std::vector<std::int64_t> start;  // n + 1
  std::vector<std::int32_t> row;
  std::vector<std::pair<std::int32_t, std::int32_t>> bound;  // Lagrangian equations, each with the one that it binds and must follow
};

/// C in elimination order: lower triangle by columns, the diagonal first in each column, rows rising.
struct COEFFICIENTS {
  std::int64_t n = 0;
  std::vector<std::int64_t> start;  // n + 1
  std::vector<std::int32_t> row;
  std::vector<double> value;

  double diagonal(std::int64_t p) const
  {
    return value[static_cast<std::size_t>(start[static_cast<std::size_t>(p)])];
  }
};

/// The pattern of the strictly lower triangle, the dense block left implied.
PATTERN pattern_of(const COEFFICIENTS& c, std::int64_t dense);
/// C renumbered by `position`, rows rising in each column.
COEFFICIENTS permute(const COEFFICIENTS& c, const std::vector<std::int32_t>& position);

/// A poll for a user's wish to stop, asked at most every 100 ms from the calling thread; true stops the work.
struct CANCEL {
  bool (*asked)(void* data) = nullptr;
  void* data = nullptr;
};

}  // namespace tolvan
