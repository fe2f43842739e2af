// Polynomials, splines and other functions of one number, from their definitions.
#include <algorithm>
#include <boost/math/special_functions/legendre.hpp>
#include <cmath>
#include <random>

#include <gtest/gtest.h>

#include "base/lapack.h"
#include "data/covariate_functions.h"
#include "data/polynomial_basis.h"
#include "data/spline_basis.h"

namespace tolvan {
namespace {

using Matrix = std::vector<std::vector<double>>;  // by rows

std::vector<double> points(int kind, std::size_t m)
{
  std::mt19937 random(static_cast<unsigned>(17 + m));
  std::vector<double> x;
  double at = kind == 1 ? 1990.0 : kind == 3 ? -1e-3 : 0.5;
  for (std::size_t i = 0; i < m; ++i) {
    x.push_back(at);
    const double u = static_cast<double>(random() % 1000U + 1U) / 1000.0;
    at += kind == 0 || kind == 1 ? 1.0 : kind == 2 ? u * u : 1e-5 * (u + 0.1);
  }
  return x;
}

/// The value at x of the polynomial through (t_i, v_i), by Neville's scheme.
double interpolated(std::span<const double> t, std::vector<double> v, double x)
{
  for (std::size_t step = 1; step < v.size(); ++step)
    for (std::size_t i = 0; i + step < v.size(); ++i)
      v[i] = ((x - t[i + step]) * v[i] - (x - t[i]) * v[i + 1]) / (t[i] - t[i + step]);
  return v[0];
}

TEST(PolynomialBasis, OrthonormalOnThePointsAndOfItsDegreeOffThem)
{
  for (int kind = 0; kind < 4; ++kind) {
    for (const std::size_t m : {1U, 2U, 3U, 5U, 12U, 30U, 200U}) {
      const std::vector<double> x = points(kind, m);
      const auto degree = static_cast<std::int64_t>(std::min<std::size_t>(m - 1, 15));
      DESIGN_BASIS basis;
      scale_to_unit_range(x.front(), x.back(), basis);
      if (m == 1) basis.half_range = 1.0;
      orthogonal_recursion(x, degree, basis);
      const auto columns = static_cast<std::size_t>(degree) + 1;
      Matrix P(m, std::vector<double>(columns));
      for (std::size_t i = 0; i < m; ++i) orthogonal_polynomials(basis, x[i], P[i]);
      double worst = 0.0;
      for (std::size_t j = 0; j < columns; ++j)
        for (std::size_t k = 0; k <= j; ++k) {
          double sum = 0.0;
          for (std::size_t i = 0; i < m; ++i) sum += P[i][j] * P[i][k];
          worst = std::max(worst, std::abs(sum - (j == k ? 1.0 : 0.0)));
        }
      EXPECT_LT(worst, 1e-12) << kind << ' ' << m;
      // p_j is settled by any j + 1 of its values; its leading coefficient is positive, so it ends above 0.
      std::vector<double> between(columns);
      const double middle = 0.5 * (x[m / 2] + x[m - 1]);
      orthogonal_polynomials(basis, middle, between);
      for (std::size_t j = 0; j < std::min<std::size_t>(columns, 7); ++j) {
        std::vector<double> t, v;
        for (std::size_t k = 0; k <= j; ++k) {
          t.push_back(x[k * (m - 1) / std::max<std::size_t>(j, 1)]);
          v.push_back(P[k * (m - 1) / std::max<std::size_t>(j, 1)][j]);
        }
        EXPECT_NEAR(interpolated(t, v, middle), between[j], 1e-8) << kind << ' ' << m << ' ' << j;
        EXPECT_GT(P[m - 1][j], 0.0);
      }
    }
  }
}

TEST(PolynomialBasis, KeepsItsDigitsUpToTheDegreeThatThePointsAllow)
{
  for (int kind = 0; kind < 4; ++kind) {
    for (const std::size_t m : {2U, 20U, 30U, 60U}) {
      const std::vector<double> x = points(kind, m);
      DESIGN_BASIS basis;
      scale_to_unit_range(x.front(), x.back(), basis);
      orthogonal_recursion(x, static_cast<std::int64_t>(m) - 1, basis);
      Matrix P(m, std::vector<double>(m));
      for (std::size_t i = 0; i < m; ++i) orthogonal_polynomials(basis, x[i], P[i]);
      double worst = 0.0;
      for (std::size_t j = 0; j < m; ++j)
        for (std::size_t k = 0; k <= j; ++k) {
          const double sum = ddot(static_cast<std::int64_t>(m), P[j].data(), 1, P[k].data(), 1);
          worst = std::max(worst, std::abs(sum - (j == k ? 1.0 : 0.0)));
        }
      EXPECT_LT(worst, 1e-12) << kind << ' ' << m;  // the rows of a square matrix with orthonormal columns are so, too
      // The last one is orthogonal to all polynomials of lower degree: it is 1 / prod_k (x_i - x_k) but for a factor, since
      // these weights give the divided difference of order m - 1.
      std::vector<double> last(m);
      double squares = 0.0;
      for (std::size_t i = 0; i < m; ++i) {
        double product = 1.0;
        for (std::size_t k = 0; k < m; ++k)
          if (k != i) product *= (x[i] - x[k]) / (x.back() - x.front()) * 4.0;
        last[i] = 1.0 / product;
      }
      double largest = 0.0;
      for (const double v : last) largest = std::max(largest, std::abs(v));
      for (double& v : last) {
        v /= largest;
        squares += v * v;
      }
      for (std::size_t i = 0; i < m; ++i)
        EXPECT_NEAR(P[i][m - 1], last[i] / std::sqrt(squares), 1e-9) << kind << ' ' << m << ' ' << i;
    }
  }
}

TEST(PolynomialBasis, LegendreAsBoostHasIt)
{
  DESIGN_BASIS basis;
  scale_to_unit_range(2.0, 12.0, basis);
  std::vector<double> p(31);
  for (const double x : {2.0, 2.1, 5.0, 7.0, 11.5, 12.0, 13.0}) {  // the last beyond the range
    legendre_polynomials(basis, x, p);
    const double u = (x - 7.0) / 5.0;
    for (int j = 0; j <= 30; ++j) {
      // Boost has no values beyond -1 to 1: the recursion of its Rodrigues form in long double.
      long double before = 0.0L, P = 1.0L;
      for (int n = 0; n < j; ++n) {
        const long double next = ((2 * n + 1) * static_cast<long double>(u) * P - n * before) / (n + 1);
        before = P;
        P = next;
      }
      const double expected = std::abs(u) <= 1.0 ? boost::math::legendre_p(j, u) : static_cast<double>(P);
      const double scale = std::sqrt((2.0 * j + 1.0) / 2.0);
      EXPECT_NEAR(p[static_cast<std::size_t>(j)], scale * expected, 1e-12 * std::max(1.0, std::abs(expected))) << x << ' ' << j;
    }
  }
}

/// Solves A X = B by elimination with row exchanges.
Matrix solve(Matrix A, Matrix B)
{
  const std::size_t n = A.size();
  for (std::size_t c = 0; c < n; ++c) {
    std::size_t best = c;
    for (std::size_t r = c; r < n; ++r)
      if (std::abs(A[r][c]) > std::abs(A[best][c])) best = r;
    std::swap(A[c], A[best]);
    std::swap(B[c], B[best]);
    for (std::size_t r = 0; r < n; ++r) {
      if (r == c) continue;
      const double factor = A[r][c] / A[c][c];
      for (std::size_t k = c; k < n; ++k) A[r][k] -= factor * A[c][k];
      for (std::size_t k = 0; k < B[r].size(); ++k) B[r][k] -= factor * B[c][k];
    }
  }
  for (std::size_t r = 0; r < n; ++r)
    for (double& b : B[r]) b /= A[r][r];
  return B;
}

Matrix product(const Matrix& A, const Matrix& B)
{
  Matrix C(A.size(), std::vector<double>(B[0].size(), 0.0));
  for (std::size_t i = 0; i < A.size(); ++i)
    for (std::size_t k = 0; k < B.size(); ++k)
      for (std::size_t j = 0; j < B[0].size(); ++j) C[i][j] += A[i][k] * B[k][j];
  return C;
}

Matrix transposed(const Matrix& A)
{
  Matrix T(A[0].size(), std::vector<double>(A.size()));
  for (std::size_t i = 0; i < A.size(); ++i)
    for (std::size_t j = 0; j < A[0].size(); ++j) T[j][i] = A[i][j];
  return T;
}

/// Q and R of a natural cubic spline, dense.
void spline_matrices(const std::vector<double>& t, Matrix& Q, Matrix& R)
{
  const std::size_t K = t.size();
  Q.assign(K, std::vector<double>(K - 2, 0.0));
  R.assign(K - 2, std::vector<double>(K - 2, 0.0));
  for (std::size_t j = 1; j + 1 < K; ++j) {
    const double h = t[j] - t[j - 1], next = t[j + 1] - t[j];
    Q[j - 1][j - 1] = 1.0 / h;
    Q[j][j - 1] = -1.0 / h - 1.0 / next;
    Q[j + 1][j - 1] = 1.0 / next;
    R[j - 1][j - 1] = (h + next) / 3.0;
    if (j + 2 < K) R[j - 1][j] = R[j][j - 1] = next / 6.0;
  }
}

TEST(SplineBasis, IsTheFactorOfTheInverseRoughness)
{
  for (int kind = 0; kind < 4; ++kind) {
    for (const std::size_t K : {3U, 4U, 5U, 12U, 40U}) {
      DESIGN_BASIS basis;
      basis.points = points(kind, K);
      spline_basis(basis);
      const std::size_t n = K - 2;
      ASSERT_EQ(basis.columns, static_cast<std::int64_t>(n));
      Matrix Z(K, std::vector<double>(n)), Q, R;
      double trace = 0.0;
      for (std::size_t i = 0; i < K; ++i) {
        AIXSPL(basis, basis.points[i], Z[i]);
        for (std::size_t j = 0; j < n; ++j) trace += Z[i][j] * Z[i][j];
      }
      EXPECT_NEAR(trace, static_cast<double>(K), 1e-10 * static_cast<double>(K));
      // No linear part, and K Z Z' K = c K with the roughness K = Q R^-1 Q'; R^-1 cancels: Q' Z Z' Q = c R.
      for (std::size_t j = 0; j < n; ++j) {
        double sum = 0.0, slope = 0.0;
        for (std::size_t i = 0; i < K; ++i) {
          sum += Z[i][j];
          slope += Z[i][j] * (basis.points[i] - basis.points[0]) / (basis.points[K - 1] - basis.points[0]);
        }
        EXPECT_NEAR(sum, 0.0, 1e-11);
        EXPECT_NEAR(slope, 0.0, 1e-11);
      }
      spline_matrices(basis.points, Q, R);
      const Matrix S = product(transposed(Q), Z);
      const Matrix SS = product(S, transposed(S));
      const double c = SS[0][0] / R[0][0];
      for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < n; ++j) EXPECT_NEAR(SS[i][j] / c, R[i][j], 1e-7 * R[i][i]) << kind << ' ' << K;
    }
  }
}

TEST(SplineBasis, IsANaturalCubicSplineBetweenAndOutsideItsKnots)
{
  for (int kind = 0; kind < 3; ++kind) {
    DESIGN_BASIS basis;
    basis.points = points(kind, 9);
    spline_basis(basis);
    const std::vector<double>& t = basis.points;
    Matrix Q, R, Z(9, std::vector<double>(7));
    for (std::size_t i = 0; i < 9; ++i) AIXSPL(basis, t[i], Z[i]);
    spline_matrices(t, Q, R);
    const Matrix inner = solve(R, product(transposed(Q), Z));  // second derivatives at the inner knots
    const auto second = [&](std::size_t i, std::size_t j) { return i == 0 || i == 8 ? 0.0 : inner[i - 1][j]; };
    std::vector<double> z(7);
    for (std::size_t i = 0; i + 1 < 9; ++i) {
      const double h = t[i + 1] - t[i];
      for (const double part : {0.0, 0.2, 0.5, 0.9}) {
        AIXSPL(basis, t[i] + part * h, z);
        for (std::size_t j = 0; j < 7; ++j) {
          // The cubic with these ends and second derivatives, as numerical textbooks write it.
          const double a = 1.0 - part, b = part;
          const double expected = a * Z[i][j] + b * Z[i + 1][j] +
                                  ((a * a * a - a) * second(i, j) + (b * b * b - b) * second(i + 1, j)) * h * h / 6.0;
          EXPECT_NEAR(z[j], expected, 1e-9) << kind << ' ' << i << ' ' << part;
        }
      }
    }
    // Outside it goes on along the tangent.
    std::vector<double> near(7), far(7), end(7);
    for (const double sign : {-1.0, 1.0}) {
      const double edge = sign < 0.0 ? t.front() : t.back();
      const double step = t[1] - t[0];
      AIXSPL(basis, edge + sign * step, near);
      AIXSPL(basis, edge + sign * 3.0 * step, far);
      AIXSPL(basis, edge - sign * 1e-6 * step, end);
      for (std::size_t j = 0; j < 7; ++j) {
        const double at = Z[sign < 0.0 ? 0 : 8][j];
        EXPECT_NEAR(far[j] - at, 3.0 * (near[j] - at), 1e-9);
        EXPECT_NEAR((at - end[j]) / 1e-6, near[j] - at, 2e-4 * (1.0 + std::abs(near[j] - at)));
      }
    }
  }
}

TEST(SplineBasis, MixedModelGivesThePenalisedFit)
{
  // Ridge on Z with a line unpenalised against (N'N + lambda Q R^-1 Q') g = N'y.
  std::mt19937 random(4);
  const std::vector<double> t = points(2, 14);
  Matrix Q, R;
  spline_matrices(t, Q, R);
  const Matrix K = product(Q, solve(R, transposed(Q)));
  DESIGN_BASIS basis;
  basis.points = t;
  spline_basis(basis);
  Matrix Z(14, std::vector<double>(12));
  for (std::size_t i = 0; i < 14; ++i) AIXSPL(basis, t[i], Z[i]);
  // The factor c of the scaling, from the trace: K Z Z' projects, c times, on 12 dimensions.
  const Matrix P = product(K, product(Z, transposed(Z)));
  double c = 0.0;
  for (std::size_t i = 0; i < 14; ++i) c += P[i][i] / 12.0;

  std::vector<std::size_t> knot;
  Matrix y;
  for (int r = 0; r < 60; ++r) {
    knot.push_back(random() % 14U);
    y.push_back({std::sin(3.0 * t[knot.back()]) + static_cast<double>(random() % 100U) / 100.0});
  }
  for (const double lambda : {0.001, 0.1, 5.0}) {
    Matrix A = K, b(14, {0.0});
    for (auto& row : A)
      for (double& a : row) a *= lambda;
    Matrix X;
    for (std::size_t r = 0; r < y.size(); ++r) {
      A[knot[r]][knot[r]] += 1.0;
      b[knot[r]][0] += y[r][0];
      X.push_back({1.0, t[knot[r]]});
      X.back().insert(X.back().end(), Z[knot[r]].begin(), Z[knot[r]].end());
    }
    const Matrix g = solve(A, b);
    Matrix C = product(transposed(X), X);
    for (std::size_t j = 2; j < 14; ++j) C[j][j] += lambda * c;
    const Matrix effects = solve(C, product(transposed(X), y));
    const Matrix fitted = product(X, effects);
    for (std::size_t r = 0; r < y.size(); ++r) EXPECT_NEAR(fitted[r][0], g[knot[r]][0], 1e-8) << lambda;
  }
}

TEST(CovariateFunctions, Definitions)
{
  using Kind = DesignKind;
  struct Row {
    Kind kind;
    double x, a, b, value;
  };
  const double pi2 = 6.283185308;
  const Row rows[] = {
      {Kind::pow, 3, 2, 1, 16},          {Kind::pow, 4, 0.5, 0, 2},          {Kind::sin, 3, 12, 0, std::sin(pi2 / 4)},
      {Kind::sin, 1.5, 0, 0, std::sin(1.5)}, {Kind::cos, 2, 12, 0, std::cos(pi2 / 6)}, {Kind::sqr, 9, 0, 0, 3},
      {Kind::exp, 2, 0, 0, std::exp(2.0)}, {Kind::inv, 4, 0, 0, 0.25},        {Kind::log, 5, 0, 0, std::log(5.0)},
      {Kind::abs, -2.5, 0, 0, 2.5},      {Kind::agt, 2, 1, 0, 1},            {Kind::agt, 1 + 5e-10, 1, 0, 0},
      {Kind::gt, 1 + 2e-9, 1, 0, 1},     {Kind::alt, 1, 2, 0, 1},            {Kind::lt, 1 - 5e-10, 1, 0, 0},
      {Kind::ge, 1 - 5e-10, 1, 0, 1},    {Kind::ge, 1 - 2e-9, 1, 0, 0},      {Kind::hs, 1, 1, 0, 1},
      {Kind::le, 1 + 5e-10, 1, 0, 1},    {Kind::le, 1 + 2e-9, 1, 0, 0},      {Kind::at, 3 - 5e-10, 3, 0, 1},
      {Kind::at, 3 + 2e-9, 3, 0, 0},
  };
  for (const Row& row : rows) {
    ASSERT_NE(covariate_function(row.kind), nullptr);
    EXPECT_NEAR(covariate_function(row.kind)(row.x, row.a, row.b), row.value, 1e-14) << static_cast<int>(row.kind) << ' ' << row.x;
  }
  EXPECT_FALSE(std::isfinite(covariate_function(Kind::pow)(-1, 0.5, 0)));
  EXPECT_FALSE(std::isfinite(covariate_function(Kind::log)(0, 0, 0)));
  EXPECT_EQ(covariate_function(Kind::pol), nullptr);
}

TEST(SplineBasis, Bisquare)
{
  DESIGN_BASIS basis;
  basis.points = equally_spaced(0.0, 8.0, 5);
  EXPECT_EQ(basis.points, (std::vector<double>{0, 2, 4, 6, 8}));
  std::vector<double> z(5);
  BISQUBASISFUN(basis, 3.0, z);  // r = 3
  const double near = std::pow(1.0 - 1.0 / 9.0, 2);
  const std::vector<double> expected{0, near, near, 0, 0};
  for (std::size_t j = 0; j < 5; ++j) EXPECT_NEAR(z[j], expected[j], 1e-15);
}

}  // namespace
}  // namespace tolvan
