// The BLAS wrappers: identities, and the same bits from any number of our threads.
#include "base/lapack.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <random>

#include "base/clock.h"
#include "base/packed.h"
#include "support/checks.h"

namespace tolvan {
namespace {

using Matrix = std::vector<double>;  // square, column-major

Matrix random_matrix(std::int64_t n, unsigned seed)
{
  std::mt19937 random(seed);
  std::normal_distribution<double> normal;
  Matrix a(static_cast<std::size_t>(n * n));
  for (double& x : a) x = normal(random);
  return a;
}

Matrix product(char transa, char transb, std::int64_t n, const Matrix& a, const Matrix& b)
{
  Matrix c(a.size());
  dgemm(transa, transb, n, n, n, 1.0, a.data(), n, b.data(), n, 0.0, c.data(), n);
  return c;
}

// A A' + n I
Matrix positive_definite(std::int64_t n, unsigned seed)
{
  const Matrix a = random_matrix(n, seed);
  Matrix c = product('N', 'T', n, a, a);
  for (std::int64_t i = 0; i < n; ++i) c[static_cast<std::size_t>(i * n + i)] += static_cast<double>(n);
  return c;
}

void keep_lower(Matrix& a, std::int64_t n)
{
  for (std::int64_t j = 0; j < n; ++j) {
    for (std::int64_t i = 0; i < j; ++i) a[static_cast<std::size_t>(j * n + i)] = 0.0;
  }
}

double distance(const Matrix& a, const Matrix& b)
{
  double worst = 0.0;
  for (std::size_t k = 0; k < a.size(); ++k) worst = std::max(worst, std::abs(a[k] - b[k]));
  return worst;
}

double norm(const Matrix& a)
{
  return distance(a, Matrix(a.size(), 0.0));
}

TEST(Lapack, IdentitiesOfFactorsInversesAndEigenvalues)
{
  single_blas_thread();
  constexpr double eps = 2.2e-16;
  for (std::int64_t n : {1, 2, 3, 5, 31, 32, 33, 100}) {
    const double unit = 30.0 * static_cast<double>(n) * eps;
    const Matrix a = positive_definite(n, 17);
    Matrix identity(a.size(), 0.0);
    for (std::int64_t i = 0; i < n; ++i) identity[static_cast<std::size_t>(i * n + i)] = 1.0;

    Matrix l = a;
    ASSERT_EQ(dpotrf('L', n, l.data(), n), 0);
    keep_lower(l, n);
    EXPECT_LT(distance(product('N', 'T', n, l, l), a), unit * norm(a));

    Matrix li = l;
    ASSERT_EQ(dtrtri('L', 'N', n, li.data(), n), 0);
    EXPECT_LT(distance(product('N', 'N', n, l, li), identity),
              unit * norm(l) * norm(li) * static_cast<double>(n));

    Matrix ai = l;
    ASSERT_EQ(dpotri('L', n, ai.data(), n), 0);
    Matrix from_li = li;
    ASSERT_EQ(dlauum('L', n, from_li.data(), n), 0);
    EXPECT_LT(distance(ai, from_li), unit * norm(ai));

    Matrix solved = a;  // L^-1 A = L'
    dtrsm('L', 'L', 'N', 'N', n, n, 1.0, l.data(), n, solved.data(), n);
    EXPECT_LT(distance(product('N', 'N', n, l, solved), a), unit * norm(a));

    Matrix squared(a.size(), 0.0);
    dsyrk('L', 'N', n, n, 1.0, l.data(), n, 0.0, squared.data(), n);
    Matrix lower = a;
    keep_lower(lower, n);
    EXPECT_LT(distance(squared, lower), unit * norm(a));

    Matrix v = a;
    std::vector<double> w(static_cast<std::size_t>(n));
    std::vector<double> work;
    std::vector<std::int32_t> iwork;
    ASSERT_EQ(dsyevd('V', 'L', n, v.data(), n, w.data(), work, iwork), 0);
    EXPECT_TRUE(std::is_sorted(w.begin(), w.end()));
    Matrix scaled = v;
    for (std::int64_t j = 0; j < n; ++j)
      dscal(n, w[static_cast<std::size_t>(j)], &scaled[static_cast<std::size_t>(j * n)], 1);
    EXPECT_LT(distance(product('N', 'T', n, scaled, v), a), unit * norm(a));

    std::vector<double> y(static_cast<std::size_t>(n), 1.0);
    dgemv('N', n, n, 1.0, a.data(), n, w.data(), 1, -1.0, y.data(), 1);
    EXPECT_TRUE(near(y[0], ddot(n, a.data(), n, w.data(), 1) - 1.0, 1e-13, 1e-12 * norm(a)));
  }
  const std::vector<double> x{1.0, -3.0, 3.0};
  std::vector<double> y{1.0, 1.0, 1.0};
  EXPECT_EQ(idamax(3, x.data(), 1), 2);
  EXPECT_EQ(idamax(0, x.data(), 1), 0);
  daxpy(3, 2.0, x.data(), 1, y.data(), 1);
  EXPECT_EQ(y, (std::vector<double>{3.0, -5.0, 7.0}));
  Matrix bad{1.0, 2.0, 2.0, 1.0};
  EXPECT_EQ(dpotrf('L', 2, bad.data(), 2), 2);
  EXPECT_FALSE(fits_blas(std::int64_t{1} << 31));
  EXPECT_FALSE(fits_blas(-1));
}

// Many small calls at once: each task writes its own result, which may not depend on who computes it.
TEST(Lapack, SameBitsFromOneTwoAndFourThreads)
{
  single_blas_thread();
  constexpr int tasks = 20000;
  constexpr int kinds = 40;
  std::vector<Matrix> inputs;
  for (int k = 0; k < kinds; ++k) inputs.push_back(positive_definite(1 + 2 * k, static_cast<unsigned>(k)));
  const auto run = [&](int threads) {
    std::vector<std::uint64_t> sums(tasks);
#pragma omp parallel for schedule(dynamic, 7) num_threads(threads)
    for (int t = 0; t < tasks; ++t) {
      const int kind = (t * 17) % kinds;
      const std::int64_t n = 1 + 2 * kind;
      const Matrix& a = inputs[static_cast<std::size_t>(kind)];
      Matrix c = a;
      if (t % 2 == 0) {
        dgemm('N', 'T', n, n, n, -1.0, a.data(), n, a.data(), n, 1.0, c.data(), n);
      } else if (dpotrf('L', n, c.data(), n) != 0) {
        c.clear();
      }
      std::uint64_t sum = 14695981039346656037u;  // FNV over the bits
      for (double x : c) {
        std::uint64_t bits;
        std::memcpy(&bits, &x, sizeof bits);
        sum = (sum ^ bits) * 1099511628211u;
      }
      sums[static_cast<std::size_t>(t)] = sum;
    }
    return sums;
  };
  const auto expected = run(1);
  for (int threads : {1, 2, 4}) {
    for (int round = 0; round < 2; ++round) EXPECT_EQ(run(threads), expected) << threads << " threads";
  }
}

TEST(Packed, TrianglesByRowsFromOne)
{
  std::vector<int> a(static_cast<std::size_t>(packed_size(3)));
  const PackedLower<int> lower{a};
  int next = 0;
  for (int i = 1; i <= 3; ++i) {
    for (int j = 1; j <= i; ++j) lower(i, j) = ++next;
  }
  EXPECT_EQ(a, (std::vector<int>{1, 2, 3, 4, 5, 6}));
  const PackedSymmetric<const int> both{a};
  EXPECT_EQ(both(1, 3), both(3, 1));
  EXPECT_EQ((Numbered<int>{a}(6)), 6);
}

TEST(Clock, TimesRunForward)
{
  const double wall = wall_seconds();
  const double cpu = cpu_seconds();
  double sum = 0.0;
  for (int k = 1; k < 2'000'000; ++k) sum += 1.0 / k;
  EXPECT_GT(sum, 14.0);
  EXPECT_GT(wall_seconds(), wall);
  EXPECT_GT(cpu_seconds(), cpu);
  EXPECT_GE(processor_threads(), 1);
  EXPECT_EQ(local_time("%Y").size(), 4u);
}

}  // namespace
}  // namespace tolvan
