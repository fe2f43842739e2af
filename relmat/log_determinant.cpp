#include "relmat/log_determinant.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "base/lapack.h"
#include "base/memory.h"
#include "base/text.h"
#include "estimation/factor.h"
#include "estimation/order_equations.h"

namespace tolvan {
namespace {

/// The rows without any element, and those that come last: with a zero diagonal but some elements, and groups.
struct ODD_ROWS {
  std::vector<bool> empty, bound;
  std::int64_t empties = 0, bounds = 0;
  std::int64_t lagrangian = 0;  // of those that come last: with a zero diagonal
};

template <class Visit>
void each_element(const SYMMETRIC& a, Visit&& visit)  // of the lower triangle, column after column
{
  for (std::int64_t j = 0; j < a.n; ++j) {
    if (a.shape == Shape::diagonal) visit(j, j, a.values[j]);
    for (std::int64_t i = j; i < a.n && a.shape == Shape::dense; ++i) visit(i, j, a.values[i + j * a.n]);
    if (a.shape != Shape::sparse) continue;
    for (std::int64_t k = a.start[j]; k < a.start[j + 1]; ++k) visit(a.row[k], j, a.values[k]);
  }
}

/// L_FIND_ODD_ROWS: sorts out the rows with a zero diagonal and the groups.
void L_FIND_ODD_ROWS(ERROR_HANDLER& eh, const SYMMETRIC& a, std::int64_t groups, ODD_ROWS& odd)
{
  const Frame here{eh, __func__};
  const auto n = static_cast<std::size_t>(a.n);
  const bool room = attempt([&] {
    odd.empty.assign(n, true);
    odd.bound.assign(n, true);
  });
  if (!room) return eh.out_of_memory(a.n / 4);
  each_element(a, [&](std::int64_t i, std::int64_t j, double x) {
    if (x == 0.0) return;
    odd.empty[static_cast<std::size_t>(i)] = odd.empty[static_cast<std::size_t>(j)] = false;
    if (i == j) odd.bound[static_cast<std::size_t>(i)] = false;
  });
  for (std::size_t k = 0; k < n; ++k) {
    if (odd.empty[k]) odd.bound[k] = false;
    odd.lagrangian += odd.bound[k] ? 1 : 0;
    if (!odd.empty[k] && static_cast<std::int64_t>(k) < groups) odd.bound[k] = true;
    odd.empties += odd.empty[k] ? 1 : 0;
    odd.bounds += odd.bound[k] ? 1 : 0;
  }
}

/// L_DENSE_FORM: factorises in the triangle that is free: the lower one keeps the matrix.
void L_DENSE_FORM(ERROR_HANDLER& eh, const SYMMETRIC& a, double* values, double criterion, PIVOTS& pivots)
{
  const Frame here{eh, __func__};
  const std::int64_t n = a.n;
  std::vector<double> diagonal;
  if (!assign(eh, diagonal, n)) return;
  for (std::int64_t k = 0; k < n; ++k) diagonal[static_cast<std::size_t>(k)] = values[k + k * n];
  const auto restore = [&](bool lower) {
    for (std::int64_t j = 0; j < n; ++j) {
      values[j + j * n] = diagonal[static_cast<std::size_t>(j)];
      for (std::int64_t i = j + 1; i < n; ++i)
        (lower ? values[i + j * n] : values[j + i * n]) = lower ? values[j + i * n] : values[i + j * n];
    }
  };
  const bool positive = dpotrf('U', n, values, n) == 0;
  bool sound = positive;
  for (std::int64_t k = 0; k < n && positive; ++k) {
    const double pivot = values[k + k * n];
    sound = sound && pivot * pivot >= std::abs(diagonal[static_cast<std::size_t>(k)]) * criterion;
    pivots.log_determinant += 2.0 * std::log(pivot);
  }
  restore(false);
  if (sound) return;
  pivots = {};
  L_SWEEP(eh, n, values, criterion, 0.0, pivots);  // uses the lower triangle
  if (!eh.terminate()) restore(true);
}

/// The elements below the diagonal between two rows that are numbered, by columns with rows rising.
struct NUMBERED_ELEMENTS {
  PATTERN pattern;
  std::vector<double> value, diagonal;
};

/// L_GATHER: takes out of a matrix what stands between the rows that have a number.
void L_GATHER(ERROR_HANDLER& eh, const SYMMETRIC& a, const std::vector<std::int32_t>& number, std::int64_t n,
              NUMBERED_ELEMENTS& out)
{
  const Frame here{eh, __func__};
  const auto each_pair = [&](auto&& visit) {
    each_element(a, [&](std::int64_t i, std::int64_t j, double x) {
      const std::int32_t p = number[static_cast<std::size_t>(i)];
      const std::int32_t q = number[static_cast<std::size_t>(j)];
      if (i != j && x != 0.0 && p >= 0 && q >= 0)
        visit(static_cast<std::size_t>(std::max(p, q)), static_cast<std::size_t>(std::min(p, q)), x);
    });
  };
  // A counting sort by rows and then by columns.
  std::vector<std::int64_t> row_start, to;
  std::vector<std::int32_t> column;
  std::vector<double> by_row;
  out.pattern.n = n;
  if (!assign(eh, row_start, n + 1) || !assign(eh, out.pattern.start, n + 1) || !assign(eh, to, n) ||
      !assign(eh, out.diagonal, n))
    return;
  each_pair([&](std::size_t i, std::size_t j, double) {
    ++row_start[i + 1];
    ++out.pattern.start[j + 1];
  });
  for (std::size_t k = 1; k < row_start.size(); ++k) {
    row_start[k] += row_start[k - 1];
    out.pattern.start[k] += out.pattern.start[k - 1];
  }
  const std::int64_t elements = row_start.back();
  if (!assign(eh, column, elements) || !assign(eh, by_row, elements) ||
      !assign(eh, out.pattern.row, elements) || !assign(eh, out.value, elements))
    return;
  std::copy(row_start.begin(), row_start.end() - 1, to.begin());
  each_pair([&](std::size_t i, std::size_t j, double x) {
    const auto at = static_cast<std::size_t>(to[i]++);
    column[at] = static_cast<std::int32_t>(j);
    by_row[at] = x;
  });
  std::copy(out.pattern.start.begin(), out.pattern.start.end() - 1, to.begin());
  for (std::size_t i = 0; i < static_cast<std::size_t>(n); ++i) {
    for (auto k = static_cast<std::size_t>(row_start[i]); k < static_cast<std::size_t>(row_start[i + 1]);
         ++k) {
      const auto at = static_cast<std::size_t>(to[static_cast<std::size_t>(column[k])]++);
      out.pattern.row[at] = static_cast<std::int32_t>(i);
      out.value[at] = by_row[k];
    }
  }
  each_element(a, [&](std::int64_t i, std::int64_t j, double x) {
    const std::int32_t p = number[static_cast<std::size_t>(i)];
    if (i == j && p >= 0) out.diagonal[static_cast<std::size_t>(p)] = x;
  });
}

/// L_FACTORISE: orders and factorises what was gathered, by supernodes.
void L_FACTORISE(ERROR_HANDLER& eh, const NUMBERED_ELEMENTS& m, double criterion, FACTOR& factor,
                 ABSORBED& absorbed)
{
  const Frame here{eh, __func__};
  std::vector<std::int32_t> order;
  K4MEORB(eh, m.pattern, order);
  if (eh.terminate()) return;
  SYMBOLICABS2(eh, m.pattern, order, factor);
  if (eh.terminate()) return;

  // The same matrix, in the order of elimination and with its diagonal: gathered once more.
  SYMMETRIC whole{Shape::sparse, m.pattern.n, 0, 1.0, nullptr, nullptr, nullptr};
  COEFFICIENTS c;
  c.n = m.pattern.n;
  std::vector<std::int64_t> start;
  std::vector<std::int32_t> row;
  std::vector<double> value;
  const std::int64_t elements = std::ssize(m.value) + c.n;
  if (!assign(eh, start, c.n + 1) || !reserve(eh, row, elements) || !reserve(eh, value, elements)) return;
  const auto with_diagonal = [](const NUMBERED_ELEMENTS& from, std::vector<std::int64_t>& s,
                                std::vector<std::int32_t>& r, std::vector<double>& v) {
    for (std::size_t j = 0; j < from.diagonal.size(); ++j) {
      r.push_back(static_cast<std::int32_t>(j));
      v.push_back(from.diagonal[j]);
      const auto begin = from.pattern.start[j];
      const auto end = from.pattern.start[j + 1];
      r.insert(r.end(), from.pattern.row.begin() + begin, from.pattern.row.begin() + end);
      v.insert(v.end(), from.value.begin() + begin, from.value.begin() + end);
      s[j + 1] = std::ssize(r);
    }
  };
  with_diagonal(m, start, row, value);
  whole.values = value.data();
  whole.start = start.data();
  whole.row = row.data();
  NUMBERED_ELEMENTS ordered;
  L_GATHER(eh, whole, factor.position, c.n, ordered);
  if (eh.terminate() || !assign(eh, c.start, c.n + 1) || !reserve(eh, c.row, elements) ||
      !reserve(eh, c.value, elements))
    return;
  with_diagonal(ordered, c.start, c.row, c.value);

  ABSORB_CONTROL control;
  control.t0 = criterion;
  control.floor = 0.0;
  control.default_tolerance = false;
  K4MXXAIL(eh, c, control, factor, absorbed);
}

/// L_BOUND_ROWS: what the rows that come last add, from the eigenvalues of S = C_bb - C_ba C_aa^-1 C_ab: the
/// diagonal of a Lagrangian row is 0.
void L_BOUND_ROWS(ERROR_HANDLER& eh, const SYMMETRIC& a, const ODD_ROWS& odd,
                  const std::vector<std::int32_t>& number, const FACTOR& factor, double criterion,
                  PIVOTS& pivots)
{
  const Frame here{eh, __func__};
  const std::int64_t m = odd.bounds;
  const std::int64_t n = factor.n;
  std::vector<std::int32_t> bound_number;
  std::vector<double> s, columns, solved;
  if (!assign(eh, bound_number, a.n, -1) || !assign(eh, s, m * m) || !assign(eh, columns, n * m) ||
      !assign(eh, solved, n * m))
    return;
  std::int32_t next = 0;
  for (std::size_t k = 0; k < bound_number.size(); ++k) bound_number[k] = odd.bound[k] ? next++ : -1;
  each_element(a, [&](std::int64_t i, std::int64_t j, double x) {
    const std::int64_t bi = bound_number[static_cast<std::size_t>(i)];
    const std::int64_t bj = bound_number[static_cast<std::size_t>(j)];
    if (bi >= 0 && bj >= 0) {
      s[static_cast<std::size_t>(bi + bj * m)] = s[static_cast<std::size_t>(bj + bi * m)] = x;
    } else if (bi >= 0 || bj >= 0) {
      const std::int32_t other = number[static_cast<std::size_t>(bi >= 0 ? j : i)];
      if (other >= 0)
        columns[static_cast<std::size_t>(factor.position[static_cast<std::size_t>(other)] +
                                         std::max(bi, bj) * n)] = x;
    }
  });
  double largest = 0.0;
  for (std::int64_t k = 0; k < m; ++k) largest = std::max(largest, std::abs(s[static_cast<std::size_t>(k * m + k)]));
  if (n > 0) {
    std::copy(columns.begin(), columns.end(), solved.begin());
    SMIFWD(factor, solved.data(), m, 1);
    SMIBCK(factor, solved.data(), m, 1);
    dgemm('T', 'N', m, m, n, -1.0, columns.data(), n, solved.data(), n, 1.0, s.data(), m);
  }
  std::vector<double> w, work;
  std::vector<std::int32_t> iwork;
  if (!assign(eh, w, m)) return;
  if (dsyevd('N', 'L', m, s.data(), m, w.data(), work, iwork) != 0)
    return eh.error("issue calculating the log determinant");
  largest = std::max({largest, std::abs(w.front()), std::abs(w.back())});
  for (const double each : w) {
    const bool singular = std::abs(each) <= criterion * largest;
    pivots.singular += singular ? 1 : 0;
    pivots.negative += !singular && each < 0.0 ? 1 : 0;
    pivots.log_determinant += singular ? 0.0 : std::log(std::abs(each));
  }
}

/// L_ALT_NOT_DENSE_FORM: factorises the rows with a diagonal of their own by supernodes, and the bound ones
/// behind them.
void L_ALT_NOT_DENSE_FORM(ERROR_HANDLER& eh, const SYMMETRIC& a, const ODD_ROWS& odd, double criterion,
                          PIVOTS& pivots)
{
  const Frame here{eh, __func__};
  std::vector<std::int32_t> number;
  if (!assign(eh, number, a.n, -1)) return;
  std::int32_t next = 0;
  for (std::size_t k = 0; k < number.size(); ++k) number[k] = odd.empty[k] || odd.bound[k] ? -1 : next++;
  FACTOR factor;
  if (next > 0) {
    NUMBERED_ELEMENTS elements;
    ABSORBED absorbed;
    L_GATHER(eh, a, number, next, elements);
    if (eh.terminate()) return;
    L_FACTORISE(eh, elements, criterion, factor, absorbed);
    if (eh.terminate()) return;
    pivots.log_determinant = absorbed.log_determinant;
    pivots.singular = absorbed.singular;
    pivots.negative = absorbed.negative;
  }
  if (odd.bounds > 0) L_BOUND_ROWS(eh, a, odd, number, factor, criterion, pivots);
}

}  // namespace

void K4MLD7(ERROR_HANDLER& eh, const SYMMETRIC& a, double* values, std::int64_t precision,
            std::int64_t groups, PIVOTS& pivots)
{
  const Frame here{eh, __func__};
  pivots = {};
  const double criterion = singularity_criterion(precision);
  ODD_ROWS odd;
  L_FIND_ODD_ROWS(eh, a, groups, odd);
  if (eh.terminate()) return;
  if (a.shape == Shape::diagonal) {
    for (std::int64_t k = 0; k < a.n; ++k) {
      if (a.values[k] != 0.0) pivots.log_determinant += std::log(std::abs(a.values[k]));
      pivots.negative += a.values[k] < 0.0 ? 1 : 0;
    }
  } else if (a.shape == Shape::dense && odd.bounds + odd.empties == 0) {
    L_DENSE_FORM(eh, a, values, criterion, pivots);
  } else {
    L_ALT_NOT_DENSE_FORM(eh, a, odd, criterion, pivots);
  }
  pivots.criterion = criterion;
  pivots.zero_rows = odd.empties;
  if (eh.terminate() || !std::isfinite(pivots.log_determinant)) {
    eh.error("issue calculating the log determinant");
    return;
  }
  eh.note(text("GIV matrix of order ", a.n, " has LogDet ", trim(edit(pivots.log_determinant, "F20.4"))));
  if (pivots.negative + pivots.singular == 0) return;
  eh.continuation(text(pivots.negative, " negative pivots and ", pivots.singular, " singularities"));
  // A Lagrangian row has a negative pivot of its own by right.
  if (pivots.negative > odd.lagrangian)
    eh.warning("negative pivots may result in a non-positive definite AI matrix and poor convergence");
}

}  // namespace tolvan
