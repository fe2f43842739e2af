// The node kernel: DSMINODEABS on the diagonal square, NOTRANS on the rows below it.
#include "estimation/supernode.h"

#include <algorithm>
#include <cmath>

#include "base/lapack.h"
#include "base/memory.h"

namespace tolvan {

namespace {

using std::int32_t;
using std::int64_t;

// Whether the column of a small pivot has a large entry below it.  The columns from `done` on of a row
// outside the present block have not been worked off yet: x = a L^-T as far as column j tells what stands in
// column j.
bool has_large_entry(const SNODE& node, const int32_t* rows, const double* panel, int64_t j,
                     int64_t block_begin, int64_t block_end, const PIVOT_RULE& rule, double* x)
{
  const int64_t ld = node.rows;
  const int64_t width = node.width();
  for (int64_t r = j + 1; r < node.rows; ++r) {
    double entry = panel[r + j * ld];
    if (r >= block_end) {
      const int64_t begin = r < width ? block_begin : 0;
      for (int64_t k = begin; k <= j; ++k) {
        double sum = panel[r + k * ld];
        for (int64_t l = begin; l < k; ++l) sum -= x[l] * panel[k + l * ld];
        x[k] = sum;
      }
      entry = x[j];
    }
    const double t = rule.tolerance[rows[r]];
    if (std::abs(entry) > t && std::abs(entry) > 0.001 && t > rule.t0) return true;
  }
  return false;
}

// The rule of singularity for the pivot of column j; true if it is accepted.
bool accept(const SNODE& node, const int32_t* rows, const double* panel, int64_t j, int64_t block_begin,
            int64_t block_end, PIVOT_RULE& rule, double* x)
{
  const int32_t position = node.first + static_cast<int32_t>(j);
  const double p = panel[j + j * node.rows];
  const double t = rule.tolerance[position];
  if (!std::isfinite(p)) {
    rule.not_finite = true;
    return false;
  }
  if (p == 0.0 || (rule.definite != nullptr && rule.definite[position] == 2)) return false;
  if (rule.flags != nullptr && (rule.flags[position] < 0 || p < t)) return false;
  if (std::abs(p) >= t) return true;
  if (rule.definite != nullptr && rule.definite[position] != 0) return false;
  if (std::abs(p) < 0.01 * t || p < -8.0 * t) return false;
  if (!has_large_entry(node, rows, panel, j, block_begin, block_end, rule, x)) return false;
  rule.report[position] = 1;
  if (p <= 0.1 * t || !rule.may_tighten) return false;
  if (!rule.in_order) {
    rule.contested = true;
    return false;
  }
  rule.report[position] = 2;
  rule.may_tighten = false;
  rule.t0 /= 10.0;
  return true;
}

}  // namespace

bool reserve_work(ERROR_HANDLER& eh, const FACTOR& factor, int threads, std::vector<NODE_WORK>& work)
{
  int64_t longest = 1, widest = 1;
  for (const SNODE& node : factor.nodes) {
    longest = std::max(longest, node.rows);
    widest = std::max<int64_t>(widest, node.width());
  }
  if (!resize(eh, work, threads)) return false;
  for (NODE_WORK& w : work) {
    if (!resize(eh, w.map, factor.n) || !resize(eh, w.places, longest) ||
        !resize(eh, w.product, std::min(longest, untiled_rows) * widest) ||
        !resize(eh, w.scaled, widest * widest) || !resize(eh, w.line, widest)) {
      return false;
    }
  }
  return true;
}

ROW_PLACES place_rows(const FACTOR& factor, int32_t s, NODE_WORK& work)
{
  const SNODE& node = factor.nodes[s];
  if (node.contiguous) return {nullptr, node.first};
  if (work.mapped != s) {
    const int32_t* row = factor.row_list.data() + node.row_list;
    for (int64_t r = 0; r < node.rows; ++r) work.map[row[r]] = static_cast<int32_t>(r);
    work.mapped = s;
  }
  return {work.map.data(), node.first};
}

void DSMINODEABS(const SNODE& node, const int32_t* rows, double* panel, PIVOT_RULE& rule, double* reciprocal,
                 NODE_WORK& work)
{
  const int64_t ld = node.rows;
  const int64_t width = node.width();
  for (int64_t begin = 0; begin < width; begin += block_columns) {
    const int64_t end = std::min(begin + block_columns, width);
    for (int64_t j = begin; j < end; ++j) {
      double* column = panel + j * ld;
      if (!accept(node, rows, panel, j, begin, end, rule, work.line.data())) {
        reciprocal[j] = 0.0;
        for (int64_t i = j + 1; i < end; ++i) column[i] = 0.0;
        continue;
      }
      const double d = column[j];
      reciprocal[j] = 1.0 / d;
      double* x = work.line.data();
      for (int64_t i = j + 1; i < end; ++i) {
        x[i] = column[i];
        column[i] *= reciprocal[j];
      }
      for (int64_t k = j + 1; k < end; ++k) {
        const double factor = column[k];
        double* to = panel + k * ld;
#pragma omp simd
        for (int64_t i = k; i < end; ++i) to[i] -= x[i] * factor;
      }
    }
    if (end == width) break;
    // The rest of the square: X = A L^-T, L = X D^-1, then A -= X L'.
    const int64_t below = width - end, done = end - begin;
    double* lower = panel + end + begin * ld;
    dtrsm('R', 'L', 'T', 'U', below, done, 1.0, panel + begin + begin * ld, ld, lower, ld);
    for (int64_t j = 0; j < done; ++j) {
      for (int64_t i = 0; i < below; ++i) {
        work.scaled[i + j * below] = lower[i + j * ld];
        lower[i + j * ld] *= reciprocal[begin + j];
      }
    }
    dgemm('N', 'T', below, below, done, -1.0, work.scaled.data(), below, lower, ld, 1.0,
          panel + end + end * ld, ld);
  }
}

void NOTRANS(const SNODE& node, double* panel, const double* reciprocal, int64_t begin, int64_t end)
{
  const int64_t ld = node.rows;
  const int64_t width = node.width();
  if (width > 2) {  // by columns of blocks, most of it through DGEMM
    for (int64_t j = 0; j < width; j += solve_columns) {
      const int64_t columns = std::min(solve_columns, width - j);
      double* x = panel + begin + j * ld;
      if (j > 0) dgemm('N', 'T', end - begin, columns, j, -1.0, panel + begin, ld, panel + j, ld, 1.0, x, ld);
      dtrsm('R', 'L', 'T', 'U', end - begin, columns, 1.0, panel + j + j * ld, ld, x, ld);
    }
  } else if (width == 2) {
    for (int64_t r = begin; r < end; ++r) panel[r + ld] -= panel[r] * panel[1];
  }
  for (int64_t j = 0; j < width; ++j) {
    for (int64_t r = begin; r < end; ++r) panel[r + j * ld] *= reciprocal[j];
  }
}

}  // namespace tolvan
