// How fits end that cannot go well: confounded terms, nothing to estimate from, parameters at their bounds, starts beyond them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "fits/host.h"

namespace {

using tolvan_test::dataset;
using tolvan_test::Host;

enum class Response {
  usual,
  constant,
  of_treatments,   // by the treatments exactly
  of_groups,       // by the groups exactly
  one_constant,    // constant within the second treatment
  series,          // a random walk
  alternating,     // up and down
  small            // the usual one in units of a million
};

constexpr int records = 60;

double noise(int k) { return std::sin(12.9898 * (k + 1)) + std::cos(4.1414 * (k + 1) * (k + 1)); }

double response(Response kind, int k)
{
  const double group = 2.0 * noise(100 + k % 10);
  switch (kind) {
    case Response::constant: return 4.0;
    case Response::of_treatments: return 3.0 * (k % 3);
    case Response::of_groups: return group;
    case Response::one_constant: return k % 3 == 1 ? 5.0 : 10.0 + noise(k);
    case Response::series: {
      double sum = 0.0;
      for (int i = 0; i <= k; ++i) sum += noise(i);
      return sum;
    }
    case Response::alternating: return (k % 2 == 0 ? 2.0 : -2.0) + 0.5 * noise(k);
    case Response::small: return 1e-6 * (10.0 + group + noise(k));
    default: return 10.0 + group + noise(k);
  }
}

struct Case {
  const char* what;
  Response y;
  const char* request;  // without its data
  bool fails;
  const char* words;
};

const Case cases[] = {
    {"a term twice", Response::usual, R"_("model":{"response":"y","random":"group+copy"})_", true,
     "the data do not tell copy;IDV_V from group;IDV_V"},
    {"a random term equal to a fixed one", Response::usual, R"_("model":{"response":"y","fixed":"group","random":"copy+block"})_", true,
     "the data say nothing about copy;IDV_V"},
    {"the residual again", Response::usual, R"_("model":{"response":"y","random":"plot"})_", true,
     "the data do not tell plot;IDV_V from units;IDV_V"},
    {"the residual again beside another term", Response::usual, R"_("model":{"response":"y","random":"group+plot"})_", true,
     "units;IDV_V together"},
    {"three times the same", Response::usual, R"_("model":{"response":"y","random":"group+group:copy+copy"})_", true,
     "2 singularities appeared in Average Information matrix"},
    {"groups without error", Response::of_groups, R"_("model":{"response":"y","random":"group"})_", true,
     "the data do not tell group;IDV_V from units;IDV_V"},
    {"a constant response", Response::constant, R"_("model":{"response":"y","random":"group"})_", true,
     "No or Negative residual variation"},
    {"a perfect fit", Response::of_treatments, R"_("model":{"response":"y","fixed":"treat","random":"group"})_", true,
     "No or Negative residual variation"},
    {"a section without variation", Response::one_constant,
     R"_("model":{"response":"y","fixed":"treat","residual":"dsum(units|treat)"})_", true,
     "the data say nothing about sat(treat,2):units;IDV_V"},
    {"a correlation that starts beyond its bound", Response::series,
     R"_("model":{"response":"y","residual":"ar1(plot)"},"initial_values":[{"term":"plot;AR1_R","value":50}])_", false, "LogL Converged"},
    {"a power that wants to be negative", Response::alternating, R"_("model":{"response":"y","residual":"exp(plot)"})_", false,
     "LogL Converged"},
    {"small units", Response::small, R"_("model":{"response":"y","random":"group"})_", false, "LogL Converged"},
    {"a negative variance that may not be", Response::alternating,
     R"_("model":{"response":"y","random":"pair"},"initial_values":[{"term":"pair","value":0.5}])_", false, "LogL Converged"},
};

void run(Host& host, const Case& c)
{
  std::vector<double> values;
  const auto column = [&](auto at) {
    for (int k = 0; k < records; ++k) values.push_back(at(k));
  };
  for (int twice = 0; twice < 2; ++twice) column([](int k) { return 1.0 + k % 10; });
  column([](int k) { return 1.0 + k / 10; });
  column([](int k) { return 1.0 + k % 3; });
  column([](int k) { return 1.0 + k; });
  column([](int k) { return 1.0 + k / 2; });
  column([&](int k) { return response(c.y, k); });
  host.info("{\"dataset\":" +
            dataset("d", records, {{"group", 10}, {"copy", 10}, {"block", 6}, {"treat", 3}, {"plot", 60}, {"pair", 30}, {"y", 0}}) + "}");
  host.matrix("d", values, records, 7);
  host.process(std::string("{\"options\":{\"maxiterations\":30},") + c.request + "}");
}

TEST(HardModels, EndWithTheRightWordsAndTablesWithoutGaps)
{
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Host host;
    run(host, c);
    const int status = host.status;
    const std::string words = host.errors() + host.json("OPTIONAL:SCALAR_FINAL_MESSAGE");
    EXPECT_EQ(status > 0, c.fails) << status << " " << words;
    EXPECT_NE(words.find(c.words), std::string::npos) << words;
    EXPECT_EQ(words.find("RESIDUAL variance is trying to go negative"), std::string::npos) << words;
    for (const char* table : {"TABLE_VARCOMP:SIGMA", "TABLE_VARCOMP:SE", "TABLE_SLN:EFFECT", "TABLE_SLN:SE", "TABLE_YHT:YHAT", "TABLE_TRACE:LOGL"}) {
      for (const double x : host.reals(table)) EXPECT_TRUE(std::isfinite(x)) << table;
    }
  }
}

// At a bound the parameter is told as B; started beyond it, it comes back from there.
TEST(HardModels, BoundsHoldOnlyWhatInsists)
{
  const auto fitted = [](const char* what, Host& host) {
    run(host, *std::find_if(std::begin(cases), std::end(cases), [&](const Case& c) { return std::string(c.what) == what; }));
  };
  Host beyond, plain;
  fitted("a correlation that starts beyond its bound", beyond);
  run(plain, {"", Response::series, R"_("model":{"response":"y","residual":"ar1(plot)"})_", false, ""});
  EXPECT_NEAR(beyond.real("SCALAR_LOGLIK"), plain.real("SCALAR_LOGLIK"), 2e-3);  // as near as a fit must come

  Host power, alone;
  fitted("a power that wants to be negative", power);
  run(alone, {"", Response::alternating, R"_("model":{"response":"y"})_", false, ""});
  EXPECT_NEAR(power.real("SCALAR_LOGLIK"), alone.real("SCALAR_LOGLIK"), 1e-4);
  EXPECT_NE(power.json("OPTIONAL:TABLE_VARCOMP").find("\"B\""), std::string::npos) << power.json("OPTIONAL:TABLE_VARCOMP");
  EXPECT_LE(power.reals("TABLE_TRACE:LOGL").size(), 10u);
}

}  // namespace
