// Steps of triangular factors in the elements of their covariance matrix.  Routine: K4MEMF.
//
// The factors of ante() and chol() are far from quadratic where levels nearly explain each other: a step of average information
// that is right for V overshoots in U and D.  As the factors are as many as the elements of V that they leave free, a step of them
// has an image in V, to first order V + dV, which is taken in its place.  Where that is not positive definite the expectation step
// for V is, if the factors can make any matrix, as for an unstructured one.
#include <algorithm>
#include <cmath>

#include "base/lapack.h"
#include "base/packed.h"
#include "estimation/em_updates.h"
#include "varstruct/covariance_models.h"
#include "varstruct/followers.h"

namespace tolvan {
namespace {

constexpr std::int64_t ante = 12;      // internal code of the model
constexpr double least_share = 1e-4;   // of a level's variance that those before it must leave unexplained

/// n x n numbers by columns.
struct SQUARE {
  explicit SQUARE(std::int64_t levels) : n(levels), a(static_cast<std::size_t>(levels * levels), 0.0) {}
  double& operator()(std::int64_t i, std::int64_t j) { return a[static_cast<std::size_t>(i + j * n)]; }
  double operator()(std::int64_t i, std::int64_t j) const { return a[static_cast<std::size_t>(i + j * n)]; }
  std::int64_t n;
  std::vector<double> a;
};

SQUARE product(const SQUARE& x, const SQUARE& y, char transx = 'N', char transy = 'N')
{
  SQUARE out(x.n);
  dgemm(transx, transy, x.n, x.n, x.n, 1.0, x.a.data(), x.n, y.a.data(), x.n, 0.0, out.a.data(), x.n);
  return out;
}

/// The unit triangle and the diagonal among packed parameters: L below the diagonal, or U above it.
struct FACTORS {
  SQUARE triangle;
  std::vector<double> d;
};

template <class Value>
FACTORS factors_of(std::int64_t n, bool upper, double unit, Value value)
{
  FACTORS out{SQUARE(n), std::vector<double>(static_cast<std::size_t>(n))};
  std::size_t k = 0;
  for (std::int64_t i = 0; i < n; ++i) {
    for (std::int64_t j = 0; j < i; ++j, ++k) (upper ? out.triangle(j, i) : out.triangle(i, j)) = value(k);
    out.triangle(i, i) = unit;
    out.d[static_cast<std::size_t>(i)] = value(k++);
  }
  return out;
}

/// T diag(d) S' for triangles T and S.
SQUARE between(const SQUARE& t, const std::vector<double>& d, const SQUARE& s)
{
  SQUARE scaled = t;
  for (std::int64_t j = 0; j < t.n; ++j) {
    for (std::int64_t i = 0; i < t.n; ++i) scaled(i, j) *= d[static_cast<std::size_t>(j)];
  }
  return product(scaled, s, 'N', 'T');
}

/// The first-order change of T D T' for changes of T and D.
SQUARE change_of(const FACTORS& at, const FACTORS& by)
{
  SQUARE out = between(at.triangle, by.d, at.triangle);
  const SQUARE half = between(by.triangle, at.d, at.triangle);
  for (std::int64_t j = 0; j < out.n; ++j) {
    for (std::int64_t i = 0; i < out.n; ++i) out(i, j) += half(i, j) + half(j, i);
  }
  return out;
}

bool inverse_of(SQUARE& a)
{
  if (dpotrf('L', a.n, a.a.data(), a.n) != 0 || dpotri('L', a.n, a.a.data(), a.n) != 0) return false;
  for (std::int64_t j = 0; j < a.n; ++j) {
    for (std::int64_t i = j + 1; i < a.n; ++i) a(j, i) = a(i, j);
  }
  return true;
}

/// T - V for the expectation step of ante(): T are the expected products of effects, a unit, of which the scores tell those within
/// the band.  From score = -(q/2) tr((T - V) d(V^-1)), level after level:
///     sum over a of (T - V)_ia U_aj = -score(U_ij) / (q D_j)      U_.j'(T - V) U_.j = -2 score(D_j) / q
SQUARE expected_ante(const FACTORS& at, const FACTORS& score, double units, std::int64_t band)
{
  const std::int64_t n = at.triangle.n;
  SQUARE m(n);
  for (std::int64_t j = 0; j < n; ++j) {
    const std::int64_t from = std::max<std::int64_t>(0, j - band);
    double whole = -2.0 * score.d[static_cast<std::size_t>(j)] / units;
    for (std::int64_t i = from; i < j; ++i) {
      double sum = 0.0;
      for (std::int64_t a = from; a < j; ++a) sum += m(i, a) * at.triangle(a, j);
      m(i, j) = m(j, i) = -score.triangle(i, j) / (units * at.d[static_cast<std::size_t>(j)]) - sum;
      whole -= at.triangle(i, j) * (2.0 * m(i, j) + sum);
    }
    m(j, j) = whole;
  }
  return m;
}

/// The derivative of LogL by the elements of V for chol() with all of its elements: with B = L'SL, L^-T B holds half the scores of L,
/// over D, below the diagonal and B those of D on it.
SQUARE derivative_chol(const FACTORS& at, const FACTORS& score)
{
  const std::int64_t n = at.triangle.n;
  SQUARE b(n);
  for (std::int64_t j = 0; j < n; ++j) {
    b(j, j) = score.d[static_cast<std::size_t>(j)];
    for (std::int64_t a = j + 1; a < n; ++a) {
      double sum = 0.0;
      for (std::int64_t i = a; i < n; ++i) sum += at.triangle(i, a) * score.triangle(i, j);
      b(a, j) = b(j, a) = sum / (2.0 * at.d[static_cast<std::size_t>(j)]);
    }
  }
  dtrsm('L', 'L', 'T', 'U', n, n, 1.0, at.triangle.a.data(), n, b.a.data(), n);
  dtrsm('R', 'L', 'N', 'U', n, n, 1.0, at.triangle.a.data(), n, b.a.data(), n);
  return b;
}

/// The packed factors of a matrix; false where a level has next to no variance of its own.
bool factorise(const SQUARE& v, bool of_precision, std::int64_t order, std::vector<double>& packed)
{
  const std::int64_t n = v.n;
  packed.clear();
  for (std::int64_t i = 0; i < n; ++i) {
    for (std::int64_t j = 0; j <= i; ++j) packed.push_back(v(i, j));
  }
  if (!std::all_of(packed.begin(), packed.end(), [](double x) { return std::isfinite(x); })) return false;
  const PackedLower<double> out{packed};
  if (of_precision) {
    if (!antedependence_from_covariance(n, order, packed)) return false;
    for (std::int64_t j = 0; j < n; ++j) {
      if (!(out(j + 1, j + 1) * v(j, j) * least_share < 1.0)) return false;
    }
    return true;
  }
  SQUARE c = v;
  if (dpotrf('L', n, c.a.data(), n) != 0) return false;
  for (std::int64_t j = 0; j < n; ++j) {
    out(j + 1, j + 1) = c(j, j) * c(j, j);
    if (!(out(j + 1, j + 1) > least_share * v(j, j))) return false;
    for (std::int64_t i = j + 1; i < n; ++i) out(i + 1, j + 1) = c(i, j) / c(j, j);
  }
  return true;
}

}  // namespace

bool K4MEMF(const FIT_MODEL& in, MIXED_EQUATIONS& q, const EVALUATION& ev, const EM_STATE::ROW& row, VARIANCE_MODEL& model,
            UPDATE_STATE& state, bool expectation, bool expanded)
{
  const std::int64_t n = row.levels;
  const bool upper = row.model == ante;
  const std::int64_t band = std::min(row.order, n - 1);
  const bool whole = band == n - 1;
  if (n < 2 || (!upper && !whole)) return false;
  // All elements within the band move, and none outside.
  std::vector<std::int64_t> place;  // among the active parameters, -1 outside the band
  for (std::int64_t i = 0; i < n; ++i) {
    for (std::int64_t j = 0; j <= i; ++j) {
      const std::int64_t p = row.first + i * (i + 1) / 2 + j;
      const VARIANCE_PARAMETER& v = model.parameters[static_cast<std::size_t>(p)];
      const auto at = std::lower_bound(ev.information.active.begin(), ev.information.active.end(), p);
      const bool active = at != ev.information.active.end() && *at == p;
      const bool inside = i - j <= band;
      if (inside ? !active || !is_free(v.constraint) || follows(v) : active || v.value != 0.0) return false;
      place.push_back(inside ? at - ev.information.active.begin() : -1);
    }
  }
  const auto from = static_cast<std::size_t>(row.first);
  const FACTORS old = factors_of(n, upper, 1.0, [&](std::size_t k) { return ev.evaluated[from + k]; });
  const FACTORS step = factors_of(n, upper, 0.0, [&](std::size_t k) { return model.parameters[from + k].value - ev.evaluated[from + k]; });
  SQUARE v = between(old.triangle, old.d, old.triangle);
  SQUARE next = change_of(old, step);
  if (upper) {  // of the inverse
    if (!inverse_of(v)) return false;
    next = product(product(v, next), v);
    for (double& x : next.a) x = -x;
  }
  for (std::size_t k = 0; k < next.a.size(); ++k) next.a[k] += v.a[k];

  std::vector<double> packed;
  bool by_expectation = false;
  if (!factorise(next, upper, band, packed)) {
    if (!expectation || !whole) return false;  // with a band expectation alone is too slow, and can not be expanded
    const FACTORS score = factors_of(n, upper, 0.0, [&](std::size_t k) {
      return place[k] < 0 ? 0.0 : ev.information.score[static_cast<std::size_t>(place[k])];
    });
    SQUARE d(n);  // derivative of LogL by V, where all of V is free
    if (upper) {
      SQUARE m = expected_ante(old, score, row.units, band);
      const SQUARE inverse = between(old.triangle, old.d, old.triangle);
      d = product(product(inverse, m), inverse);
      for (double& x : d.a) x *= 0.5 * row.units;
      next = v;
      for (std::size_t k = 0; k < next.a.size(); ++k) next.a[k] += m.a[k];
    } else {
      d = derivative_chol(old, score);
      K4MEMU(v.a, d.a, row.units, n, next.a);
    }
    std::vector<double> plain;
    if (!factorise(next, upper, band, plain)) plain.clear();
    packed = plain;
    if (expanded && row.structure >= 0) {
      std::vector<std::int64_t> levels(static_cast<std::size_t>(n));
      for (std::int64_t i = 0; i < n; ++i) levels[static_cast<std::size_t>(i)] = i;
      if (!K4MEMP(in, model, row, levels, q, ev, v.a, d.a, next.a) || !factorise(next, upper, band, packed)) packed = plain;
    }
    if (packed.empty()) return false;
    by_expectation = true;
  }
  for (std::size_t k = 0; k < packed.size(); ++k) {
    if (place[k] < 0) continue;
    VARIANCE_PARAMETER& p = model.parameters[from + k];
    const double before = ev.evaluated[from + k];
    p.value = packed[k];
    state.reference[from + k] = p.value;
    state.change[from + k] = before != 0.0 ? (p.value - before) / before : 0.0;
    state.largest_change = std::max(state.largest_change, std::fabs(state.change[from + k]));
  }
  return by_expectation;
}

}  // namespace tolvan
