// Dense inverses and log determinants against their definitions, at sizes where blocks begin and end.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "base/lapack.h"
#include "base/text.h"
#include "pedigree/form_ainverse.h"
#include "relmat/invert_dense.h"
#include "relmat/log_determinant.h"
#include "support/checks.h"

namespace tolvan_test {
namespace {

using namespace tolvan;

using Matrix = std::vector<double>;  // n x n, by columns

Matrix product(const Matrix& a, const Matrix& b, std::int64_t n)
{
  Matrix c(a.size());
  dgemm('N', 'N', n, n, n, 1.0, a.data(), n, b.data(), n, 0.0, c.data(), n);
  return c;
}

double largest_difference(const Matrix& a, const Matrix& b)
{
  double worst = 0.0;
  for (std::size_t k = 0; k < a.size(); ++k) worst = std::max(worst, std::abs(a[k] - b[k]));
  return worst;
}

Matrix identity(std::int64_t n)
{
  Matrix a(static_cast<std::size_t>(n * n), 0.0);
  for (std::int64_t k = 0; k < n; ++k) a[static_cast<std::size_t>(k * n + k)] = 1.0;
  return a;
}

/// X X' over r columns, with the given rows of X all 0; sign -1 makes every second column negative.
Matrix of_rank(std::mt19937& random, std::int64_t n, std::int64_t r,
               const std::vector<std::int64_t>& zero_rows, double sign = 1.0)
{
  Matrix x(static_cast<std::size_t>(n * r));
  std::normal_distribution<double> normal;
  for (double& each : x) each = normal(random);
  for (const std::int64_t row : zero_rows) {
    for (std::int64_t j = 0; j < r; ++j) x[static_cast<std::size_t>(row + j * n)] = 0.0;
  }
  Matrix scaled = x;
  for (std::int64_t j = 1; j < r; j += 2) {
    for (std::int64_t i = 0; i < n; ++i) scaled[static_cast<std::size_t>(i + j * n)] *= sign;
  }
  Matrix k(static_cast<std::size_t>(n * n));
  dgemm('N', 'T', n, n, r, 1.0 / static_cast<double>(r), x.data(), n, scaled.data(), n, 0.0, k.data(), n);
  return k;
}

/// ln of the product of the eigenvalues that are not 0, in size.
double logdet_by_eigenvalues(Matrix a, std::int64_t n)
{
  std::vector<double> w(static_cast<std::size_t>(n)), work;
  std::vector<std::int32_t> iwork;
  EXPECT_EQ(dsyevd('N', 'L', n, a.data(), n, w.data(), work, iwork), 0);
  double sum = 0.0;
  for (const double each : w) sum += std::log(std::abs(each));
  return sum;
}

constexpr std::int64_t sizes[] = {1, 2, 3, 5, 20, 95, 96, 97, 191, 192, 193, 300};

TEST(InvertDense, FullRank)
{
  std::mt19937 random(11);
  for (const std::int64_t n : sizes) {
    for (const double sign : {1.0, -1.0}) {
      SCOPED_TRACE(text("order ", n, ", sign ", sign));
      Matrix k = of_rank(random, n, n + 5, {}, sign);
      for (std::int64_t i = 0; i < n; ++i) k[static_cast<std::size_t>(i * n + i)] += sign > 0.0 ? 0.1 : 3.0;
      ERROR_HANDLER eh;
      Matrix x = k;
      PIVOTS pivots;
      SMIDENSE(eh, n, x.data(), 0, pivots);
      const double limit = 1e-9 * static_cast<double>(n);
      EXPECT_LT(largest_difference(product(k, x, n), identity(n)), limit);
      EXPECT_NEAR(pivots.log_determinant, logdet_by_eigenvalues(k, n), limit);
      EXPECT_EQ(pivots.singular + pivots.zero_rows, 0);
      if (sign < 0.0) continue;
      double logdet = 0.0;
      Matrix y = k;
      SMILM(eh, n, y.data(), 0, logdet);
      EXPECT_LT(largest_difference(x, y), limit);
      EXPECT_NEAR(logdet, pivots.log_determinant, limit);
    }
  }
}

// Nearly singular: what equations make of an inverse is log|K^-1 + I| + log|K|, which is log|I + K|.  An inverse whose errors grow
// with the square of the condition number would lose all of it.
TEST(InvertDense, NearlySingular)
{
  std::mt19937 random(14);
  for (const std::int64_t n : {20, 97, 193}) {
    for (const double ridge : {1e-4, 1e-6, 1e-8}) {
      SCOPED_TRACE(text("order ", n, ", ridge ", ridge));
      Matrix k = of_rank(random, n, n / 2, {});
      for (std::int64_t i = 0; i < n; ++i) k[static_cast<std::size_t>(i * n + i)] += ridge;
      Matrix with_unit = k;
      for (std::int64_t i = 0; i < n; ++i) with_unit[static_cast<std::size_t>(i * n + i)] += 1.0;
      ERROR_HANDLER eh;
      PIVOTS pivots;
      std::vector<std::int64_t> bound;
      K4MSMISG(eh, n, k, 0, false, pivots, bound);
      ASSERT_EQ(pivots.singular + pivots.negative, 0);
      for (std::int64_t i = 0; i < n; ++i) k[static_cast<std::size_t>(i * n + i)] += 1.0;
      const double expected = logdet_by_eigenvalues(with_unit, n);
      EXPECT_NEAR(logdet_by_eigenvalues(k, n) + pivots.log_determinant, expected, 1e-13 * static_cast<double>(n) / ridge);
    }
  }
}

// G K G = K and K G K = K for a generalized inverse; the rows without a pivot are 0.
TEST(InvertDense, SingularWithZeroRows)
{
  std::mt19937 random(12);
  for (const std::int64_t n : sizes) {
    if (n < 3) continue;
    SCOPED_TRACE(text("order ", n));
    const Matrix k = of_rank(random, n, n / 2, {1, n - 1});
    Matrix g = k;
    ERROR_HANDLER eh;
    PIVOTS pivots;
    SMIDENSE(eh, n, g.data(), 0, pivots);
    EXPECT_EQ(pivots.zero_rows, 2);
    EXPECT_EQ(pivots.singular, n - 2 - std::min(n / 2, n - 2));
    EXPECT_TRUE(has_message(
        eh, text("with singularity criterion 1e-10, ", pivots.singular, " Singular and 0 negative")));
    const double scale = *std::max_element(g.begin(), g.end());
    EXPECT_LT(largest_difference(product(product(k, g, n), k, n), k), 1e-11 * scale * static_cast<double>(n));
    for (std::int64_t i = 0; i < n; ++i) {
      if (pivots.mark[static_cast<std::size_t>(i)] > 0) {
        EXPECT_EQ(g[static_cast<std::size_t>(i * n)], 0.0);
      }
    }
  }
}

// With the Lagrangian rows M [K; L] = [I; 0] over the rows that are not 0, L picking the singular rows;
// log|M| = -log|G11|.
TEST(InvertDense, LagrangianRowsKeepASingularMatrixWhole)
{
  std::mt19937 random(13);
  for (const std::int64_t n : sizes) {
    for (const bool bind_empty : {false, true}) {
      if (n < 5) continue;
      SCOPED_TRACE(text("order ", n, bind_empty ? ", empty rows bound" : ""));
      const Matrix k = of_rank(random, n, n / 2, {2});
      Matrix m = k;
      ERROR_HANDLER eh;
      PIVOTS pivots;
      std::vector<std::int64_t> bound;
      K4MSMISG(eh, n, m, 0, bind_empty, pivots, bound);
  const std::int64_t added = std::ssize(bound);
      ASSERT_EQ(added, pivots.singular + (bind_empty ? 1 : 0));
      const std::int64_t wide = n + added;
      ASSERT_EQ(std::ssize(m), wide * wide);
      Matrix whole(static_cast<std::size_t>(wide * n), 0.0);  // [K; L]
      std::int64_t next = n;
      for (std::int64_t j = 0; j < n; ++j) {
        for (std::int64_t i = 0; i < n; ++i)
          whole[static_cast<std::size_t>(i + j * wide)] = k[static_cast<std::size_t>(i + j * n)];
      }
      for (std::int64_t i = 0; i < n; ++i) {
        if (pivots.mark[static_cast<std::size_t>(i)] > 0 &&
            (bind_empty || !pivots.empty[static_cast<std::size_t>(i)]))
          whole[static_cast<std::size_t>(next++ + i * wide)] = 1.0;
      }
      ASSERT_EQ(next, wide);
      Matrix result(whole.size());
      dgemm('N', 'N', wide, n, wide, 1.0, m.data(), wide, whole.data(), wide, 0.0, result.data(), wide);
      double worst = 0.0;
      for (std::int64_t j = 0; j < n; ++j) {
        for (std::int64_t i = 0; i < wide; ++i) {
          const bool one = i == j && (bind_empty || i != 2);
          worst =
              std::max(worst, std::abs(result[static_cast<std::size_t>(i + j * wide)] - (one ? 1.0 : 0.0)));
        }
      }
      EXPECT_LT(worst, 1e-6);  // G11 of a random matrix may be ill-conditioned
      if (bind_empty) {
        EXPECT_NEAR(logdet_by_eigenvalues(m, wide), -pivots.log_determinant, 1e-6 * static_cast<double>(n));
      }
      EXPECT_TRUE(has_message(eh, text("the inverse matrix has been augmented to order ", wide)));
      EXPECT_TRUE(has_message(eh, "includes the 1 empty rows"));
    }
  }
}

TEST(InvertDense, RulesOfPivots)
{
  EXPECT_EQ(singularity_criterion(-1), 1e-10);
  EXPECT_EQ(singularity_criterion(0), 1e-10);
  EXPECT_EQ(singularity_criterion(2), 0.0001);
  EXPECT_NEAR(singularity_criterion(6), 0.000001, 1e-20);
  // All pivots of a negative definite matrix are negative, and kept.
  ERROR_HANDLER eh;
  PIVOTS pivots;
  Matrix a{-2.0, 0.5, 0.5, -1.0};
  SMIDENSE(eh, 2, a.data(), 0, pivots);
  EXPECT_EQ(pivots.negative, 2);
  EXPECT_EQ(pivots.singular, 0);
  EXPECT_EQ(pivots.mark, (std::vector<std::int64_t>{-1, -2}));
  EXPECT_NEAR(a[0], -1.0 / 1.75, 1e-15);
  // A pivot counts as it stands after those behind it, against the criterion times the diagonal ahead of
  // them.
  Matrix b{1.0, 0.9999, 0.9999, 1.0};
  SMIDENSE(eh, 2, b.data(), 2, pivots);
  EXPECT_EQ(pivots.singular, 0);
  Matrix c{1.0, 0.99996, 0.99996, 1.0};
  SMIDENSE(eh, 2, c.data(), 2, pivots);
  EXPECT_EQ(pivots.singular, 1);
  EXPECT_EQ(c, (Matrix{0.0, 0.0, 0.0, 1.0}));
  Matrix d{1.0, 2.0, 2.0, 1.0};
  double logdet = 0.0;
  SMILM(eh, 2, d.data(), 0, logdet);
  EXPECT_TRUE(has_message(eh, "DPOTRF error = 2"));
  // What rounding alone keeps above 0 is singular all the same, unless the criterion is finer still.
  const Matrix alike{2.0, 1.0, 2.0, 1.0, 3.0, 1.0, 2.0, 1.0, 2.0 + 8e-15};
  ERROR_HANDLER rounding;
  Matrix g = alike;
  SMILM(rounding, 3, g.data(), 0, logdet);
  EXPECT_TRUE(has_message(rounding, "the matrix is singular in row 3, its pivot there is 0.8"));
  EXPECT_TRUE(has_message(rounding, "singularity declared when |pivot| < 0.20000E-09"));
  ERROR_HANDLER finer;
  g = alike;
  SMILM(finer, 3, g.data(), 16, logdet);
  EXPECT_TRUE(clean(finer));
  ERROR_HANDLER other;
  Matrix e{1.0, 2.0, 2.0, 1.0};
  K4MSMI(other, 2, e.data(), logdet);
  EXPECT_NEAR(e[1], 2.0 / 3.0, 1e-15);
  EXPECT_NEAR(logdet, std::log(3.0), 1e-15);
  Matrix f{1.0, 1.0, 1.0, 1.0};
  K4MSMIGE(other, 2, f.data(), pivots);
  EXPECT_EQ(f, (Matrix{0.0, 0.0, 0.0, 1.0}));
  K4MSMIGE1(other, 2, f.data(), pivots);
  EXPECT_EQ(pivots.zero_rows, 1);
  EXPECT_TRUE(clean(other));
}

/// The shapes of one matrix; sparse with its diagonal first in each column.
struct Shapes {
  Matrix dense;
  std::vector<double> values;
  std::vector<std::int64_t> start{0};
  std::vector<std::int32_t> row;
  explicit Shapes(Matrix a, std::int64_t n) : dense(std::move(a))
  {
    for (std::int64_t j = 0; j < n; ++j) {
      for (std::int64_t i = j; i < n; ++i) {
        const double x = dense[static_cast<std::size_t>(i + j * n)];
        if (i != j && x == 0.0) continue;
        values.push_back(x);
        row.push_back(static_cast<std::int32_t>(i));
      }
      start.push_back(std::ssize(row));
    }
  }
  SYMMETRIC as_dense(std::int64_t n) { return {Shape::dense, n, 0, 1.0, dense.data(), nullptr, nullptr}; }
  SYMMETRIC as_sparse(std::int64_t n)
  {
    return {Shape::sparse, n, 0, 1.0, values.data(), start.data(), row.data()};
  }
};

TEST(LogDeterminant, DenseAndSparseAgreeWithTheEigenvalues)
{
  std::mt19937 random(14);
  for (const std::int64_t n : {2, 7, 60, 150}) {
    SCOPED_TRACE(text("order ", n));
    Matrix a(static_cast<std::size_t>(n * n), 0.0);
    for (std::int64_t i = 0; i < n; ++i) {
      a[static_cast<std::size_t>(i * n + i)] += 1.5;
      for (int link = 0; link < 2 && i > 0; ++link) {
        const auto j = std::uniform_int_distribution<std::int64_t>(0, i - 1)(random);
        a[static_cast<std::size_t>(i * n + j)] = a[static_cast<std::size_t>(j * n + i)] = -0.5;
        a[static_cast<std::size_t>(i * n + i)] += 0.5;
        a[static_cast<std::size_t>(j * n + j)] += 0.5;
      }
    }
    Shapes shapes(a, n);
    ERROR_HANDLER eh;
    PIVOTS dense, sparse;
    K4MLD7(eh, shapes.as_dense(n), shapes.dense.data(), 0, 0, dense);
    K4MLD7(eh, shapes.as_sparse(n), shapes.values.data(), 0, 0, sparse);
    EXPECT_EQ(shapes.dense, a) << "the matrix was not restored";
    EXPECT_NEAR(dense.log_determinant, logdet_by_eigenvalues(a, n), 1e-10 * static_cast<double>(n));
    EXPECT_NEAR(sparse.log_determinant, dense.log_determinant, 1e-10 * static_cast<double>(n));
    EXPECT_EQ(sparse.negative + sparse.singular + dense.negative + dense.singular, 0);
    // One negative, one empty row.
    for (std::int64_t k = 0; k < n; ++k)
      a[static_cast<std::size_t>(k * n)] = a[static_cast<std::size_t>(k)] = 0.0;
    a[static_cast<std::size_t>(n * n - 1)] -= 100.0;
    Shapes odd(a, n);
    K4MLD7(eh, odd.as_dense(n), odd.dense.data(), 0, 0, dense);
    K4MLD7(eh, odd.as_sparse(n), odd.values.data(), 0, 0, sparse);
    EXPECT_EQ(sparse.negative, 1);
    EXPECT_EQ(sparse.zero_rows, 1);
    EXPECT_NEAR(sparse.log_determinant, dense.log_determinant, 1e-10 * static_cast<double>(n));
    EXPECT_TRUE(has_message(eh, "1 negative pivots and 0 singularities"));
  }
}

TEST(LogDeterminant, LagrangianRowsComeLast)
{
  std::mt19937 random(15);
  const std::int64_t n = 40;
  Matrix m = of_rank(random, n, 25, {});
  ERROR_HANDLER eh;
  PIVOTS pivots, again;
  std::vector<std::int64_t> bound;
  K4MSMISG(eh, n, m, 0, false, pivots, bound);
  const std::int64_t added = std::ssize(bound);
  Shapes shapes(m, n + added);
  K4MLD7(eh, shapes.as_dense(n + added), shapes.dense.data(), 0, 0, again);
  EXPECT_NEAR(again.log_determinant, -pivots.log_determinant, 1e-7);
  EXPECT_EQ(again.singular, 0);
  EXPECT_EQ(shapes.dense, m);
  K4MLD7(eh, shapes.as_sparse(n + added), shapes.values.data(), 0, 0, again);
  EXPECT_NEAR(again.log_determinant, -pivots.log_determinant, 1e-7);
}

}  // namespace
}  // namespace tolvan_test
