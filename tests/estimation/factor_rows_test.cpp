// Triangular factors seen as their covariance matrix, against its definition and differences.
#include "estimation/factor_rows.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace tolvan {
namespace {

using Vector = std::vector<double>;

std::size_t packed(int i, int j)
{
  return static_cast<std::size_t>(i * (i + 1) / 2 + j);
}

/// V, packed, by forward substitution alone: levels u with e = U'u or u = L e, the e of variance 1/D or D.
Vector matrix_of(bool of_precision, int n, const Vector& theta)
{
  std::vector<Vector> weight;  // of each level on the e
  for (int i = 0; i < n; ++i) {
    Vector w(static_cast<std::size_t>(n), 0.0);
    w[static_cast<std::size_t>(i)] = 1.0;
    for (int j = 0; j < i; ++j) {
      if (of_precision) {
        for (int c = 0; c < n; ++c) w[static_cast<std::size_t>(c)] -= theta[packed(i, j)] * weight[static_cast<std::size_t>(j)][static_cast<std::size_t>(c)];
      } else {
        w[static_cast<std::size_t>(j)] = theta[packed(i, j)];
      }
    }
    weight.push_back(w);
  }
  Vector v;
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j <= i; ++j) {
      double sum = 0.0;
      for (int c = 0; c < n; ++c) {
        const double d = theta[packed(c, c)];
        sum += weight[static_cast<std::size_t>(i)][static_cast<std::size_t>(c)] * weight[static_cast<std::size_t>(j)][static_cast<std::size_t>(c)] *
               (of_precision ? 1.0 / d : d);
      }
      v.push_back(sum);
    }
  }
  return v;
}

TEST(FactorRows, AreTheirCovarianceMatrix)
{
  std::mt19937 random(3);
  std::uniform_real_distribution<double> uniform(-1.0, 1.0);
  for (const bool of_precision : {false, true}) {
    for (const int n : {1, 2, 3, 5}) {
      SCOPED_TRACE(std::to_string(n) + (of_precision ? " of the inverse" : ""));
      const std::size_t p = packed(n, 0);
      Vector theta, step;
      for (int i = 0; i < n; ++i) {
        for (int j = 0; j <= i; ++j) {
          theta.push_back(i == j ? 1.5 + uniform(random) : uniform(random));
          step.push_back(0.3 * uniform(random));
        }
      }
      Vector s(p * p, 0.0);  // positive definite information on theta
      for (std::size_t i = 0; i < p; ++i) {
        for (std::size_t j = 0; j < i; ++j) s[i + j * p] = s[j + i * p] = 0.2 * uniform(random);
        s[i + i * p] = 3.0 + uniform(random);
      }
      Vector present(p), target(p), information;
      ASSERT_TRUE(as_covariances(of_precision, n, theta, step, s, present, target, information));
      const Vector v = matrix_of(of_precision, n, theta);
      Vector jacobian(p * p);  // of V by theta, by columns
      for (std::size_t k = 0; k < p; ++k) {
        constexpr double h = 1e-5;
        Vector up = theta, down = theta;
        up[k] += h;
        down[k] -= h;
        const Vector a = matrix_of(of_precision, n, up), b = matrix_of(of_precision, n, down);
        for (std::size_t e = 0; e < p; ++e) jacobian[e + k * p] = (a[e] - b[e]) / (2.0 * h);
      }
      for (std::size_t e = 0; e < p; ++e) {
        EXPECT_NEAR(present[e], v[e], 1e-12 * (1.0 + std::fabs(v[e])));
        double moved = v[e];
        for (std::size_t k = 0; k < p; ++k) moved += jacobian[e + k * p] * step[k];
        EXPECT_NEAR(target[e], moved, 1e-6 * (1.0 + std::fabs(moved)));
      }
      // Taken back to theta the information is what came in.
      for (std::size_t i = 0; i < p; ++i) {
        for (std::size_t j = 0; j < p; ++j) {
          double back = 0.0;
          for (std::size_t a = 0; a < p; ++a) {
            for (std::size_t b = 0; b < p; ++b) back += jacobian[a + i * p] * information[a + b * p] * jacobian[b + j * p];
          }
          EXPECT_NEAR(back, s[i + j * p], 1e-5);
        }
      }
      const Vector again = as_factors(of_precision, n, v);
      ASSERT_EQ(again.size(), p);
      for (std::size_t k = 0; k < p; ++k) EXPECT_NEAR(again[k], theta[k], 1e-10 * (1.0 + std::fabs(theta[k])));
    }
  }
  EXPECT_TRUE(as_factors(false, 2, {1.0, 2.0, 1.0}).empty());
  Vector present(3), target(3), information;
  EXPECT_FALSE(as_covariances(true, 2, {1.0, 0.5, -1.0}, {0.0, 0.0, 0.0}, {1, 0, 0, 0, 1, 0, 0, 0, 1}, present, target, information));
}

}  // namespace
}  // namespace tolvan
