// Random effects whose covariance matrix is singular but for a little: the fit must be that of the singular limit.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "fits/host.h"

namespace {

using tolvan_test::dataset;
using tolvan_test::Host;

struct Answer {
  std::vector<double> trace;
  double logl = 0.0;
  std::string errors;
};

Answer fit(const std::vector<double>& values, const std::string& random)
{
  Host host;
  const std::size_t records = values.size() / 2;
  host.info("{\"dataset\":" + dataset("d", records, {{"x", 0}, {"y", 0}}) + "}");
  host.matrix("d", values, static_cast<int>(records), 2);
  host.process(R"({"model":{"response":"y","random":")" + random + R"("},"options":{"maxiterations":60,"extra":5}})");
  return {host.reals("TABLE_TRACE:LOGL"), host.real("SCALAR_LOGLIK"), host.errors()};
}

// Places in pairs: as the two places of a pair approach each other, their effects become one.
TEST(NearlySingular, PlacesThatAlmostCoincide)
{
  constexpr int pairs = 10;
  constexpr int records = 80;
  struct Case {
    std::string random;
    double gap;
    double tolerance;  // of LogL
    bool whole;        // the whole fit stays where the matrix can be inverted
  };
  const std::vector<Case> cases = {{"expv(x,init=[0.3,0.8])", 1e-8, 1e-6, true},
                                   {"expv(x,init=[0.3,0.8])", 1e-10, 1e-5, true},
                                   {"expv(x,init=[0.3,0.8])", 1e-11, 1e-3, true},
                                   {"gauv(x,init=[0.3,0.8])", 1e-4, 1e-3, false}};
  for (const Case& each : cases) {
    SCOPED_TRACE(testing::Message() << each.random << " gap " << each.gap);
    std::mt19937 random(3);
    std::normal_distribution<double> normal;
    std::vector<double> effect(pairs);
    for (int k = 0; k < pairs; ++k) effect[static_cast<std::size_t>(k)] = std::sin(0.8 * k) + 0.5 * normal(random);
    std::vector<double> apart, together, y;
    for (int r = 0; r < records; ++r) {
      const auto pair = static_cast<std::size_t>(random() % pairs);
      const auto x = static_cast<double>(pair);
      together.push_back(x);
      apart.push_back(x + (r % 2 == 0 ? 0.0 : each.gap));
      y.push_back(5.0 + effect[pair] + 0.7 * normal(random));
    }
    apart.insert(apart.end(), y.begin(), y.end());
    together.insert(together.end(), y.begin(), y.end());
    const Answer limit = fit(together, each.random);
    const Answer near = fit(apart, each.random);
    ASSERT_FALSE(near.trace.empty()) << near.errors;
    EXPECT_NEAR(near.trace[0], limit.trace[0], each.tolerance);
    EXPECT_EQ(near.errors.find("appears singular"), std::string::npos);
    if (!each.whole) continue;
    EXPECT_NEAR(near.logl, limit.logl, 2e-3);
  }
}

// Plots in pairs under a spatial residual with a nugget: treatments stay, however close the two plots of a pair come.
TEST(NearlySingular, PlotsThatAlmostCoincide)
{
  constexpr int records = 40;
  const auto run = [](double gap, const std::string& model) {
    std::mt19937 random(8);
    std::normal_distribution<double> normal;
    std::vector<double> treatment, x, y;
    for (int r = 0; r < records; ++r) {
      treatment.push_back(static_cast<double>(random() % 3 + 1));
      x.push_back(r / 2 + (r % 2 == 0 ? 0.0 : gap));
      y.push_back(5.0 + 0.4 * treatment.back() + normal(random));
    }
    std::vector<double> values = treatment;
    values.insert(values.end(), x.begin(), x.end());
    values.insert(values.end(), y.begin(), y.end());
    Host host;
    host.info("{\"dataset\":" + dataset("d", records, {{"treatment", 3}, {"x", 0}, {"y", 0}}) + "}");
    host.matrix("d", values, records, 3);
    host.process("{\"model\":" + model + R"(,"initial_values":[{"term":"units","value":0.7}],"options":{"maxiterations":1}})");
    const std::vector<double> trace = host.reals("TABLE_TRACE:LOGL");
    EXPECT_FALSE(trace.empty()) << host.errors();
    EXPECT_EQ(host.integer("SCALAR_DF"), records - 3);
    return trace.empty() ? 0.0 : trace[0];
  };
  for (const std::string fixed : {R"("fixed":"treatment")", R"("sparse":"treatment")"}) {
    const std::string model = R"({"response":"y",)" + fixed + R"j(,"random":"units","residual":"exp(x,init=[0.3])"})j";
    const double limit = run(1e-6, model);
    for (const double gap : {1e-8, 1e-9, 1e-10, 1e-11}) EXPECT_NEAR(run(gap, model), limit, 1e-4) << fixed << gap;
  }
}

// Records of two lines that a given inverse takes for twins but for a little.
TEST(NearlySingular, TwinsOfAGivenInverse)
{
  constexpr int lines = 8;
  constexpr int records = 48;
  std::mt19937 random(5);
  std::normal_distribution<double> normal;
  std::vector<double> values(static_cast<std::size_t>(2 * records));
  for (int r = 0; r < records; ++r) {
    const int line = r % lines;
    values[static_cast<std::size_t>(r)] = line + 1;
    values[static_cast<std::size_t>(records + r)] = 5.0 + 0.3 * (line / 2) + normal(random);
  }
  const auto logl = [&](double apart) {  // correlation of twins: 1 - apart
    std::vector<double> inverse(lines * lines, 0.0);
    const double d = 1.0 / (apart * (2.0 - apart));
    for (int k = 0; k < lines; ++k) {
      inverse[static_cast<std::size_t>(k * (lines + 1))] = d;
      inverse[static_cast<std::size_t>(k * lines + (k ^ 1))] = -d * (1.0 - apart);
    }
    Host host;
    host.info("{\"dataset\":[" + dataset("d", records, {{"line", lines}, {"y", 0}}) +
              R"(,{"name":"k","number_of_observations":8,"number_of_variables":8,"storage_order":"so_column_major"}]})");
    host.matrix("d", values, records, 2);
    host.matrix("k", inverse, lines, lines);
    host.process(R"j({"model":{"response":"y","random":"vm(line,k)"},"options":{"maxiterations":1}})j");
    const std::vector<double> trace = host.reals("TABLE_TRACE:LOGL");
    EXPECT_FALSE(trace.empty()) << host.errors();
    return trace.empty() ? 0.0 : trace[0];
  };
  const double limit = logl(1e-6);
  for (const double apart : {1e-8, 1e-9, 1e-10}) EXPECT_NEAR(logl(apart), limit, 1e-5) << apart;
}

}  // namespace
