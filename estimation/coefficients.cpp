// The pattern of a coefficient matrix, and its renumbering.
#include "estimation/coefficients.h"

#include <algorithm>

namespace tolvan {

PATTERN pattern_of(const COEFFICIENTS& c, std::int64_t dense)
{
  PATTERN p;
  p.n = c.n;
  p.dense = dense;
  p.start.assign(static_cast<std::size_t>(c.n) + 1, 0);
  p.row.reserve(c.row.size());
  for (std::int64_t j = 0; j < c.n; ++j) {
    if (j < c.n - dense) {
      const auto from = static_cast<std::size_t>(c.start[static_cast<std::size_t>(j)]) + 1;  // past the diagonal
      const auto to = static_cast<std::size_t>(c.start[static_cast<std::size_t>(j) + 1]);
      p.row.insert(p.row.end(), c.row.begin() + static_cast<std::ptrdiff_t>(from), c.row.begin() + static_cast<std::ptrdiff_t>(to));
    }
    p.start[static_cast<std::size_t>(j) + 1] = static_cast<std::int64_t>(p.row.size());
  }
  return p;
}

// Rows rise again because columns are filled in row order (two transpositions).
COEFFICIENTS permute(const COEFFICIENTS& c, const std::vector<std::int32_t>& position)
{
  const auto n = static_cast<std::size_t>(c.n);
  // First by rows: row max(p, q) receives (min, value); then by columns in rising row order.
  std::vector<std::int64_t> count(n + 1, 0);
  const auto ends = [&](std::size_t j, std::size_t k, std::int32_t& low, std::int32_t& high) {
    const std::int32_t a = position[j];
    const std::int32_t b = position[static_cast<std::size_t>(c.row[k])];
    low = std::min(a, b);
    high = std::max(a, b);
  };
  std::int32_t low = 0;
  std::int32_t high = 0;
  COEFFICIENTS out;
  out.n = c.n;
  out.start.assign(n + 1, 0);
  for (std::size_t j = 0; j < n; ++j) {
    for (auto k = static_cast<std::size_t>(c.start[j]); k < static_cast<std::size_t>(c.start[j + 1]); ++k) {
      ends(j, k, low, high);
      ++count[static_cast<std::size_t>(high) + 1];
      ++out.start[static_cast<std::size_t>(low) + 1];
    }
  }
  for (std::size_t j = 0; j < n; ++j) {
    count[j + 1] += count[j];
    out.start[j + 1] += out.start[j];
  }
  std::vector<std::int32_t> column(c.row.size());
  std::vector<double> value(c.row.size());
  std::vector<std::int64_t> next(count.begin(), count.end() - 1);
  for (std::size_t j = 0; j < n; ++j) {
    for (auto k = static_cast<std::size_t>(c.start[j]); k < static_cast<std::size_t>(c.start[j + 1]); ++k) {
      ends(j, k, low, high);
      const auto at = static_cast<std::size_t>(next[static_cast<std::size_t>(high)]++);
      column[at] = low;
      value[at] = c.value[k];
    }
  }
  out.row.resize(c.row.size());
  out.value.resize(c.row.size());
  next.assign(out.start.begin(), out.start.end() - 1);
  for (std::size_t i = 0; i < n; ++i) {
    for (auto k = static_cast<std::size_t>(count[i]); k < static_cast<std::size_t>(count[i + 1]); ++k) {
      const auto at = static_cast<std::size_t>(next[static_cast<std::size_t>(column[k])]++);
      out.row[at] = static_cast<std::int32_t>(i);
      out.value[at] = value[k];
    }
  }
  return out;
}

}  // namespace tolvan
