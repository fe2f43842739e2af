// The models whose parameters are elements or factors of a covariance matrix: everything that an evaluation
// takes from a formed component, against dense matrices made from the definitions, derivatives by central
// differences.
#include "varstruct/covariance_models.h"

#include "base/lapack.h"
#include "base/packed.h"
#include "base/text.h"
#include "support/checks.h"
#include "varstruct/dense_reference.h"
#include "varstruct/extended_factors.h"
#include "varstruct/one_row.h"

namespace tolvan {
namespace {

/// A model of one row, with its values drawn in the parameter space and R from its definition.
struct MODEL_CASE {
  std::string name;
  std::int64_t model, levels, order;
  std::function<Vector(Dice&)> draw;
  std::function<Dense(const Vector&)> matrix;
};
void PrintTo(const MODEL_CASE& c, std::ostream* out)
{
  *out << c.name;
}

double at(const Vector& theta, std::int64_t k)
{
  return theta[static_cast<std::size_t>(k)];
}

Dense from_packed(const Vector& theta, std::int64_t n)
{
  Dense v(n, n);
  for (std::int64_t i = 0; i < n; ++i) {
    for (std::int64_t j = 0; j <= i; ++j) v(i, j) = v(j, i) = at(theta, packed_size(i) + j);
  }
  return v;
}

Dense loadings(const Vector& theta, std::int64_t first, std::int64_t n, std::int64_t k)
{
  Dense l(n, k);
  for (std::int64_t j = 0; j < k; ++j) {
    for (std::int64_t i = 0; i < n; ++i) l(i, j) = at(theta, first + i + j * n);
  }
  return l;
}

MODEL_CASE diagonal(std::int64_t n)
{
  return {"DIAG",
          8,
          n,
          1,
          [n](Dice& d) { return d.vector(n, 0.01, 5.0); },
          [n](const Vector& t) {
            Dense v(n, n);
            for (std::int64_t i = 0; i < n; ++i) v(i, i) = at(t, i);
            return v;
          }};
}

/// B B' with B of n rows and `wide` columns, plus `ridge` on the diagonal.
MODEL_CASE unstructured(std::int64_t n, std::int64_t wide, double ridge)
{
  return {text("US_rank_", wide),
          9,
          n,
          1,
          [=](Dice& d) {
            Dense b(n, wide);
            b.a = d.vector(n * wide);
            const Dense v = plus(b * transposed(b), identity(n), ridge);
            Vector out;
            for (std::int64_t i = 0; i < n; ++i) {
              for (std::int64_t j = 0; j <= i; ++j) out.push_back(v(i, j));
            }
            return out;
          },
          [n](const Vector& t) { return from_packed(t, n); }};
}

MODEL_CASE factors_on_correlations(std::int64_t n, std::int64_t k)
{
  return {"FA",
          10,
          n,
          k,
          [=](Dice& d) {
            Vector out = d.vector(n * k, -0.97 / std::sqrt(static_cast<double>(k)),
                                  0.97 / std::sqrt(static_cast<double>(k)));
            for (const double x : d.vector(n, 0.05, 9.0)) out.push_back(x);
            return out;
          },
          [=](const Vector& t) {
            const Dense l = loadings(t, 0, n, k);
            Dense c = l * transposed(l), sd(n, n);
            for (std::int64_t i = 0; i < n; ++i) {
              c(i, i) += 1.0 - c(i, i);
              sd(i, i) = std::sqrt(at(t, n * k + i));
            }
            return sd * c * sd;
          }};
}

MODEL_CASE factors_on_covariances(std::int64_t n, std::int64_t k)
{
  return {"FACV",
          13,
          n,
          k,
          [=](Dice& d) {
            Vector out = d.vector(n * k, -2.0, 2.0);
            for (const double x : d.vector(n, 0.001, 2.0)) out.push_back(x);
            return out;
          },
          [=](const Vector& t) {
            const Dense l = loadings(t, 0, n, k);
            Dense v = l * transposed(l);
            for (std::int64_t i = 0; i < n; ++i) v(i, i) += at(t, n * k + i);
            return v;
          }};
}

/// The packed factors with elements more than `order` off the diagonal 0.
Vector banded_factors(Dice& d, std::int64_t n, std::int64_t order)
{
  Vector out;
  for (std::int64_t i = 0; i < n; ++i) {
    for (std::int64_t j = 0; j < i; ++j) out.push_back(i - j <= order ? d.uniform(-1.0, 1.0) : 0.0);
    out.push_back(d.uniform(0.2, 3.0));
  }
  return out;
}

/// Lower factor and diagonal of the packed parameters.
std::pair<Dense, Dense> lower_and_diagonal(const Vector& t, std::int64_t n)
{
  Dense l = identity(n), d(n, n);
  for (std::int64_t i = 0; i < n; ++i) {
    for (std::int64_t j = 0; j < i; ++j) l(i, j) = at(t, packed_size(i) + j);
    d(i, i) = at(t, packed_size(i) + i);
  }
  return {l, d};
}

MODEL_CASE cholesky(std::int64_t n, std::int64_t order)
{
  return {"CHOL",
          11,
          n,
          order,
          [=](Dice& d) { return banded_factors(d, n, order); },
          [n](const Vector& t) {
            const auto [l, d] = lower_and_diagonal(t, n);
            return l * d * transposed(l);
          }};
}

MODEL_CASE antedependence(std::int64_t n, std::int64_t order)
{
  return {"ANTE",
          12,
          n,
          order,
          [=](Dice& d) { return banded_factors(d, n, order); },
          [n](const Vector& t) {
            const auto [l, d] = lower_and_diagonal(t, n);  // U = L'
            return inverted(transposed(l) * d * l).inverse;
          }};
}

/// Levels and factors; a level without a specific variance adds its Lagrangian row.  With T = I + (g / 2) c
/// e_m' the inverse is T K T', K holding e_m c' + c e_m' and -psi, and R = T^-1' R0 T^-1 where R0 has var(u,
/// f) and cov(u, m) = 1.
MODEL_CASE extended(std::int64_t m, std::int64_t k, std::vector<std::int64_t> zero,
                    std::vector<double> weights = {})
{
  const auto z = static_cast<std::int64_t>(zero.size());
  return {text("XFA_zero_", z),
          15,
          m + k,
          k,
          [=](Dice& d) {
            Vector out = d.vector(m, 0.05, 2.0);
            for (const std::int64_t i : zero) out[static_cast<std::size_t>(i)] = 0.0;
            for (const double x : d.vector(m * k, -1.5, 1.5)) out.push_back(x);
            return out;
          },
          [=](const Vector& t) {
            const Dense l = loadings(t, m, m, k);
            const Dense ll = l * transposed(l);
            const std::int64_t n = m + k + z;
            Dense r(n, n), ti = identity(n);
            for (std::int64_t i = 0; i < m; ++i) {
              for (std::int64_t a = 0; a < m; ++a) r(i, a) = ll(i, a);
              for (std::int64_t j = 0; j < k; ++j) r(i, m + j) = r(m + j, i) = l(i, j);
              r(i, i) += at(t, i);
            }
            for (std::int64_t j = m; j < m + k; ++j) r(j, j) = 1.0;
            for (std::int64_t s = 0; s < z; ++s) {
              const std::int64_t i = zero[static_cast<std::size_t>(s)], row = m + k + s;
              const double half = 0.5 * weights[static_cast<std::size_t>(s)];
              r(row, i) = r(i, row) = 1.0;
              ti(row, i) -= half;
              for (std::int64_t j = 0; j < k; ++j) ti(row, m + j) += half * l(i, j);
            }
            return ti * r * transposed(ti);
          }};
}

/// d f / d theta_k of a matrix, by central differences.
Dense slope(const std::function<Dense(const Vector&)>& f, Vector theta, std::size_t k)
{
  const double x = theta[k], h = 6e-6 * std::max(1.0, std::fabs(x));
  theta[k] = x + h;
  const Dense up = f(theta);
  theta[k] = x - h;
  Dense out = plus(up, f(theta), -1.0);
  for (double& a : out.a) a /= 2.0 * h;
  return out;
}

double condition(const Dense& r)
{
  Dense a = r;
  Vector e(static_cast<std::size_t>(r.rows)), work;
  std::vector<std::int32_t> iwork;
  EXPECT_EQ(dsyevd('N', 'L', r.rows, a.a.data(), r.rows, e.data(), work, iwork), 0);
  double least = std::fabs(e[0]), largest = 0.0;
  for (const double x : e) {
    least = std::min(least, std::fabs(x));
    largest = std::max(largest, std::fabs(x));
  }
  return largest / least;
}

/// A x along a component, from the definition of the block layout.
Vector along(const Dense& a, const Vector& x, std::int64_t outer, std::int64_t inner)
{
  const std::int64_t n = a.rows;
  Vector y(x.size(), 0.0);
  for (std::int64_t o = 0; o < outer; ++o) {
    for (std::int64_t i = 0; i < n; ++i) {
      for (std::int64_t j = 0; j < n; ++j) {
        for (std::int64_t c = 0; c < inner; ++c)
          y[static_cast<std::size_t>((o * n + i) * inner + c)] +=
              a(i, j) * x[static_cast<std::size_t>((o * n + j) * inner + c)];
      }
    }
  }
  return y;
}

double size_of(const Vector& x)
{
  double sum = 0.0;
  for (const double a : x) sum += a * a;
  return std::sqrt(sum);
}

double distance(Vector a, const Vector& b)
{
  for (std::size_t i = 0; i < a.size(); ++i) a[i] -= b[i];
  return size_of(a);
}

/// Everything that the interface promises, at one set of values.
void check_component(const COMPONENT_MATRIX& component, const std::function<Dense(const Vector&)>& matrix,
                     const Vector& theta, Dice& dice, const std::function<bool(std::int64_t)>& fixed)
{
  const Dense r = matrix(theta);
  const std::int64_t n = r.rows;
  ASSERT_EQ(component.inverse().n, n);
  Dense ri = expanded(component.inverse(), component.inverse().values);
  const double kappa = condition(r);
  constexpr double eps = 2.2204460492503131e-16;
  const double miss = norm(plus(r * ri, identity(n), -1.0));
  EXPECT_LE(miss, 30.0 * static_cast<double>(n) * eps * kappa);
  if (kappa < 1e4) {
    EXPECT_LE(miss, 1e-10);
  }
  Vector own(static_cast<std::size_t>(n * n));
  component.covariance(own.data());
  EXPECT_LE(distance(own, r.a), 1e-14 * static_cast<double>(n) * std::max(1.0, kappa * 1e-4) * norm(r));
  EXPECT_NEAR(component.log_determinant(), inverted(r).log_determinant,
              1e-13 * kappa + 1e-11 * static_cast<double>(n));

  const Dense exact = inverted(r).inverse;
  const double slack = 2e-9 + 1e-15 * kappa;  // of differences; of the reference inverse
  const Dense full = dice.symmetric(n);
  const Vector s = laid_out(component.inverse(), full);
  const Dense pattern = expanded(component.inverse(), s.data());
  const auto p = static_cast<std::int64_t>(theta.size());
  ASSERT_EQ(static_cast<std::int64_t>(component.score_part().size()), p);
  Vector contracted(theta.size(), 0.25);  // it adds
  component.contract(s.data(), contracted.data());
  const std::vector<std::pair<std::int64_t, std::int64_t>> blocks = {{1, 1}, {3, 1}, {2, 70}};
  std::vector<Vector> x;
  for (const auto& [outer, inner] : blocks) x.push_back(dice.vector(outer * n * inner));

  for (std::int64_t k = 0; k < p; ++k) {
    if (fixed(k)) continue;
    SCOPED_TRACE(text("parameter ", k));
    const auto at_k = static_cast<std::size_t>(k);
    const Dense dot = slope(matrix, theta, at_k);
    const double scale = norm(exact) * norm(dot);
    EXPECT_NEAR(component.score_part()[at_k], trace_of_product(exact, dot), slack * (1.0 + scale));
    const Dense d = exact * dot * exact;
    EXPECT_NEAR(contracted[at_k] - 0.25, trace_of_product(d, pattern),
                slack * norm(pattern) * (1.0 + norm(exact) * scale));
    for (std::size_t b = 0; b < blocks.size(); ++b) {
      const auto [outer, inner] = blocks[b];
      Vector y(x[b].size(), 7.0);
      component.working(k, x[b].data(), y.data(), outer, inner);
      EXPECT_LE(distance(y, along(dot * exact, x[b], outer, inner)), slack * (1.0 + scale) * size_of(x[b]));
    }
  }
  for (std::size_t b = 0; b < blocks.size(); ++b) {
    const auto [outer, inner] = blocks[b];
    Vector y(x[b].size(), 7.0);
    component.apply_inverse(x[b].data(), y.data(), outer, inner);
    EXPECT_LE(distance(y, along(ri, x[b], outer, inner)), 1e-13 * norm(ri) * size_of(x[b]));
  }
}

class CovarianceModels : public testing::TestWithParam<MODEL_CASE> {};

TEST_P(CovarianceModels, AgreeWithTheirDefinition)
{
  const MODEL_CASE& c = GetParam();
  Dice dice(static_cast<std::uint32_t>(c.model * 100 + c.levels * 10 + c.order));
  // One object over several evaluations, as a fit does it.
  ONE_ROW run(c.model, c.levels, c.order, c.draw(dice));
  for (int evaluation = 0; evaluation < 3; ++evaluation) {
    SCOPED_TRACE(text("evaluation ", evaluation));
    const Vector theta = c.draw(dice);
    for (std::size_t k = 0; k < theta.size(); ++k) run.model.parameters[k + 1].value = theta[k];
    ASSERT_EQ(run.form(), Formed::done);
    EXPECT_TRUE(clean(run.eh));
    EXPECT_EQ(run.values(), theta);  // nothing was out of its space
    EXPECT_EQ(run.component->negative(), 0);
    const auto outside_band = [&](std::int64_t k) {
      if (c.model != 12) return false;
      std::int64_t j = 0;
      while (packed_size(j + 1) <= k) ++j;
      return j - (k - packed_size(j)) > c.order;
    };
    check_component(*run.component, c.matrix, theta, dice, outside_band);
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, CovarianceModels,
    testing::Values(diagonal(1), diagonal(2), diagonal(7), unstructured(1, 1, 0.0), unstructured(2, 3, 0.0),
                    unstructured(4, 8, 0.1), unstructured(9, 3, 0.01), unstructured(9, 2, 0.0005),
                    unstructured(33, 60, 0.0), factors_on_correlations(1, 0), factors_on_correlations(2, 1),
                    factors_on_correlations(5, 2), factors_on_correlations(20, 3),
                    factors_on_covariances(1, 0), factors_on_covariances(2, 1), factors_on_covariances(5, 3),
                    factors_on_covariances(20, 4), cholesky(1, 0), cholesky(2, 1), cholesky(6, 1),
                    cholesky(6, 5), cholesky(15, 3), antedependence(1, 0), antedependence(2, 1),
                    antedependence(6, 1), antedependence(6, 2), antedependence(6, 5), antedependence(15, 3),
                    extended(1, 1, {}), extended(2, 1, {}), extended(2, 2, {}), extended(7, 2, {}),
                    extended(20, 4, {})),
    [](const auto& c) {
      return text(c.param.name, "_n", c.param.levels, "_k", c.param.order, "_",
                  static_cast<std::int64_t>(c.index));
    });

// A level without a specific variance.  Its weight in the inverse is the component's own choice, so it is
// read from there.
TEST(ExtendedFactors, AgreeWithTheirDefinitionWithLagrangianRows)
{
  const std::vector<std::tuple<std::int64_t, std::int64_t, std::vector<std::int64_t>>> cases = {
      {1, 1, {0}}, {2, 1, {0, 1}}, {4, 2, {1}}, {6, 2, {0, 2, 3}}, {5, 3, {0, 1, 2, 3, 4}}};
  Dice dice(5);
  for (const auto& [m, k, zero] : cases) {
    SCOPED_TRACE(text("levels ", m, " factors ", k, " zero ", static_cast<std::int64_t>(zero.size())));
    const Vector theta = extended(m, k, zero).draw(dice);
    ONE_ROW run(15, m + k + static_cast<std::int64_t>(zero.size()), k, theta);
    ASSERT_EQ(run.form(), Formed::done);
    EXPECT_TRUE(clean(run.eh));
    EXPECT_EQ(run.component->negative(), static_cast<std::int64_t>(zero.size()));
    std::vector<double> weights;
    const Dense ri = expanded(run.component->inverse(), run.component->inverse().values);
    for (const std::int64_t i : zero) weights.push_back(ri(i, i));
    // log|R| of the interface leaves the Lagrangian pairs out, and so does the determinant: their 2 x 2
    // blocks have |det| 1.
    const auto matrix = extended(m, k, zero, weights).matrix;
    const auto is_zero = [&](std::int64_t p) { return std::find(zero.begin(), zero.end(), p) != zero.end(); };
    check_component(*run.component, matrix, theta, dice, [&](std::int64_t p) { return is_zero(p); });

    // The derivative by a psi of 0, which the score part leaves to the C-inverse.
    const Dense exact = inverted(matrix(theta)).inverse;
    const Vector s =
        laid_out(run.component->inverse(), dice.symmetric(m + k + static_cast<std::int64_t>(zero.size())));
    Vector contracted(theta.size(), 0.0);
    run.component->contract(s.data(), contracted.data());
    for (const std::int64_t i : zero) {
      // R of the definition with psi in K: R0 gains psi at (u, u)
      const Dense dot = slope(matrix, theta, static_cast<std::size_t>(i));
      EXPECT_NEAR(contracted[static_cast<std::size_t>(i)],
                  trace_of_product(exact * dot * exact, expanded(run.component->inverse(), s.data())),
                  1e-7 * norm(exact) * norm(exact));
      EXPECT_EQ(run.component->score_part()[static_cast<std::size_t>(i)], 0.0);
      Vector x = dice.vector(ri.rows), y(x.size());
      run.component->working(i, x.data(), y.data(), 1, 1);
      EXPECT_TRUE(near(y, along(dot * exact, x, 1, 1), 1e-7, 1e-7 * norm(exact)));
    }
  }
}

}  // namespace
}  // namespace tolvan
