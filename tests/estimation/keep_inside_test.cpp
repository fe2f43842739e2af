// Steps of unstructured matrices that are kept in their space.
#include "estimation/keep_inside.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <random>

#include "base/lapack.h"

namespace tolvan {
namespace {

std::vector<double> square(std::int64_t n, const std::vector<double>& packed)
{
  std::vector<double> a(static_cast<std::size_t>(n * n));
  std::size_t k = 0;
  for (std::int64_t i = 0; i < n; ++i) {
    for (std::int64_t j = 0; j <= i; ++j, ++k)
      a[static_cast<std::size_t>(i + j * n)] = a[static_cast<std::size_t>(j + i * n)] = packed[k];
  }
  return a;
}

std::vector<std::size_t> all(std::size_t m)
{
  std::vector<std::size_t> out(m);
  std::iota(out.begin(), out.end(), std::size_t{0});
  return out;
}

double least_eigenvalue(std::int64_t n, std::vector<double> a)
{
  std::vector<double> w(static_cast<std::size_t>(n)), work;
  std::vector<std::int32_t> iwork;
  EXPECT_EQ(dsyevd('N', 'L', n, a.data(), n, w.data(), work, iwork), 0);
  return w.front();
}

/// The conditions of Karush, Kuhn and Tucker of the convex problem: nothing is below the limit, the score points out of the
/// space only, and only along what lies at the limit.
TEST(KeepInside, NearestMatrixMeetsTheConditionsOfTheOptimum)
{
  std::mt19937 random(3);
  std::normal_distribution<double> normal;
  int outside = 0;
  for (int round = 0; round < 60; ++round) {
    const std::int64_t n = 1 + round % 6;
    const auto m = static_cast<std::size_t>(n * (n + 1) / 2);
    const auto definite = [&](std::size_t size, double ridge) {
      std::vector<double> a(size * size), b(size * size, 0.0);
      for (double& each : a) each = normal(random);
      for (std::size_t i = 0; i < size; ++i) b[i * (size + 1)] = ridge;
      const auto s = static_cast<std::int64_t>(size);
      dgemm('N', 'T', s, s, s, 1.0, a.data(), s, a.data(), s, 1.0, b.data(), s);
      return b;
    };
    const std::vector<double> v = definite(static_cast<std::size_t>(n), 1.0);
    const std::vector<double> s = definite(m, 0.5);
    std::vector<double> present, target, next;
    for (std::int64_t i = 0; i < n; ++i) {
      for (std::int64_t j = 0; j <= i; ++j) {
        present.push_back(v[static_cast<std::size_t>(i + j * n)]);
        target.push_back(present.back() - (i == j ? 0.8 : 0.2) * present.back() * std::fabs(normal(random)) * 2.0 + 0.5 * normal(random));
      }
    }
    if (!leaves_space(n, present, target)) continue;
    ++outside;
    SCOPED_TRACE(round);
    ASSERT_TRUE(nearest_inside(n, present, target, all(m), s, next));

    std::vector<double> above(m), score(m, 0.0);
    for (std::size_t i = 0; i < m; ++i) above[i] = next[i] - 0.0949 * present[i];
    for (std::size_t j = 0; j < m; ++j) {
      for (std::size_t i = 0; i < m; ++i) score[i] += s[i + j * m] * (target[j] - next[j]);
    }
    std::size_t k = 0;
    double along = 0.0, size = 0.0;
    for (std::int64_t i = 0; i < n; ++i) {
      for (std::int64_t j = 0; j <= i; ++j, ++k) {
        along += score[k] * above[k];
        size += std::fabs(score[k] * above[k]);
        score[k] *= i == j ? -1.0 : -0.5;  // of both cells, and the multiplier is minus the score
      }
    }
    EXPECT_GT(least_eigenvalue(n, square(n, above)), -1e-7);
    EXPECT_GT(least_eigenvalue(n, square(n, score)), -1e-5);
    EXPECT_NEAR(along, 0.0, 1e-6 * (1.0 + size));
  }
  EXPECT_GT(outside, 30);
}

/// Of correlation matrices, where the diagonal stays: none nearby is better.
TEST(KeepInside, CorrelationsAreTheBestNearby)
{
  std::mt19937 random(11);
  std::uniform_real_distribution<double> between(-1.0, 1.0);
  for (std::int64_t n = 2; n <= 6; ++n) {
    SCOPED_TRACE(n);
    std::vector<double> present, target;
    std::vector<std::size_t> elements;
    for (std::int64_t i = 0; i < n; ++i) {
      for (std::int64_t j = 0; j <= i; ++j) {
        if (i != j) elements.push_back(present.size());
        present.push_back(i == j ? 1.0 : 0.3);
        target.push_back(i == j ? 1.0 : 1.6 * between(random) + (n == 2 ? 2.5 : 0.0));
      }
    }
    const std::size_t p = elements.size();
    std::vector<double> s(p * p, 0.0), next;
    for (std::size_t i = 0; i < p; ++i) s[i * (p + 1)] = 1.0 + static_cast<double>(i);
    ASSERT_TRUE(leaves_space(n, present, target));
    ASSERT_TRUE(nearest_inside(n, present, target, elements, s, next));
    const auto loss = [&](const std::vector<double>& v) {
      double sum = 0.0;
      for (std::size_t i = 0; i < p; ++i) sum += s[i * (p + 1)] * (v[elements[i]] - target[elements[i]]) * (v[elements[i]] - target[elements[i]]);
      return sum;
    };
    const auto feasible = [&](const std::vector<double>& v, double by) {
      std::vector<double> above(v.size());
      for (std::size_t i = 0; i < v.size(); ++i) above[i] = v[i] - 0.0949 * present[i];
      return least_eigenvalue(n, square(n, above)) >= by;
    };
    EXPECT_TRUE(feasible(next, -1e-7));
    int better = 0;
    for (int round = 0; round < 3000; ++round) {
      const double reach = round % 3 == 0 ? 0.3 : round % 3 == 1 ? 0.03 : 0.003;
      std::vector<double> other = next;
      for (const std::size_t e : elements) other[e] += reach * between(random);
      better += feasible(other, 0.0) && loss(other) < loss(next) - 1e-6 ? 1 : 0;
    }
    EXPECT_EQ(better, 0);
  }
}

TEST(KeepInside, OnlyWhatLeavesIsMoved)
{
  const std::vector<double> v = {1.0, 0.5, 2.0};
  EXPECT_FALSE(leaves_space(2, v, {0.5, 0.2, 1.0}));
  EXPECT_FALSE(leaves_space(2, v, {40.0, -3.0, 2.0}));
  EXPECT_TRUE(leaves_space(2, v, {1.0, 1.5, 2.0}));    // a correlation above 1
  EXPECT_TRUE(leaves_space(2, v, {0.05, 0.0, 2.0}));   // a variance that falls too far at once
  EXPECT_FALSE(leaves_space(2, {1.0, 1.0, 1.0}, {1.0, 2.0, 1.0}));  // nothing to stand on
  EXPECT_TRUE(at_edge(2, {1.0, 0.99999, 1.0}));
  EXPECT_FALSE(at_edge(2, {1.0, 0.99, 1.0}));
  // From the edge there is no way further out.
  const std::vector<double> edge = {1.0, 0.999999, 1.0};
  std::vector<double> next;
  ASSERT_TRUE(leaves_space(2, edge, {1.0, 1.5, 1.0}));
  ASSERT_TRUE(nearest_inside(2, edge, {1.0, 1.5, 1.0}, all(3), {1, 0, 0, 0, 1, 0, 0, 0, 1}, next));
  EXPECT_GE(next[0] * next[2], next[1] * next[1]);
}

}  // namespace
}  // namespace tolvan
