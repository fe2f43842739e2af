// Solutions at given parameters and outlier statistics, through the exports.
#include <gtest/gtest.h>

#include <cmath>

#include "fits/host.h"

namespace {

using tolvan_test::dataset;
using tolvan_test::Host;

/// 60 records of 8 groups; one record far off.
std::vector<double> records()
{
  std::vector<double> group, y;
  for (int r = 0; r < 60; ++r) {
    group.push_back(r % 8 + 1);
    y.push_back(10.0 + 0.8 * std::sin(3.0 * (r % 8)) + 0.3 * std::cos(5.0 * r) + (r == 17 ? 6.0 : 0.0));
  }
  group.insert(group.end(), y.begin(), y.end());
  return group;
}

void run(Host& host, const std::string& options)
{
  host.info("{\"dataset\":" + dataset("d", 60, {{"group", 8}, {"y", 0}}) + "}");
  host.matrix("d", records(), 60, 2);
  host.process(R"x({"model":{"response":"y","random":"idv(group,0.7)"},"options":{)x" + options + "}}");
}

TEST(Solutions, ComeFromTheGivenParametersInEveryMode)
{
  Host fitted;  // an evaluation at the same parameters, followed by an update
  run(fitted, R"("maxiterations":1)");
  ASSERT_LE(fitted.status, 0) << fitted.errors();
  const std::vector<double> effect = fitted.reals("TABLE_SLN:EFFECT");
  const std::vector<double> se = fitted.reals("TABLE_SLN:SE");
  for (const int mode : {1, 2, 3, 4, 10, 16}) {
    SCOPED_TRACE(mode);
    Host host;
    run(host, "\"blup\":" + std::to_string(mode));
    ASSERT_LE(host.status, 0) << host.errors();
    const bool with_inverse = mode == 2 || mode == 3;
    const std::vector<double> given = host.reals("TABLE_VARCOMP:GAMMA");
    EXPECT_EQ(given[0], 0.7);
    EXPECT_NEAR(host.real("SCALAR_SIGMA2"), fitted.real("SCALAR_SIGMA2"), 1e-9);
    EXPECT_NEAR(host.real("SCALAR_LOGLIK"), with_inverse ? fitted.real("SCALAR_LOGLIK") : 0.0, 1e-9);
    EXPECT_LT(host.reals("TABLE_VARCOMP:SE")[0], 0.0 + 1e-30);  // the missing mark: nothing was estimated
    const std::vector<double> found = host.reals("TABLE_SLN:EFFECT");
    ASSERT_EQ(found.size(), effect.size());
    for (std::size_t e = 0; e < effect.size(); ++e) {
      EXPECT_NEAR(found[e], effect[e], 1e-7);
      const double s = host.reals("TABLE_SLN:SE")[e];
      EXPECT_NEAR(s, with_inverse ? se[e] : -1e-37, 1e-9);
    }
    EXPECT_EQ(host.integer("SCALAR_CONVERGENCE_FLG"), 0);
    EXPECT_NE(host.json("SCALAR_FINAL_MESSAGE").find("BLUP run done"), std::string::npos);
    EXPECT_NE(host.errors().find("variance parameters were not estimated because the !BLUP qualifier was specified"), std::string::npos);
    EXPECT_EQ(host.errors().find("Akaike"), std::string::npos);
  }
}

// Structures with Lagrangian rows: conjugate gradients work the effects out that others determine, Gauss-Seidel has no diagonal there.
TEST(Solutions, SingularStructuresAreSolvedByConjugateGradients)
{
  const auto solve = [](Host& host, int mode) {
    host.info("{\"dataset\":" + dataset("d", 60, {{"group", 8}, {"place", 3}, {"y", 0}}) + "}");
    std::vector<double> columns = records();
    std::vector<double> place;
    for (int r = 0; r < 60; ++r) place.push_back((r / 8) % 3 + 1);
    columns.insert(columns.begin() + 60, place.begin(), place.end());
    host.matrix("d", columns, 60, 3);
    host.process(R"x({"model":{"response":"y","fixed":"place","random":"rr(place,1):id(group)"},"options":{"blup":)x" + std::to_string(mode) + "}}");
  };
  Host direct, iterated, swept;
  solve(direct, 2);
  solve(iterated, 4);
  ASSERT_LE(iterated.status, 0) << iterated.errors();
  EXPECT_EQ(iterated.integer("SCALAR_DF"), direct.integer("SCALAR_DF"));
  const std::vector<double> expected = direct.reals("TABLE_SLN:EFFECT");
  const std::vector<double> found = iterated.reals("TABLE_SLN:EFFECT");
  ASSERT_EQ(found.size(), expected.size());
  ASSERT_GT(found.size(), 30U);
  for (std::size_t e = 0; e < expected.size(); ++e) EXPECT_NEAR(found[e], expected[e], 1e-8);
  solve(swept, 14);
  EXPECT_EQ(swept.status, 4);
  EXPECT_NE(swept.errors().find("Gauss Seidel iteration with Lagrangian rows"), std::string::npos) << swept.errors();
}

TEST(Solutions, ModesThatThereAreNotAreToldWhatThereIs)
{
  Host host;
  run(host, R"("blup":20)");
  EXPECT_GT(host.status, 0);
  EXPECT_NE(host.errors().find("4 (solutions by conjugate gradients) or 5 to 19"), std::string::npos) << host.errors();
}

TEST(OutlierColumns, StandWhereTheyAreAskedForAndTellTheOutlier)
{
  Host plain;
  run(plain, R"("maxiterations":30)");
  EXPECT_TRUE(plain.reals("TABLE_YHT:AOM").empty() && plain.reals("TABLE_SLN:AOM").empty());
  Host host;
  run(host, R"("maxiterations":30,"outlier":true)");
  ASSERT_LE(host.status, 0) << host.errors();
  // The statistics are those of one more pass, the final one.
  EXPECT_EQ(host.reals("TABLE_TRACE:LOGL").size(), plain.reals("TABLE_TRACE:LOGL").size() + 1);
  EXPECT_NE(host.json("SCALAR_FINAL_MESSAGE").find("LogL Converged"), std::string::npos);
  const std::vector<double> aom = host.reals("TABLE_YHT:AOM");
  ASSERT_EQ(aom.size(), 60U);
  for (std::size_t r = 0; r < 60; ++r) {
    if (r == 17) {
      EXPECT_GT(aom[r], 5.0);
    } else {
      EXPECT_LT(std::fabs(aom[r]), 3.0) << r;
    }
  }
  // Of independent records it is the residual over its own standard deviation, sqrt(s2 (1 - hat)).
  const std::vector<double> residual = host.reals("TABLE_YHT:RESID");
  const std::vector<double> hat = host.reals("TABLE_YHT:HAT");
  const double s2 = host.real("SCALAR_SIGMA2");
  const std::vector<double> rinv = host.reals("TABLE_YHT:RINV");
  for (std::size_t r = 0; r < 60; ++r) {
    EXPECT_NEAR(aom[r], residual[r] / std::sqrt(s2 * (1.0 - hat[r])), 1e-9);
    EXPECT_NEAR(rinv[r], residual[r] / s2, 1e-12);
  }
  // GiEffect is u over its variance; the variance of u is that less the prediction error variance.
  const std::vector<double> effect = host.reals("TABLE_SLN:EFFECT");
  const std::vector<double> se = host.reals("TABLE_SLN:SE");
  const double v = host.reals("TABLE_VARCOMP:SIGMA")[0];
  const std::vector<double> gi = host.reals("TABLE_SLN:GISE");
  const std::vector<double> stat = host.reals("TABLE_SLN:AOM");
  ASSERT_EQ(stat.size(), 9U);
  EXPECT_LT(std::fabs(gi[0]), 1e-30);  // mu: the missing mark
  for (std::size_t e = 1; e < 9; ++e) {
    EXPECT_NEAR(gi[e], effect[e] / v, 1e-9);
    EXPECT_NEAR(stat[e], effect[e] / std::sqrt(v - se[e] * se[e]), 1e-8);
  }
}

}  // namespace
