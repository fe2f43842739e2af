#include "relmat/reduce_inverse.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <queue>
#include <utility>

#include "base/memory.h"
#include "base/numbers.h"
#include "base/text.h"
#include "data/finish_levels.h"
#include "relmat/match_levels.h"

namespace tolvan {
namespace {

struct NEIGHBOUR {
  std::int32_t row;
  double value;
};

/// The matrix while rows leave it: of each row the others it has an element with, rising.
struct ROWS_LEFT {
  std::vector<std::vector<NEIGHBOUR>> near;
  std::vector<double> diagonal;
  std::vector<NEIGHBOUR> merged;  // work space
};

/// L_SPREAD: writes a sparse or diagonal matrix out by rows, both triangles.
void L_SPREAD(ERROR_HANDLER& eh, const AINV_MTX& matrix, ROWS_LEFT& to)
{
  const Frame here{eh, __func__};
  const auto n = static_cast<std::size_t>(matrix.order);
  const bool room = attempt([&] {
    to.near.resize(n);
    if (matrix.shape == Shape::diagonal) to.diagonal = matrix.values;
    to.diagonal.resize(n);
    // Columns rise, and rows within a column: each list comes out in order.
    for (std::size_t j = 0; j < n && matrix.shape == Shape::sparse; ++j) {
      const auto begin = static_cast<std::size_t>(matrix.start[j]);
      const auto end = static_cast<std::size_t>(matrix.start[j + 1]);
      to.diagonal[j] = matrix.values[begin];
      for (std::size_t k = begin + 1; k < end; ++k)
        to.near[static_cast<std::size_t>(matrix.row[k])].push_back({static_cast<std::int32_t>(j), matrix.values[k]});
    }
    for (std::size_t j = 0; j < n && matrix.shape == Shape::sparse; ++j) {
      for (auto k = static_cast<std::size_t>(matrix.start[j]) + 1; k < static_cast<std::size_t>(matrix.start[j + 1]); ++k)
        to.near[j].push_back({matrix.row[k], matrix.values[k]});
    }
  });
  if (!room) eh.out_of_memory();
}

/// Takes row i out of its neighbour j: a_jk -= a_ij a_ik / a_ii.
void leave(ROWS_LEFT& m, const std::vector<NEIGHBOUR>& of_i, std::int32_t i, NEIGHBOUR j, double pivot)
{
  const double factor = j.value / pivot;
  std::vector<NEIGHBOUR>& old = m.near[static_cast<std::size_t>(j.row)];
  m.merged.clear();
  auto at = old.begin();
  for (const NEIGHBOUR& k : of_i) {
    for (; at != old.end() && at->row < k.row; ++at) {
      if (at->row != i) m.merged.push_back(*at);
    }
    const bool both = at != old.end() && at->row == k.row;
    if (k.row != j.row) m.merged.push_back({k.row, (both ? at->value : 0.0) - factor * k.value});
    if (both) ++at;
  }
  for (; at != old.end(); ++at) {
    if (at->row != i) m.merged.push_back(*at);
  }
  m.diagonal[static_cast<std::size_t>(j.row)] -= factor * j.value;
  old.assign(m.merged.begin(), m.merged.end());
}

/// L_ELIMINATE: takes the rows out that are not kept; gives the log determinant of their part, A^rr.
double L_ELIMINATE(ERROR_HANDLER& eh, const std::vector<bool>& keep, ROWS_LEFT& m)
{
  const Frame here{eh, __func__};
  double logdet = 0.0;
  const bool room = attempt([&] {
    using Entry = std::pair<std::size_t, std::int32_t>;  // how many neighbours, row
    std::priority_queue<Entry, std::vector<Entry>, std::greater<>> waiting;
    const auto count = [&](std::int32_t i) { return m.near[static_cast<std::size_t>(i)].size(); };
    for (std::int32_t i = 0; i < static_cast<std::int32_t>(keep.size()); ++i) {
      if (!keep[static_cast<std::size_t>(i)]) waiting.emplace(count(i), i);
    }
    std::vector<bool> gone(keep.size(), false);
    while (!waiting.empty()) {
      const auto [then, i] = waiting.top();
      waiting.pop();
      const auto k = static_cast<std::size_t>(i);
      if (gone[k]) continue;
      if (then != count(i)) {  // it has got or lost some since it was put here
        waiting.emplace(count(i), i);
        continue;
      }
      gone[k] = true;
      const double pivot = m.diagonal[k];
      if (!(pivot > 0.0)) {
        eh.error(text("the inverse relationship matrix can not be reduced: row ", i + 1, " has the pivot ", pivot));
        return;
      }
      logdet += std::log(pivot);
      std::vector<NEIGHBOUR> of_i;
      of_i.swap(m.near[k]);
      for (const NEIGHBOUR& j : of_i) {
        leave(m, of_i, i, j, pivot);
        if (!keep[static_cast<std::size_t>(j.row)] && count(j.row) < then) waiting.emplace(count(j.row), j.row);
      }
    }
  });
  if (!room) eh.out_of_memory();
  return logdet;
}

/// Keeps the elements of an array by row that has as many as there are rows, or none.
template <class T>
void cut_down(std::vector<T>& a, const std::vector<bool>& keep)
{
  if (a.size() != keep.size()) return;
  std::size_t to = 0;
  for (std::size_t k = 0; k < keep.size(); ++k) {
    if (!keep[k]) continue;
    if (to != k) a[to] = std::move(a[k]);
    ++to;
  }
  a.resize(to);
}

/// L_GATHER_KEPT: the rows that stay, by columns with the diagonal first.
void L_GATHER_KEPT(ERROR_HANDLER& eh, const std::vector<bool>& keep, ROWS_LEFT& left, AINV_MTX& matrix)
{
  const Frame here{eh, __func__};
  const bool room = attempt([&] {
    std::vector<std::int32_t> number(keep.size(), -1);
    std::int32_t next = 0;
    for (std::size_t k = 0; k < keep.size(); ++k) number[k] = keep[k] ? next++ : -1;
    matrix.start.assign(1, 0);
    matrix.row.clear();
    matrix.values.clear();
    for (std::size_t j = 0; j < keep.size(); ++j) {
      if (!keep[j]) continue;
      matrix.row.push_back(number[j]);
      matrix.values.push_back(left.diagonal[j]);
      for (const NEIGHBOUR& each : left.near[j]) {
        const std::int32_t row = number[static_cast<std::size_t>(each.row)];
        if (row <= number[j]) continue;
        matrix.row.push_back(row);
        matrix.values.push_back(each.value);
      }
      matrix.start.push_back(std::ssize(matrix.row));
      std::vector<NEIGHBOUR>().swap(left.near[j]);
    }
    cut_down(matrix.labels, keep);
    cut_down(matrix.inbreeding, keep);
    matrix.shape = Shape::sparse;
    matrix.order = next;
  });
  if (!room) eh.out_of_memory();
}

/// L_FIND_KEPT: the variables that the model ties to a pedigree, and of its rows the groups and those that
/// the data name; gives how many of the latter there are.
std::int64_t L_FIND_KEPT(ERROR_HANDLER& eh, const AINV_MTXS& store, const AINV_MTX& matrix, const FACTOR_TABLE& factors,
                         const DATA_STORE& data, std::vector<bool>& tied, std::vector<bool>& keep)
{
  const Frame here{eh, __func__};
  std::int64_t kept = 0;
  const bool room = attempt([&] {
    keep.assign(static_cast<std::size_t>(matrix.order), false);
    std::fill_n(keep.begin(), matrix.groups, true);
    for (const FACTOR_ROW& factor : factors.rows) {
      const AINV_MTX* of = factor.variable > 0 ? matrix_of(store, factor) : nullptr;
      if (of != nullptr && of->pedigree_of == matrix.pedigree_of && of->order == matrix.order)
        tied[static_cast<std::size_t>(factor.variable - 1)] = true;
    }
  });
  if (!room) {
    eh.out_of_memory();
    return 0;
  }
  for (std::int64_t i = 0; i < data.records(); ++i) {
    const std::span<const double> row = data.row(i);
    for (std::size_t v = 0; v < tied.size(); ++v) {
      if (!tied[v] || is_no_value(row[v])) continue;
      const auto level = static_cast<std::int64_t>(row[v]);
      if (level <= matrix.groups || level > matrix.order || keep[static_cast<std::size_t>(level - 1)]) continue;
      keep[static_cast<std::size_t>(level - 1)] = true;
      ++kept;
    }
  }
  DST_CHECK(eh, data);
  return kept;
}

/// L_RENUMBER: gives the tied variables the labels of the rows that stay, and their numbers in the data.
void L_RENUMBER(ERROR_HANDLER& eh, const AINV_MTX& matrix, const std::vector<bool>& tied, const std::vector<bool>& keep,
                VARIABLE_TABLE& variables, DATA_STORE& data)
{
  const Frame here{eh, __func__};
  LEVEL_MAP to;
  std::vector<const LEVEL_MAP*> maps;
  const LEVEL_MAP as_they_are;
  const bool room = attempt([&] {
    to.assign(keep.size() + 1, 0);
    std::int64_t next = 0;
    for (std::size_t k = 0; k < keep.size(); ++k) to[k + 1] = keep[k] ? ++next : 0;
    for (const bool each : tied) maps.push_back(each ? &to : &as_they_are);
  });
  if (!room) return eh.out_of_memory();
  REORDD(eh, maps, data);
  for (std::size_t v = 0; v < tied.size() && !eh.terminate(); ++v) {
    if (tied[v]) L_TAKE_LEVELS(eh, matrix.labels, variables.rows[v]);
  }
}

}  // namespace

void REDUCEAI(ERROR_HANDLER& eh, const std::vector<bool>& keep, AINV_MTX& matrix)
{
  const Frame here{eh, __func__};
  if (std::ssize(keep) != matrix.order || matrix.shape == Shape::dense) {
    eh.internal(text("the matrix ", matrix.name, " is not of the kind that can be reduced"));
    return;
  }
  ROWS_LEFT left;
  L_SPREAD(eh, matrix, left);
  if (eh.terminate()) return;
  const double logdet = L_ELIMINATE(eh, keep, left);
  if (eh.terminate()) return;
  matrix.log_determinant += logdet;
  L_GATHER_KEPT(eh, keep, left, matrix);
  if (!eh.terminate()) AMTX_FINISH_OFF(eh, matrix);
}

bool REDUCE_PEDIGREES(ERROR_HANDLER& eh, AINV_MTXS& store, const FACTOR_TABLE& factors, VARIABLE_TABLE& variables,
                      DATA_STORE& data)
{
  const Frame here{eh, __func__};
  bool any = false;
  for (const AINV_MTX& pedigree : store.matrices) {
    if (!pedigree.reduce) continue;
    std::vector<bool> tied, keep;
    if (!attempt([&] { tied.assign(variables.rows.size(), false); })) {
      eh.out_of_memory();
      return any;
    }
    const std::int64_t before = pedigree.order;
    const std::int64_t kept = L_FIND_KEPT(eh, store, pedigree, factors, data, tied, keep);
    if (eh.terminate()) return any;
    if (kept == 0) {
      eh.note(
          "reducing the inverse relationship matrix would result in zeroindividuals being used. No reduction will "
          "therefore be done");  // sic
      continue;
    }
    if (kept + pedigree.groups == before) continue;
    for (AINV_MTX& each : store.matrices) {  // its dominance relationships too
      if (each.pedigree_of != pedigree.pedigree_of || each.order != before) continue;
      REDUCEAI(eh, keep, each);
      if (eh.terminate()) return any;
    }
    L_RENUMBER(eh, pedigree, tied, keep, variables, data);
    if (eh.terminate()) return any;
    eh.note(text("the inverse relationship matrix was reduced to the ", kept, " of ", before - pedigree.groups,
                 " individuals with data"));
    any = true;
  }
  return any;
}

}  // namespace tolvan
