// Inverses of dominance relationships against the relationships by definition.
#include "pedigree/dominance.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "base/text.h"
#include "random_pedigrees.h"
#include "support/checks.h"

namespace tolvan_test {
namespace {

/// A row of a pedigree and its two parents, 0 where not known; a group is not known.
struct Parents {
  std::int64_t s, d;
};
Parents parents_of(const PEDIGREE& p, std::int64_t i)
{
  const std::int64_t s = p.male[static_cast<std::size_t>(i - 1)];
  const std::int64_t d = p.female[static_cast<std::size_t>(i - 1)];
  return {s > p.groups ? s : 0, d > p.groups ? d : 0};
}

/// D with 1 on the diagonal and (a_ss' a_dd' + a_sd' a_ds') / 4 off it; rows of groups are 0.
Dense dominance(const PEDIGREE& p, const Dense& a)
{
  Dense d(p.rows());
  const auto related = [&](std::int64_t i, std::int64_t j) { return i > 0 && j > 0 ? a(i, j) : 0.0; };
  for (std::int64_t i = p.groups + 1; i <= p.rows(); ++i) {
    const Parents x = parents_of(p, i);
    for (std::int64_t j = p.groups + 1; j <= p.rows(); ++j) {
      const Parents y = parents_of(p, j);
      d(i, j) = i == j ? 1.0 : 0.25 * (related(x.s, y.s) * related(x.d, y.d) + related(x.s, y.d) * related(x.d, y.s));
    }
  }
  return d;
}

/// The largest element of inverse times matrix less the identity, over the rows behind the groups.
double distance_from_inverse(const SPARSE_MTX_LLIST& inverse, const Dense& matrix, std::int64_t groups)
{
  double worst = 0.0;
  for (std::int64_t i = groups + 1; i <= matrix.n; ++i) {
    for (std::int64_t j = groups + 1; j <= matrix.n; ++j) {
      double sum = i == j ? -1.0 : 0.0;
      for (std::int64_t k = groups + 1; k <= matrix.n; ++k) sum += sparse_element(inverse, i, k) * matrix(k, j);
      worst = std::max(worst, std::abs(sum));
    }
  }
  return worst;
}

TEST(Dominance, InversesOfRandomPedigrees)
{
  std::mt19937 random(1966);
  const Draw draws[] = {
      {.rows = 40, .full_sib = 0.5},                     // large families
      {.rows = 60, .unknown = 0.5, .full_sib = 0.3},     // many of them unrelated
      {.rows = 30, .groups = 2, .full_sib = 0.4},
      {.rows = 50, .unknown = 0.1, .full_sib = 0.4, .window = 15},
      {.rows = 3, .unknown = 1.0},                       // no family at all
  };
  for (const Draw& draw : draws) {
    for (int round = 0; round < 40; ++round) {
      SCOPED_TRACE(text(draw.rows, " rows, round ", round));
      const PEDIGREE p = random_pedigree(random, draw);
      std::vector<std::string> labels;
      for (const std::int32_t id : p.id) labels.push_back(text("i", id));
      const Dense a = tabular(p, [&](const Dense& so_far, std::int64_t, std::int64_t s, std::int64_t d) {
        return Share{0.5, 0.5, 1.0 + (s > 0 && d > 0 ? so_far(s, d) / 2.0 : 0.0)};
      });
      const Dense d = dominance(p, a);
      ERROR_HANDLER eh;
      std::vector<DOMINANCE_MATRIX> out;
      K4MVODPED(eh, p, labels, true, out);
      ASSERT_FALSE(eh.terminate()) << messages_text(eh);
      ASSERT_LT(distance_from_inverse(out[0].inverse, d, p.groups), 1e-9);
      EXPECT_EQ(out[0].name, "Dominance");
      EXPECT_EQ(out[0].labels, labels);
      EXPECT_EQ(out[0].empty, p.groups);
      // The determinant of D from that of its rows, one after the other: its inverse has it once more.
      Dense m(p.rows());
      double logdet = 0.0;
      const std::int64_t g = p.groups;
      for (std::int64_t i = g + 1; i <= p.rows(); ++i) {
        for (std::int64_t j = g + 1; j <= i; ++j) {
          double x = d(i, j);
          for (std::int64_t k = g + 1; k < j; ++k) x -= m(i, k) * m(j, k);
          m(i, j) = i == j ? std::sqrt(x) : x / m(j, j);
        }
        logdet += 2.0 * std::log(m(i, i));
      }
      EXPECT_NEAR(out[0].logdet, -logdet, 1e-9);
      if (out.size() == 1) continue;

      // Between and within families: W B W' + R is D.
      ASSERT_EQ(out.size(), 3U);
      ASSERT_EQ(out[1].name, "BetFamInv");
      ASSERT_EQ(out[2].name, "DomWIfam");
      std::vector<std::int64_t> pair_of(static_cast<std::size_t>(p.rows()) + 1, 0);
      for (std::int64_t i = g + 1; i <= p.rows(); ++i) {
        const Parents x = parents_of(p, i);
        if (x.s == 0 || x.d == 0) continue;
        for (std::size_t f = 0; f < out[1].labels.size(); ++f) {
          const std::string& s = labels[static_cast<std::size_t>(x.s - 1)];
          const std::string& dam = labels[static_cast<std::size_t>(x.d - 1)];
          if (out[1].labels[f] == s + ":" + dam || out[1].labels[f] == dam + ":" + s)
            pair_of[static_cast<std::size_t>(i)] = static_cast<std::int64_t>(f) + 1;
        }
        ASSERT_GT(pair_of[static_cast<std::size_t>(i)], 0);
      }
      Dense between(std::ssize(out[1].labels));
      for (std::int64_t i = g + 1; i <= p.rows(); ++i) {
        const std::int64_t f = pair_of[static_cast<std::size_t>(i)];
        const double within = 1.0 / sparse_element(out[2].inverse, i, i);
        EXPECT_EQ(f == 0, within == 1.0);
        for (std::int64_t j = g + 1; j <= p.rows() && f > 0; ++j) {
          const std::int64_t h = pair_of[static_cast<std::size_t>(j)];
          if (h > 0) between(f, h) = i == j ? 1.0 - within : d(i, j);
        }
      }
      EXPECT_LT(distance_from_inverse(out[1].inverse, between, 0), 1e-9);
      EXPECT_EQ(out[2].inverse.used, p.rows());
    }
  }
}

// Full sibs of unrelated parents: 1/4 between, 3/4 within; D^-1 = 4/3 (I - J / (n + 3)) for n of them.
TEST(Dominance, FullSibs)
{
  PEDIGREE p;
  p.id = {0, 1, 2, 3, 4, 5};
  p.male = {0, 0, 1, 2, 1, 0};
  p.female = {0, 0, 2, 1, 2, 2};  // the second of the sibs from the reciprocal cross
  ERROR_HANDLER eh;
  std::vector<DOMINANCE_MATRIX> out;
  K4MVODPED(eh, p, {"a", "b", "c", "d", "e", "f"}, true, out);
  EXPECT_NEAR(sparse_element(out[0].inverse, 4, 3), -4.0 / 18.0, 1e-15);
  EXPECT_NEAR(sparse_element(out[0].inverse, 5, 5), 4.0 / 3.0 - 4.0 / 18.0, 1e-15);
  EXPECT_EQ(sparse_element(out[0].inverse, 6, 6), 1.0);
  EXPECT_NEAR(out[0].logdet, -std::log(0.75 * 0.75 * 1.5), 1e-14);
  EXPECT_EQ(out[1].labels, std::vector<std::string>{"a:b"});
  EXPECT_NEAR(out[1].inverse.values[0], 4.0, 1e-15);
  EXPECT_NEAR(out[2].inverse.values[2], 4.0 / 3.0, 1e-15);
  EXPECT_EQ(messages_text(eh), "1/- dominance relationships of the progeny of 1 pairs of parents, in 1 unrelated blocks\n");
}

TEST(Dominance, WhatCanNotBe)
{
  PEDIGREE p;
  p.id = {0, 1, 2};
  p.male = {2, 0, 0};
  p.female = {0, 0, 0};
  std::vector<DOMINANCE_MATRIX> out;
  ERROR_HANDLER eh;
  K4MVODPED(eh, p, {"a", "b", "c"}, false, out);
  EXPECT_EQ(messages_text(eh), "!4/3 Pedigree order error\n");
  // Generations of selfing: (a_ss^2 + a_ss^2) / 4 comes to 1 and more, which no covariance of sibs can be.
  p.male = p.female = {0, 1, 2, 3, 4, 4};
  p.id = {0, 1, 2, 3, 4, 5};
  ERROR_HANDLER selfed;
  K4MVODPED(selfed, p, {"a", "b", "c", "d", "e", "f"}, false, out);
  EXPECT_EQ(messages_text(selfed),
            "!4/3 individual c and its full sibs have parents too inbred for dominance relationships\n");
}

}  // namespace
}  // namespace tolvan_test
