// Fits whose best LogL lies at the boundary of the space of covariance matrices.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "fits/host.h"

namespace {

using tolvan_test::dataset;
using tolvan_test::Host;

constexpr int sites = 4;
constexpr int lines = 8;
constexpr int plots = 3;

/// Lines that behave nearly alike at all sites: the best covariance matrix of sites is singular or nearly so.
std::vector<double> one_factor_trial(unsigned seed)
{
  std::mt19937 random(seed);
  std::normal_distribution<double> normal;
  constexpr double loading[sites] = {1.0, 0.8, 1.2, 0.9};
  std::vector<double> site, line, y;
  double effect[sites][lines];
  for (int k = 0; k < lines; ++k) {
    const double u = normal(random);
    for (int s = 0; s < sites; ++s) effect[s][k] = loading[s] * u + 0.15 * normal(random);
  }
  for (int s = 0; s < sites; ++s) {
    for (int r = 0; r < lines * plots; ++r) {
      site.push_back(s + 1);
      line.push_back(r % lines + 1);
      y.push_back(10.0 + effect[s][r % lines] + 0.7 * normal(random));
    }
  }
  site.insert(site.end(), line.begin(), line.end());
  site.insert(site.end(), y.begin(), y.end());
  return site;
}

/// A field of rows and columns with autoregressive residuals, and a nugget.
std::vector<double> field_trial(unsigned seed, int rows, int columns, double along_rows, double along_columns, double nugget)
{
  std::mt19937 random(seed);
  std::normal_distribution<double> normal;
  const auto place = [columns](int r, int c) { return static_cast<std::size_t>(r * columns + c); };
  std::vector<double> row, column, e(place(rows, 0));
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < columns; ++c) {
      row.push_back(r + 1);
      column.push_back(c + 1);
      double& here = e[place(r, c)];
      here = normal(random);
      if (c > 0) here = along_columns * e[place(r, c - 1)] + std::sqrt(1.0 - along_columns * along_columns) * here;
    }
  }
  for (int r = 1; r < rows; ++r) {
    for (int c = 0; c < columns; ++c) {
      double& here = e[place(r, c)];
      here = along_rows * e[place(r - 1, c)] + std::sqrt(1.0 - along_rows * along_rows) * here;
    }
  }
  for (double& each : e) each += nugget * normal(random);
  row.insert(row.end(), column.begin(), column.end());
  row.insert(row.end(), e.begin(), e.end());
  return row;
}

/// The LogL of every iteration of a field trial with a nugget.
std::vector<double> field_trace(const std::vector<double>& data, int rows, int columns, const std::string& options)
{
  Host host;
  const auto records = data.size() / 3;
  host.info("{\"dataset\":" + dataset("d", records, {{"row", rows}, {"column", columns}, {"y", 0}}) + "}");
  host.matrix("d", data, static_cast<int>(records), 3);
  host.process(R"j({"model":{"response":"y","fixed":"mu","random":"row+units","residual":"ar1(row):ar1(column)"},)j"
               R"j("options":{"maximum_number_of_threads":1,"maxiterations":60)j" +
               options + "}}");
  EXPECT_EQ(host.errors().find("singularities in AI matrix"), std::string::npos) << host.errors();
  return host.reals("TABLE_TRACE:LOGL");
}

/// The LogL of every iteration.
std::vector<double> trace(const std::vector<double>& data, const std::string& random, const std::string& options)
{
  Host host;
  const auto records = data.size() / 3;
  host.info("{\"dataset\":" + dataset("d", records, {{"site", sites}, {"line", lines}, {"y", 0}}) + "}");
  host.matrix("d", data, static_cast<int>(records), 3);
  host.process(R"({"model":{"response":"y","fixed":"site","random":")" + random + R"("},"options":{"maxiterations":60)" + options + "}}");
  return host.reals("TABLE_TRACE:LOGL");
}

TEST(BoundaryFits, UnstructuredReachesWhatItsSubmodelsReach)
{
  int mended_below = 0;
  for (unsigned seed = 1; seed <= 6; ++seed) {
    const std::vector<double> data = one_factor_trial(seed);
    const std::vector<double> best = trace(data, "us(site):id(line)", "");
    ASSERT_FALSE(best.empty());
    EXPECT_LE(best.size(), 12U);
    const std::vector<double> longer = trace(data, "us(site):id(line)", ",\"extra\":25");
    ASSERT_FALSE(longer.empty());
    EXPECT_NEAR(best.back(), longer.back(), 2e-3);
    const std::vector<double> correlated = trace(data, "corgh(site):id(line)", "");  // the same matrices by correlations
    ASSERT_FALSE(correlated.empty());
    EXPECT_LE(correlated.size(), 15U);
    EXPECT_NEAR(correlated.back(), longer.back(), 2e-3);
    for (const char* submodel : {"fa(site,1):id(line)", "corh(site):id(line)", "rr(site,1):id(line)"}) {
      const std::vector<double> sub = trace(data, submodel, ",\"extra\":3");
      ASSERT_FALSE(sub.empty()) << submodel;
      EXPECT_GE(best.back(), sub.back() - 0.02) << "seed " << seed << " " << submodel;
    }
    // Neither kind of EM update ever lowers LogL.
    for (const char* option : {",\"pxem\":1", ",\"emflag\":1", ",\"emflag\":3"}) {
      const std::vector<double> steps = trace(data, "us(site):id(line)", option);
      ASSERT_FALSE(steps.empty());
      EXPECT_TRUE(std::is_sorted(steps.begin(), steps.end(), [](double a, double b) { return a < b - 1e-6; })) << option;
      EXPECT_NEAR(steps.back(), best.back(), 0.6) << option;
    }
    const std::vector<double> mended = trace(data, "us(site):id(line)", ",\"emflag\":0");
    mended_below += !mended.empty() && mended.back() < best.back() - 1.0 ? 1 : 0;
  }
  EXPECT_GT(mended_below, 0) << "these trials no longer show what the EM updates are for";
}

/// A nugget beside correlated residuals: variances that go to zero, correlations that pass through it, where the two can't be told
/// apart.  The fit ends at the top whichever way it comes.
TEST(BoundaryFits, NuggetsBesideCorrelatedResiduals)
{
  struct Case {
    int rows, columns;
    double along_rows, along_columns, nugget;
  };
  const Case cases[] = {{10, 10, 0.7, 0.95, 0.0}, {9, 10, 0.6, 0.3, 1.0}, {13, 5, -0.5, 0.0, 0.0}, {6, 5, 0.7, 0.3, 0.5},
                        {11, 7, 0.95, 0.95, 0.0}, {13, 14, -0.5, -0.5, 0.5}};
  for (const Case& c : cases) {
    for (unsigned seed = 1; seed <= 4; ++seed) {
      SCOPED_TRACE(testing::Message() << c.rows << " x " << c.columns << ", " << c.along_rows << ", seed " << seed);
      const std::vector<double> data = field_trial(seed, c.rows, c.columns, c.along_rows, c.along_columns, c.nugget);
      const std::vector<double> best = field_trace(data, c.rows, c.columns, "");
      const std::vector<double> longer = field_trace(data, c.rows, c.columns, ",\"extra\":25");
      ASSERT_FALSE(best.empty());
      ASSERT_FALSE(longer.empty());
      EXPECT_LE(best.size(), 30U);
      EXPECT_NEAR(best.back(), longer.back(), 0.05);  // the stop rule lets LogL change by 0.002 times the iterations
    }
  }
}

}  // namespace
