// The inverse of some rows of a relationship matrix, from the inverse of all.
#include "relmat/reduce_inverse.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "base/lapack.h"
#include "base/text.h"
#include "pedigree/form_ainverse.h"
#include "support/checks.h"

namespace tolvan_test {
namespace {

using namespace tolvan;

using Matrix = std::vector<double>;  // n x n, by columns

/// The inverse of a symmetric matrix and ln of its determinant.
Matrix inverse_of(Matrix a, std::int64_t n, double& logdet)
{
  EXPECT_EQ(dpotrf('L', n, a.data(), n), 0);
  logdet = 0.0;
  for (std::int64_t k = 0; k < n; ++k) logdet += 2.0 * std::log(a[static_cast<std::size_t>(k * n + k)]);
  EXPECT_EQ(dpotri('L', n, a.data(), n), 0);
  for (std::int64_t j = 0; j < n; ++j) {
    for (std::int64_t i = 0; i < j; ++i) a[static_cast<std::size_t>(i + j * n)] = a[static_cast<std::size_t>(j + i * n)];
  }
  return a;
}

Matrix dense_of(const AINV_MTX& m)
{
  Matrix out(static_cast<std::size_t>(m.order * m.order), 0.0);
  for (std::int64_t j = 0; j < m.order; ++j) {
    for (std::int64_t k = m.start[static_cast<std::size_t>(j)]; k < m.start[static_cast<std::size_t>(j) + 1]; ++k) {
      const std::int64_t i = m.row[static_cast<std::size_t>(k)];
      if (k > m.start[static_cast<std::size_t>(j)]) {
        EXPECT_GT(i, m.row[static_cast<std::size_t>(k - 1)]);
      }
      out[static_cast<std::size_t>(i + j * m.order)] = out[static_cast<std::size_t>(j + i * m.order)] =
          m.values[static_cast<std::size_t>(k)];
    }
  }
  return out;
}

TEST(ReduceInverse, IsTheInverseOfTheRowsThatStay)
{
  std::mt19937 random(41);
  for (int round = 0; round < 60; ++round) {
    const int n = 5 + round * 2;
    PEDIGREE p;
    for (std::int32_t i = 0; i < n; ++i) {
      p.id.push_back(i);
      for (std::vector<std::int32_t>* side : {&p.male, &p.female})
        side->push_back(i > 3 && random() % 5 > 0 ? static_cast<std::int32_t>(random() % static_cast<unsigned>(i)) + 1 : 0);
    }
    ERROR_HANDLER eh;
    AINVERSE inverse;
    ASSERT_EQ(K4MAIG(eh, p, {}, inverse), n);
    std::vector<std::string> labels;
    for (int i = 0; i < n; ++i) labels.push_back(text("id", i));
    AINV_MTXS store;
    AINV_MTX* m = AMTXS_REGISTER_TO_AINV(eh, store, "A", "A", inverse.matrix, inverse.logdet, 0, labels);
    ASSERT_NE(m, nullptr);
    m->inbreeding = inverse.inbreeding;
    double logdet = 0.0;
    const Matrix a = inverse_of(dense_of(*m), n, logdet);
    EXPECT_NEAR(m->log_determinant, -logdet, 1e-10 * n);

    std::vector<bool> keep;
    std::vector<std::size_t> kept;
    for (int i = 0; i < n; ++i) {
      keep.push_back(random() % 3 != 0 || i == n - 1);
      if (keep.back()) kept.push_back(static_cast<std::size_t>(i));
    }
    REDUCEAI(eh, keep, *m);
    ASSERT_TRUE(clean(eh));
    const std::size_t d = kept.size();
    ASSERT_EQ(m->order, std::ssize(kept));
    EXPECT_EQ(m->labels.back(), text("id", n - 1));
    EXPECT_EQ(m->inbreeding.back(), inverse.inbreeding.back());
    Matrix part(d * d);
    for (std::size_t j = 0; j < d; ++j) {
      for (std::size_t i = 0; i < d; ++i) part[i + j * d] = a[kept[i] + kept[j] * static_cast<std::size_t>(n)];
    }
    const Matrix want = inverse_of(part, m->order, logdet);
    EXPECT_NEAR(m->log_determinant, logdet, 1e-10 * n);
    EXPECT_TRUE(near(dense_of(*m), want, 1e-9, 1e-11));
  }
}

TEST(ReduceInverse, Faults)
{
  AINV_MTX m;
  m.name = "m";
  m.order = 2;
  m.start = {0, 2, 3};
  m.row = {0, 1, 1};
  m.values = {-1.0, 0.5, 2.0};
  ERROR_HANDLER eh;
  REDUCEAI(eh, {false, true}, m);
  EXPECT_EQ(messages_text(eh), "!4/3 the inverse relationship matrix can not be reduced: row 1 has the pivot -1\n");
  ERROR_HANDLER wrong;
  REDUCEAI(wrong, {true}, m);
  EXPECT_TRUE(has_message(wrong, "the matrix m is not of the kind that can be reduced"));
}

}  // namespace
}  // namespace tolvan_test
