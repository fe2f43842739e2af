// The EM step of an unstructured matrix.
#include <gtest/gtest.h>

#include <random>

#include "estimation/em_updates.h"
#include "oracle/dense_reml.h"

namespace tolvan {
namespace {

using tolvan_test::Matrix;

TEST(Em, StepGivesTheMeanOfTheExpectedProducts)
{
  // D = -0.5 q Sigma^-1 + 0.5 Sigma^-1 T Sigma^-1 must lead to T / q.
  for (std::int64_t n = 1; n <= 4; ++n) {
    const auto size = static_cast<std::size_t>(n);
    std::mt19937 random(static_cast<unsigned>(n));
    std::normal_distribution<double> normal;
    const auto definite = [&] {
      Matrix a(size, size);
      Matrix b(size, size);
      for (std::size_t i = 0; i < size; ++i) {
        for (std::size_t j = 0; j < size; ++j) a(i, j) = normal(random);
      }
      for (std::size_t i = 0; i < size; ++i) {
        for (std::size_t j = 0; j < size; ++j) {
          b(i, j) = i == j ? 1.0 : 0.0;
          for (std::size_t k = 0; k < size; ++k) b(i, j) += a(i, k) * a(j, k);
        }
      }
      return b;
    };
    const Matrix sigma = definite();
    const Matrix t = definite();
    double log_determinant = 0.0;
    const Matrix inverse = tolvan_test::inverse_spd(sigma, log_determinant);
    const double units = 7.0;
    std::vector<double> s(size * size), d(size * size), next;
    for (std::size_t i = 0; i < size; ++i) {
      for (std::size_t j = 0; j < size; ++j) {
        s[i + j * size] = sigma(i, j);
        d[i + j * size] = -0.5 * units * inverse(i, j);
        for (std::size_t k = 0; k < size; ++k) {
          for (std::size_t l = 0; l < size; ++l) d[i + j * size] += 0.5 * inverse(i, k) * t(k, l) * inverse(l, j);
        }
      }
    }
    K4MEMU(s, d, units, n, next);
    for (std::size_t i = 0; i < size; ++i) {
      for (std::size_t j = 0; j < size; ++j) EXPECT_NEAR(next[i + j * size], t(i, j) / units, 1e-12);
    }
  }
}

}  // namespace
}  // namespace tolvan
