#include "varstruct/dense_correlations.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "base/lapack.h"

namespace tolvan::dense {

Matrix product(const Matrix& a, const Matrix& b)
{
  Matrix c(a.n);
  if (a.n > 0) dgemm('N', 'N', a.n, a.n, a.n, 1.0, a.a.data(), a.n, b.a.data(), a.n, 0.0, c.a.data(), a.n);
  return c;
}

Inverted inverted(const Matrix& r)
{
  const std::int64_t n = r.n;
  Matrix u = r;
  Values w(static_cast<std::size_t>(n)), work;
  std::vector<std::int32_t> iwork;
  dsyevd('V', 'L', n, u.a.data(), n, w.data(), work, iwork);
  Inverted out;
  Matrix scaled(n);
  for (std::int64_t j = 0; j < n; ++j) {
    out.log_determinant += std::log(w[static_cast<std::size_t>(j)]);
    for (std::int64_t i = 0; i < n; ++i) scaled(i, j) = u(i, j) / w[static_cast<std::size_t>(j)];
  }
  out.inverse = Matrix(n);
  if (n > 0) dgemm('N', 'T', n, n, n, 1.0, scaled.a.data(), n, u.a.data(), n, 0.0, out.inverse.a.data(), n);
  out.condition = n > 0 ? w.back() / w.front() : 1.0;
  if (n > 0 && !(w.front() > 0.0)) out.condition = std::numeric_limits<double>::infinity();
  return out;
}

double uniform(Random& random, double from, double to)
{
  return std::uniform_real_distribution<double>(from, to)(random);
}

COORDINATES scatter(std::int64_t n, int dimensions, Random& random)
{
  COORDINATES at;
  if (dimensions == 0) return at;
  double x = 0.0;
  for (std::int64_t i = 0; i < n; ++i) {
    if (dimensions == 1) {
      at.x.push_back(x += uniform(random, 0.6, 1.4));
    } else {  // about the points of a grid
      at.x.push_back(static_cast<double>(i % 4) + uniform(random, -0.2, 0.2));
      at.y.push_back(static_cast<double>(i / 4) + uniform(random, -0.2, 0.2));
    }
  }
  std::shuffle(at.x.begin(), dimensions == 1 ? at.x.end() : at.x.begin(), random);
  return at;
}

namespace {

Matrix by_lag(std::int64_t n, const std::function<double(std::int64_t)>& lag)
{
  Values values;
  for (std::int64_t l = 0; l < n; ++l) values.push_back(lag(l));
  Matrix r(n);
  for (std::int64_t i = 0; i < n; ++i)
    for (std::int64_t j = 0; j < n; ++j) r(i, j) = values[static_cast<std::size_t>(std::abs(i - j))];
  return r;
}

// Series as sums of innovations: x_t = sum psi_k e_{t-k}, so that gamma_l = sum psi_k psi_{k+l}.  psi runs
// until it is negligible.
Values innovation_weights(const Values& ar, const Values& ma)
{
  Values psi{1.0};
  for (std::size_t k = 1; k < 1500; ++k) {
    double x = k <= ma.size() ? -ma[k - 1] : 0.0;
    for (std::size_t j = 1; j <= std::min(k, ar.size()); ++j) x += ar[j - 1] * psi[k - j];
    psi.push_back(x);
  }
  return psi;
}

Matrix series(std::int64_t n, const Values& ar, const Values& ma, bool correlation)
{
  const Values psi = innovation_weights(ar, ma);
  const auto gamma = [&](std::int64_t l) {
    double sum = 0.0;
    for (std::size_t k = 0; k + static_cast<std::size_t>(l) < psi.size(); ++k)
      sum += psi[k] * psi[k + static_cast<std::size_t>(l)];
    return sum;
  };
  const double divisor = correlation ? gamma(0) : 1.0;
  return by_lag(n, [&](std::int64_t l) { return gamma(l) / divisor; });
}

// The coefficients phi of 1 - phi_1 B - ... as the product of (1 - root B).
Values from_roots(const Values& roots)
{
  Values c{1.0};
  for (const double root : roots) {
    Values next = c;
    next.push_back(0.0);
    for (std::size_t k = 0; k < c.size(); ++k) next[k + 1] -= root * c[k];
    c = next;
  }
  Values phi;
  for (std::size_t k = 1; k < c.size(); ++k) phi.push_back(-c[k]);
  return phi;
}

Matrix by_pair(const COORDINATES& at, std::int64_t n, const std::function<double(double, double)>& value)
{
  Matrix r(n);
  for (std::int64_t i = 0; i < n; ++i) {
    for (std::int64_t j = 0; j <= i; ++j) {
      const auto a = static_cast<std::size_t>(i), b = static_cast<std::size_t>(j);
      r(i, j) = r(j, i) = i == j ? 1.0 : value(at.x[a] - at.x[b], at.y.empty() ? 0.0 : at.y[a] - at.y[b]);
    }
  }
  return r;
}

std::function<Matrix(std::int64_t, const Values&, const COORDINATES&)> of_points(
    std::function<double(double, double, const Values&)> value)
{
  return [=](std::int64_t n, const Values& t, const COORDINATES& at) {
    return by_pair(at, n, [&](double dx, double dy) { return value(dx, dy, t); });
  };
}

std::function<Values(std::int64_t, Random&)> between(const std::vector<std::pair<double, double>>& ranges)
{
  return [=](std::int64_t, Random& random) {
    Values t;
    for (const auto& [from, to] : ranges) t.push_back(uniform(random, from, to));
    return t;
  };
}

// A valid sequence of lag correlations, from partial ones.
Values draw_bands(std::int64_t n, Random& random)
{
  Values r{1.0}, c;
  for (std::int64_t m = 1; m < n; ++m) {
    const double w = uniform(random, -0.6, 0.6);
    double v = 1.0, mean = 0.0;
    for (std::size_t j = 0; j < c.size(); ++j) {
      v -= c[j] * r[j + 1];
      mean += c[j] * r[r.size() - 1 - j];
    }
    r.push_back(mean + w * v);
    const Values old = c;
    for (std::size_t j = 0; j < c.size(); ++j) c[j] = old[j] - w * old[c.size() - 1 - j];
    c.push_back(w);
  }
  return {r.begin() + 1, r.end()};
}

// Correlations of n sums of n + 2 random numbers.
Values draw_pairs(std::int64_t n, Random& random)
{
  std::vector<Values> rows;
  for (std::int64_t i = 0; i < n; ++i) {
    Values row;
    double square = 0.0;
    for (std::int64_t k = 0; k < n + 2; ++k) row.push_back(uniform(random, -1.0, 1.0));
    for (const double x : row) square += x * x;
    for (double& x : row) x /= std::sqrt(square);
    rows.push_back(row);
  }
  Values r;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    for (std::size_t j = 0; j < i; ++j) {
      double sum = 0.0;
      for (std::size_t k = 0; k < rows[i].size(); ++k) sum += rows[i][k] * rows[j][k];
      r.push_back(sum);
    }
  }
  return r;
}

double spherical(double u)
{
  return u < 1.0 ? 1.0 - 1.5 * u + 0.5 * u * u * u : 0.0;
}

// The overlap of two discs, as a share of one; what it lacks of 1 is taken with the engine's own, rounded
// 2/pi.
double circular(double u)
{
  if (u >= 1.0) return 0.0;
  const double lack = M_PI / 2.0 - (std::acos(u) - u * std::sqrt(1.0 - u * u));
  return 1.0 - 0.6366197722844561 * lack;
}

double linear(double u)
{
  return u < 1.0 ? 1.0 - u : 0.0;
}

// K_nu(z), the integral of exp(-z cosh t) cosh(nu t) over t above 0: the trapezoid rule is exact to rounding
// here.
double bessel_k(double nu, double z)
{
  const double step = 0.04;
  double sum = 0.5 * std::exp(-z);
  for (double t = step; z * std::cosh(t) < 745.0; t += step)
    sum += std::exp(-z * std::cosh(t)) * std::cosh(nu * t);
  return step * sum;
}

double matern(double dx, double dy, const Values& t)
{
  const double phi = t[0], nu = t.size() > 1 ? t[1] : 0.5, delta = t.size() > 2 ? t[2] : 1.0;
  const double alpha = t.size() > 3 ? t[3] : 0.0, lambda = t.size() > 4 ? t[4] : 2.0;
  const double u = dx * std::cos(alpha) + dy * std::sin(alpha),
               v = dy * std::cos(alpha) - dx * std::sin(alpha);
  const double z = std::pow(delta * std::pow(std::fabs(u), lambda) + std::pow(std::fabs(v), lambda) / delta,
                            1.0 / lambda) /
                   phi;
  return 2.0 / std::tgamma(nu) * std::pow(z / 2.0, nu) * bessel_k(nu, z);
}

std::vector<Model> make_models()
{
  const auto hyp = [](double x, double y) { return std::hypot(x, y); };
  std::vector<Model> out;
  for (const bool correlation : {true, false}) {
    const std::int64_t scale = correlation ? 0 : 1;
    const std::string end = correlation ? "" : " on the innovation scale";
    const auto ar = [=](std::int64_t n, const Values& t, const COORDINATES&) {
      return series(n, t, {}, correlation);
    };
    const auto sar = [=](std::int64_t n, const Values& t, const COORDINATES&) {
      return series(n, from_roots(t.size() == 1 ? Values{t[0] / 2, t[0] / 2} : Values{t[0], t[1], t[1]}), {},
                    correlation);
    };
    const auto ma = [=](std::int64_t n, const Values& t, const COORDINATES&) {
      return series(n, {}, t, correlation);
    };
    const auto arma = [=](std::int64_t n, const Values& t, const COORDINATES&) {
      return series(n, {t[0]}, {t[1]}, correlation);
    };
    const auto roots = [](std::size_t count) {
      return [=](std::int64_t, Random& random) {
        Values r;
        for (std::size_t k = 0; k < count; ++k) r.push_back(uniform(random, -0.8, 0.8));
        return from_roots(r);
      };
    };
    out.push_back({"ar1" + end, 1, 1, scale, 1, ar, between({{-0.95, 0.95}}), 0, false});
    out.push_back({"ar2" + end, 1, 1, scale, 2, ar, roots(2), 0, false});
    out.push_back({"ar3" + end, 1, 1, scale, 3, ar, roots(3), 0, false});
    out.push_back({"sar" + end, 14, 8, scale, 1, sar, between({{-0.99, 0.99}}), 0, false});
    out.push_back({"sar2" + end, 14, 8, scale, 2, sar, between({{-0.8, 0.8}, {-0.8, 0.8}}), 0, false});
    out.push_back({"ma1" + end, 2, 2, scale, 1, ma, between({{-0.95, 0.95}})});
    out.push_back({"ma2" + end, 2, 2, scale, 2, ma, roots(2)});
    out.push_back({"arma" + end, 3, 3, scale, 2, arma, between({{0.1, 0.9}, {-0.9, 0.0}})});
  }
  out.push_back({"cor", 5, 4, 0, 1,
                 [](std::int64_t n, const Values& t, const COORDINATES&) {
                   return by_lag(n, [&](std::int64_t l) { return l == 0 ? 1.0 : t[0]; });
                 },
                 [](std::int64_t n, Random& random) {
                   return Values{uniform(random, n > 1 ? -0.9 / static_cast<double>(n - 1) : -0.9, 0.95)};
                 }});
  out.push_back({"corb", 5, 5, 0, 0,
                 [](std::int64_t n, const Values& t, const COORDINATES&) {
                   return by_lag(
                       n, [&](std::int64_t l) { return l == 0 ? 1.0 : t[static_cast<std::size_t>(l - 1)]; });
                 },
                 draw_bands});
  out.push_back({"corg", 5, 6, 0, 0,
                 [](std::int64_t n, const Values& t, const COORDINATES&) {
                   Matrix r(n);
                   std::size_t k = 0;
                   for (std::int64_t i = 0; i < n; ++i) {
                     r(i, i) = 1.0;
                     for (std::int64_t j = 0; j < i; ++j) r(i, j) = r(j, i) = t[k++];
                   }
                   return r;
                 },
                 draw_pairs});

  const auto power = [](auto distance) {
    return of_points([=](double x, double y, const Values& t) { return std::pow(t[0], distance(x, y)); });
  };
  const auto city = [](double x, double y) { return std::fabs(x) + std::fabs(y); };
  const auto square = [](double x, double y) { return x * x + y * y; };
  out.push_back({"exp", 6, 10, 1, 1, power(city), between({{0.01, 0.9}}), 1});
  out.push_back({"gau", 6, 11, 2, 1, power(square), between({{0.01, 0.6}}), 1});
  out.push_back({"euc", 6, 9, 3, 1, power(hyp), between({{0.01, 0.9}}), 1});
  out.push_back({"iexp", 6, 12, 1, 1, power(city), between({{0.01, 0.9}}), 2});
  out.push_back({"igau", 6, 13, 2, 1, power(square), between({{0.01, 0.5}}), 2});
  out.push_back({"ieuc", 6, 14, 3, 1, power(hyp), between({{0.01, 0.9}}), 2});
  out.push_back({"aexp", 6, 16, 1, 2, of_points([](double x, double y, const Values& t) {
                   return std::pow(t[0], std::fabs(x)) * std::pow(t[1], std::fabs(y));
                 }),
                 between({{0.05, 0.9}, {0.05, 0.9}}), 2});
  out.push_back({"agau", 6, 17, 2, 2, of_points([](double x, double y, const Values& t) {
                   return std::pow(t[0], x * x) * std::pow(t[1], y * y);
                 }),
                 between({{0.05, 0.5}, {0.05, 0.5}}), 2});
  const auto range = [&](double (*f)(double)) {
    return of_points([=](double x, double y, const Values& t) {
      return (t.size() > 1 ? t[1] : 1.0) * f(std::hypot(x, y) / t[0]);
    });
  };
  const auto slope = of_points([](double x, double y, const Values& t) {
    return (t.size() > 1 ? t[1] : 1.0) * linear(std::hypot(x, y) * t[0]);
  });
  for (const int d : {1, 2}) {
    const std::string in = d == 1 ? " on a line" : " in the plane";
    out.push_back({"sph" + in, 6, 15, 4, 1, range(spherical), between({{0.8, 4.0}}), d});
    out.push_back(
        {"sph with sill" + in, 6, 15, 4, 2, range(spherical), between({{0.8, 4.0}, {0.3, 0.95}}), d});
    out.push_back({"cir" + in, 6, 22, 5, 1, range(circular), between({{0.8, 4.0}}), d});
    out.push_back(
        {"cir with sill" + in, 6, 22, 5, 2, range(circular), between({{0.8, 4.0}, {0.3, 0.95}}), d});
    // a straight line is a covariance in one dimension only: short ranges in the plane
    out.push_back({"lvr" + in, 6, 19, 7, 1, range(linear), between({{0.8, d == 1 ? 5.0 : 1.2}}), d});
    out.push_back({"lvr with sill" + in, 6, 19, 7, 2, range(linear), between({{0.8, 1.2}, {0.3, 0.95}}), d});
    out.push_back({"lin" + in, 6, 18, 6, 1, slope, between({{d == 1 ? 0.2 : 0.8, 1.2}}), d});
    out.push_back({"lin with sill" + in, 6, 18, 6, 2, slope, between({{0.8, 1.2}, {0.3, 0.95}}), d});
    out.push_back({"matern phi" + in, 6, 23, 9, 1, of_points(matern), between({{0.3, 2.0}}), d});
    out.push_back({"matern nu" + in, 6, 23, 9, 2, of_points(matern), between({{0.3, 1.0}, {0.1, 2.2}}), d});
  }
  out.push_back(
      {"matern delta", 6, 23, 9, 3, of_points(matern), between({{0.3, 1.0}, {0.3, 1.6}, {0.3, 3.0}}), 2});
  out.push_back({"matern alpha", 6, 23, 9, 4, of_points(matern),
                 between({{0.3, 1.0}, {0.3, 1.6}, {0.3, 3.0}, {-3.0, 3.0}}), 2});
  out.push_back({"matern city block", 6, 23, 9, 5, of_points(matern),
                 between({{0.3, 1.0}, {0.3, 0.5}, {0.5, 2.0}, {-3.0, 3.0}, {1.0, 1.0}}), 2});
  out.push_back({"matern euclidean", 6, 23, 9, 5, of_points(matern),
                 between({{0.3, 1.0}, {0.3, 1.6}, {0.5, 2.0}, {-3.0, 3.0}, {2.0, 2.0}}), 2});
  return out;
}

}  // namespace

const std::vector<Model>& models()
{
  static const std::vector<Model> all = make_models();
  return all;
}

}  // namespace tolvan::dense
