// The extended factor model inside mixed-model equations: with levels without a specific variance, and cells
// without data, the equations with Lagrangian rows say what the covariance matrix of the data says.
#include "base/text.h"
#include "support/checks.h"
#include "varstruct/dense_reference.h"
#include "varstruct/extended_factors.h"
#include "varstruct/one_row.h"

namespace tolvan {
namespace {

/// y = Z u + e, var(e) = I, over m levels by q entries; every entry is in some of the levels.
struct TRIAL {
  std::int64_t m, k, q;
  std::vector<std::int64_t> zero;
  Dense entries;  // covariance of the entries
  Dense z;        // records x (m q)
  Dense y;        // records x 1
};

TRIAL trial(Dice& dice, std::int64_t m, std::int64_t k, std::int64_t q, std::vector<std::int64_t> zero,
            bool related)
{
  TRIAL t{m, k, q, std::move(zero), identity(q), {}, {}};
  if (related) {
    Dense b(q, q + 3);
    b.a = dice.vector(q * (q + 3));
    t.entries = plus(b * transposed(b), identity(q), 0.2);
  }
  std::vector<std::int64_t> cells;
  for (std::int64_t i = 0; i < m; ++i) {
    for (std::int64_t e = 0; e < q; ++e) {
      if ((i + e) % 3 == 0) continue;  // no data
      cells.push_back(i * q + e);
      if ((i + e) % 3 == 1) cells.push_back(i * q + e);  // twice
    }
  }
  const auto n = static_cast<std::int64_t>(cells.size());
  t.z = Dense(n, m * q);
  for (std::int64_t r = 0; r < n; ++r) t.z(r, cells[static_cast<std::size_t>(r)]) = 1.0;
  t.y = Dense(n, 1);
  t.y.a = dice.vector(n, -3.0, 3.0);
  return t;
}

/// LL' + Psi from the row's parameters.
Dense covariance_of_levels(const TRIAL& t, const Vector& theta)
{
  Dense v(t.m, t.m);
  for (std::int64_t i = 0; i < t.m; ++i) {
    v(i, i) += theta[static_cast<std::size_t>(i)];
    for (std::int64_t a = 0; a < t.m; ++a) {
      for (std::int64_t j = 0; j < t.k; ++j)
        v(i, a) += theta[static_cast<std::size_t>(t.m + i + j * t.m)] *
                   theta[static_cast<std::size_t>(t.m + a + j * t.m)];
    }
  }
  return v;
}

Dense covariance_of_data(const TRIAL& t, const Vector& theta)
{
  return plus(t.z * direct_product(covariance_of_levels(t, theta), t.entries) * transposed(t.z),
              identity(t.z.rows));
}

double minus_two_logl(const TRIAL& t, const Vector& theta)
{
  const INVERTED v = inverted(covariance_of_data(t, theta));
  return v.log_determinant + (transposed(t.y) * v.inverse * t.y)(0, 0);
}

double slope(const TRIAL& t, Vector theta, std::size_t k)
{
  const double x = theta[k], h = 1e-5;
  theta[k] = x + h;
  const double up = minus_two_logl(t, theta);
  theta[k] = x - h;
  return (up - minus_two_logl(t, theta)) / (2.0 * h);
}

std::int64_t negative_pivots(
    Dense c)  // of the elimination in the order of the equations, each Lagrangian row behind its level
{
  std::int64_t count = 0;
  const std::int64_t n = c.rows;
  for (std::int64_t p = 0; p < n; ++p) {
    const double pivot = c(p, p);
    EXPECT_GT(std::fabs(pivot), 1e-8);
    if (pivot < 0.0) ++count;
    for (std::int64_t i = p + 1; i < n; ++i) {
      const double by = c(i, p) / pivot;
      if (by == 0.0) continue;
      for (std::int64_t j = p; j < n; ++j) c(i, j) -= by * c(p, j);
    }
  }
  return count;
}

TEST(ExtendedFactors, SolveTheEquationsOfTheCovarianceMatrix)
{
  struct CASE {
    std::int64_t m, k, q;
    std::vector<std::int64_t> zero;
    bool related;
  };
  const std::vector<CASE> cases = {{2, 1, 4, {}, false},    {2, 1, 4, {0, 1}, false},
                                   {4, 2, 5, {1}, false},   {4, 2, 5, {0, 1, 2, 3}, false},
                                   {5, 2, 4, {0, 3}, true}, {3, 1, 5, {0, 1, 2}, true},
                                   {4, 2, 5, {}, true}};
  Dice dice(21);
  for (const CASE& c : cases) {
    SCOPED_TRACE(text("levels ", c.m, " factors ", c.k, " zero ", static_cast<std::int64_t>(c.zero.size())));
    const TRIAL t = trial(dice, c.m, c.k, c.q, c.zero, c.related);
    Vector theta = dice.vector(c.m, 0.1, 1.5);
    for (const std::int64_t i : c.zero) theta[static_cast<std::size_t>(i)] = 0.0;
    for (const double x : dice.vector(c.m * c.k, -1.2, 1.2)) theta.push_back(x);
    ONE_ROW run(15, c.m + c.k + static_cast<std::int64_t>(c.zero.size()), c.k, theta);
    const EXTENDED_LAYOUT layout = extended_layout(run.row, run.model);
    EXPECT_EQ(layout.levels, c.m);
    EXPECT_EQ(layout.lagrangian_levels, c.zero);
    ASSERT_EQ(run.form(), Formed::done);
    const SYMMETRIC& inverse = run.component->inverse();
    const std::int64_t n = inverse.n, q = c.q;
    ASSERT_EQ(n, layout.size());

    // C over (levels, factors, Lagrangian rows) x entries
    const INVERTED a = inverted(t.entries);
    const Dense ri = expanded(inverse, inverse.values);
    Dense z(t.z.rows, n * q);
    for (std::int64_t j = 0; j < t.z.columns; ++j)
      for (std::int64_t r = 0; r < t.z.rows; ++r) z(r, j) = t.z(r, j);
    const Dense c_matrix = plus(transposed(z) * z, direct_product(ri, a.inverse));
    const INVERTED solved = inverted(c_matrix);
    const Dense b = solved.inverse * (transposed(z) * t.y);

    const INVERTED v = inverted(covariance_of_data(t, theta));
    const Dense py = v.inverse * t.y;
    const Dense zpy = transposed(t.z) * py;
    const Dense u = direct_product(covariance_of_levels(t, theta), t.entries) * zpy;
    const auto nd = static_cast<double>(n), qd = static_cast<double>(q);
    // log|C| + log|G| = log|V|, G of n q rows with the entries' matrix for each row of the component
    EXPECT_NEAR(solved.log_determinant + qd * run.component->log_determinant() + nd * a.log_determinant,
                v.log_determinant, 1e-9);
    EXPECT_EQ(negative_pivots(c_matrix), q * layout.lagrangian());
    for (std::int64_t i = 0; i < c.m * q; ++i) EXPECT_NEAR(b(i, 0), u(i, 0), 1e-10);
    const Dense azpy = direct_product(identity(c.m), t.entries) * zpy;
    for (std::int64_t s = 0; s < layout.lagrangian(); ++s) {
      const std::int64_t level = c.zero[static_cast<std::size_t>(s)];
      for (std::int64_t e = 0; e < q; ++e) {
        EXPECT_NEAR(b((c.m + c.k + s) * q + e, 0), azpy(level * q + e, 0), 1e-10);
        double lf = 0.0;
        for (std::int64_t j = 0; j < c.k; ++j)
          lf += theta[static_cast<std::size_t>(c.m + level + j * c.m)] * b((c.m + j) * q + e, 0);
        EXPECT_NEAR(b(level * q + e, 0), lf, 1e-10);
      }
    }

    // d(-2 LogL) = q tr(R^-1 Rdot) - sum of S dRi, S the trace over the entries of (C^-1 + b b') (I x A^-1)
    Dense s(n, n);
    for (std::int64_t i = 0; i < n; ++i) {
      for (std::int64_t j = 0; j < n; ++j) {
        for (std::int64_t e = 0; e < q; ++e) {
          for (std::int64_t f = 0; f < q; ++f)
            s(i, j) +=
                (solved.inverse(i * q + e, j * q + f) + b(i * q + e, 0) * b(j * q + f, 0)) * a.inverse(e, f);
        }
      }
    }
    const Vector laid = laid_out(inverse, s);
    Vector out(theta.size(), 0.0);
    run.component->contract(laid.data(), out.data());
    for (std::size_t k = 0; k < theta.size(); ++k) {
      SCOPED_TRACE(text("parameter ", static_cast<std::int64_t>(k)));
      EXPECT_NEAR(qd * run.component->score_part()[k] - out[k], slope(t, theta, k), 1e-6);

      // working variable: Z Gdot Z'Py, through the rows of the levels
      Vector w(b.a.size());
      run.component->working(static_cast<std::int64_t>(k), b.a.data(), w.data(), 1, q);
      Vector moved = theta;
      moved[k] += 1e-6;
      const Dense up = covariance_of_levels(t, moved);
      moved[k] -= 2e-6;
      Dense dot = plus(up, covariance_of_levels(t, moved), -1.0);
      for (double& x : dot.a) x /= 2e-6;
      const Dense expected = direct_product(dot, t.entries) * zpy;
      for (std::int64_t i = 0; i < c.m * q; ++i)
        EXPECT_NEAR(w[static_cast<std::size_t>(i)], expected(i, 0), 1e-7);
    }
  }
}

// A specific variance that was 0 at set-up and has grown keeps its row, without effect.
TEST(ExtendedFactors, KeepTheirPatternWhenASpecificVarianceGrows)
{
  Dice dice(22);
  const TRIAL t = trial(dice, 3, 1, 4, {0, 2}, false);
  Vector theta{0.0, 0.7, 0.0, 0.9, -0.4, 0.6};
  ONE_ROW run(15, 6, 1, theta);
  ASSERT_EQ(run.form(), Formed::done);
  const SYMMETRIC before = run.component->inverse();
  for (const double psi : {0.3, 0.0}) {
    theta[0] = run.model.parameters[1].value = psi;
    ASSERT_EQ(run.form(), Formed::done);
    const SYMMETRIC& inverse = run.component->inverse();
    EXPECT_EQ(inverse.n, before.n);
    EXPECT_EQ(inverse.start, before.start);
    EXPECT_EQ(run.component->negative(), 2);
    Dense z(t.z.rows, inverse.n * t.q);
    std::copy(t.z.a.begin(), t.z.a.end(), z.a.begin());
    const Dense c = plus(transposed(z) * z, direct_product(expanded(inverse, inverse.values), identity(t.q)));
    EXPECT_NEAR(inverted(c).log_determinant + 4.0 * run.component->log_determinant(),
                inverted(covariance_of_data(t, theta)).log_determinant, 1e-10);
    EXPECT_EQ(negative_pivots(c), 2 * t.q);
  }
  EXPECT_TRUE(clean(run.eh));
}

TEST(ExtendedFactors, GiveTheirLagrangianRowsToTheLevelsThatNeedThem)
{
  struct CASE {
    const char* name;
    std::int64_t size;
    Vector specific;
    std::vector<std::int64_t> levels;
  };
  for (const CASE& c : std::vector<CASE>{{"none", 4, {0.1, 0.2, 0.3}, {}},
                                         {"all", 7, {0.0, 0.0, 0.0}, {0, 1, 2}},
                                         {"one of them", 5, {0.1, 0.0, 0.3}, {1}},
                                         {"one to spare", 6, {0.1, 0.2, 0.0}, {0, 2}}}) {
    SCOPED_TRACE(c.name);
    Vector theta = c.specific;
    theta.insert(theta.end(), {0.5, -0.4, 0.3});
    ONE_ROW run(15, c.size, 1, theta);
    EXPECT_EQ(extended_layout(run.row, run.model).lagrangian_levels, c.levels);
    ASSERT_EQ(run.form(), Formed::done);
    EXPECT_EQ(run.component->inverse().n, c.size);
    EXPECT_EQ(run.component->negative(), c.size - 4);
  }
}

}  // namespace
}  // namespace tolvan
