// Triangular factors seen as the covariance matrix that they make.  Routines: as_covariances, as_factors.
#include "estimation/factor_rows.h"

#include <cmath>

#include "base/lapack.h"

namespace tolvan {
namespace {

std::size_t packed(std::int64_t i, std::int64_t j)
{
  return static_cast<std::size_t>(i * (i + 1) / 2 + j);
}

/// n x n numbers by columns.
struct SQUARE {
  explicit SQUARE(std::int64_t order) : n(order), a(static_cast<std::size_t>(order * order), 0.0) {}
  double& operator()(std::int64_t i, std::int64_t j) { return a[static_cast<std::size_t>(i + j * n)]; }
  double operator()(std::int64_t i, std::int64_t j) const { return a[static_cast<std::size_t>(i + j * n)]; }
  std::int64_t n;
  std::vector<double> a;
};

SQUARE product(const SQUARE& x, const SQUARE& y, char transx, char transy)
{
  SQUARE out(x.n);
  dgemm(transx, transy, x.n, x.n, x.n, 1.0, x.a.data(), x.n, y.a.data(), x.n, 0.0, out.a.data(), x.n);
  return out;
}

/// V = L D L' by its factors, L unit lower triangular.
struct FACTORS {
  SQUARE l;
  std::vector<double> d;
};

/// The unit lower triangle and the diagonal of packed numbers.
FACTORS unpacked(std::int64_t n, const std::vector<double>& from, double unit)
{
  FACTORS out{SQUARE(n), std::vector<double>(static_cast<std::size_t>(n))};
  for (std::int64_t i = 0; i < n; ++i) {
    for (std::int64_t j = 0; j < i; ++j) out.l(i, j) = from[packed(i, j)];
    out.l(i, i) = unit;
    out.d[static_cast<std::size_t>(i)] = from[packed(i, i)];
  }
  return out;
}

SQUARE inverse_of(SQUARE unit_lower)
{
  dtrtri('L', 'U', unit_lower.n, unit_lower.a.data(), unit_lower.n);
  return unit_lower;
}

/// The rows of U' are those of L^-1: dL = -L dU' L and dD = -d(1/D)/D^2 lead from the steps of U and D to those of L and 1/D.
FACTORS step_of_lower(const FACTORS& at, const FACTORS& by)
{
  FACTORS out{product(product(at.l, by.l, 'N', 'N'), at.l, 'N', 'N'), by.d};
  for (double& x : out.l.a) x = -x;
  for (std::size_t j = 0; j < out.d.size(); ++j) out.d[j] *= -at.d[j] * at.d[j];
  return out;
}

/// S becomes K'S K, K the derivatives of U and D by L and 1/D: d(L^-1)_ji = -(L^-1)_ja dL_ac (L^-1)_ci.
void by_lower(const FACTORS& at, SQUARE& s)
{
  const std::int64_t n = at.l.n;
  const SQUARE u = inverse_of(at.l);  // U'
  SQUARE k(s.n);
  for (std::int64_t j = 0; j < n; ++j) {
    const double precision = 1.0 / at.d[static_cast<std::size_t>(j)];
    k(static_cast<std::int64_t>(packed(j, j)), static_cast<std::int64_t>(packed(j, j))) = -precision * precision;
    for (std::int64_t i = 0; i < j; ++i) {
      for (std::int64_t a = i + 1; a <= j; ++a) {
        for (std::int64_t c = i; c < a; ++c)
          k(static_cast<std::int64_t>(packed(j, i)), static_cast<std::int64_t>(packed(a, c))) = -u(j, a) * u(c, i);
      }
    }
  }
  s = product(product(k, s, 'T', 'N'), k, 'N', 'N');
}

/// The derivatives of the packed V by the packed L and D, lower triangular: V_ab = sum over c to b of L_ac D_c L_bc, b at most a.
SQUARE derivatives(const FACTORS& at)
{
  const std::int64_t n = at.l.n;
  SQUARE j(n * (n + 1) / 2);
  const auto place = [](std::int64_t a, std::int64_t b) { return static_cast<std::int64_t>(packed(a, b)); };
  for (std::int64_t a = 0; a < n; ++a) {
    for (std::int64_t b = 0; b <= a; ++b) {
      for (std::int64_t c = 0; c <= b; ++c) {
        const double d = at.d[static_cast<std::size_t>(c)];
        j(place(a, b), place(c, c)) += at.l(a, c) * at.l(b, c);
        if (c < a) j(place(a, b), place(a, c)) += d * at.l(b, c);
        if (c < b) j(place(a, b), place(b, c)) += d * at.l(a, c);
      }
    }
  }
  return j;
}

}  // namespace

bool as_covariances(bool of_precision, std::int64_t n, const std::vector<double>& value, const std::vector<double>& step,
                    const std::vector<double>& s, std::vector<double>& present, std::vector<double>& target,
                    std::vector<double>& information)
{
  FACTORS at = unpacked(n, value, 1.0);
  FACTORS by = unpacked(n, step, 0.0);
  for (const double d : at.d) {
    if (!(d > 0.0) || !std::isfinite(d)) return false;
  }
  SQUARE on_v(n * (n + 1) / 2);
  on_v.a = s;
  if (of_precision) {
    at.l = inverse_of(at.l);
    for (double& d : at.d) d = 1.0 / d;
    by = step_of_lower(at, by);
    by_lower(at, on_v);
  }
  for (std::int64_t i = 0; i < n; ++i) {
    for (std::int64_t j = 0; j <= i; ++j) {
      double v = 0.0, dv = 0.0;
      for (std::int64_t c = 0; c <= j; ++c) {
        const double d = at.d[static_cast<std::size_t>(c)];
        v += at.l(i, c) * d * at.l(j, c);
        dv += by.d[static_cast<std::size_t>(c)] * at.l(i, c) * at.l(j, c) + d * (by.l(i, c) * at.l(j, c) + at.l(i, c) * by.l(j, c));
      }
      present[packed(i, j)] = v;
      target[packed(i, j)] = v + dv;
    }
  }
  const SQUARE j = derivatives(at);
  dtrsm('L', 'L', 'T', 'N', j.n, j.n, 1.0, j.a.data(), j.n, on_v.a.data(), j.n);
  dtrsm('R', 'L', 'N', 'N', j.n, j.n, 1.0, j.a.data(), j.n, on_v.a.data(), j.n);
  information = std::move(on_v.a);
  for (const double x : information) {
    if (!std::isfinite(x)) return false;
  }
  return true;
}

std::vector<double> as_factors(bool of_precision, std::int64_t n, const std::vector<double>& v)
{
  SQUARE c(n);
  for (std::int64_t i = 0; i < n; ++i) {
    for (std::int64_t j = 0; j <= i; ++j) c(i, j) = v[packed(i, j)];
  }
  if (dpotrf('L', n, c.a.data(), n) != 0) return {};
  FACTORS out{SQUARE(n), std::vector<double>(static_cast<std::size_t>(n))};
  for (std::int64_t j = 0; j < n; ++j) {
    out.d[static_cast<std::size_t>(j)] = c(j, j) * c(j, j);
    for (std::int64_t i = j; i < n; ++i) out.l(i, j) = c(i, j) / c(j, j);
  }
  if (of_precision) {
    out.l = inverse_of(out.l);
    for (double& d : out.d) d = 1.0 / d;
  }
  std::vector<double> values(v.size());
  for (std::int64_t i = 0; i < n; ++i) {
    for (std::int64_t j = 0; j < i; ++j) values[packed(i, j)] = out.l(i, j);
    values[packed(i, i)] = out.d[static_cast<std::size_t>(i)];
  }
  return values;
}

}  // namespace tolvan
