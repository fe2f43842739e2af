// How a fit ends: as its user wishes, with words of its own, and what it then reports.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>

#include "fits/fit_data.h"

namespace {

using tolvan_test::crossed;
using tolvan_test::Data;
using tolvan_test::hand_in;
using tolvan_test::Host;
using tolvan_test::three_groups;

extern "C" void finish_at_once(std::int32_t* result, const char*, std::int32_t) { *result = -1; }
extern "C" void abort_at_once(std::int32_t* result, const char*, std::int32_t) { *result = 7; }

TEST(Fit, EndsAsTheUserWishes)
{
  const Data data = crossed(300, 20, 10, 2, 17);
  const std::string request = R"({"model":{"response":"y","random":"s + d"},"options":{"extra":30,"maxiterations":60}})";
  {
    Host host;
    hand_in(host, data);
    host.monitor(finish_at_once);
    EXPECT_LT(host.process(request), 0) << host.errors();
    EXPECT_LE(host.reals("TABLE_TRACE:LOGL").size(), 4U);
    EXPECT_FALSE(host.reals("TABLE_VARCOMP:SIGMA").empty());
    EXPECT_NE(host.json("SCALAR_FINAL_MESSAGE").find("JOB INTERUPTED by USER"), std::string::npos);
    const std::string errors = host.errors();
    const std::string words = "User sent a finish code, code = -1";
    ASSERT_NE(errors.find(words), std::string::npos);
    EXPECT_EQ(errors.find(words, errors.find(words) + 1), std::string::npos) << "the finish code is held once";
  }
  {
    Host host;
    hand_in(host, data);
    host.monitor(abort_at_once);
    EXPECT_EQ(host.process(request), 5);
    EXPECT_NE(host.errors().find("User sent an abort code, code = 7"), std::string::npos);
    EXPECT_EQ(host.reals("TABLE_TRACE:LOGL").size(), 1U);
    EXPECT_EQ(host.integer("SCALAR_CONVERGENCE_FLG"), 1);
  }
  const auto folder = std::filesystem::temp_directory_path() / ("tolvan_markers_" + std::to_string(std::random_device{}()));
  std::filesystem::create_directory(folder);
  const auto here = std::filesystem::current_path();
  std::filesystem::current_path(folder);
  {
    std::ofstream("FINALTLV.NOW") << "";
    Host host;
    hand_in(host, data);
    EXPECT_LT(host.process(request), 0) << host.errors();
    EXPECT_FALSE(std::filesystem::exists("FINALTLV.NOW"));
    EXPECT_LE(host.reals("TABLE_TRACE:LOGL").size(), 4U);
    EXPECT_FALSE(host.reals("TABLE_SLN:EFFECT").empty());
  }
  {
    std::ofstream("ABORTTLV.NOW") << "";
    Host host;
    hand_in(host, data);
    EXPECT_GT(host.process(request), 0);
    EXPECT_FALSE(std::filesystem::exists("ABORTTLV.NOW"));
  }
  std::filesystem::current_path(here);
  std::filesystem::remove_all(folder);
}

TEST(Fit, HardModelsEndWithTheirWords)
{
  struct Case {
    const char* what;
    std::string request;
    std::vector<double> y;
    bool fails;
    const char* words;
  };
  const std::string model = R"({"model":{"response":"y","random":"group"})";
  const std::vector<double> y = three_groups.columns[1];
  const Case cases[] = {
      {"no iteration", model + R"(,"options":{"maxiterations":0}})", y, true,
       "model not processed because maximum number of iterations was set to 0"},
      {"one iteration", model + R"(,"options":{"maxiterations":1}})", y, false, " Warning: LogL not converged"},
      {"a constant response", model + "}", std::vector<double>(7, 4.0), true, "No or Negative residual variation"},
      {"a saturated model", R"({"model":{"response":"y","fixed":"units"}})", y, true, ""},
      {"a term that is the residual again", R"({"model":{"response":"y","random":"group + units"}})", y, true,
       "singularities appeared in Average Information matrix"},
      {"a singularity that is let go, to the limit",
       R"({"model":{"response":"y","random":"group + units"},"options":{"aisingularities":1,"maxiterations":3}})", y, false,
       "Warning: iteration aborted because of singularities in AI matrix"},
      {"a zero start", model + R"(,"initial_values":[{"term":"group","value":0.0,"constraint":"P"}]})", y, false,
       "group dropped from model at iteration 1 because variance is negligible"},
      {"all responses missing", model + "}", std::vector<double>(7, -1e-37), true, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Data data = three_groups;
    data.columns[1] = c.y;
    Host host;
    hand_in(host, data);
    const int status = host.process(c.request);
    const std::string words = host.errors() + host.json("OPTIONAL:SCALAR_FINAL_MESSAGE");
    EXPECT_EQ(status > 0, c.fails) << status << " " << words;
    EXPECT_NE(words.find(c.words), std::string::npos) << words;
  }
}

// The likelihood does not depend on terms that no record has a design for; their variance stays where it starts.
TEST(Fit, TermsWithoutADesignChangeNothing)
{
  const auto run = [](Host& host, const std::string& random) {
    hand_in(host, {{{"group", 3}, {"f", 3}, {"y", 0}},
                   {{1, 1, 1, 2, 2, 3, 3}, {1, 2, 1, 2, 1, 2, 1}, {10, 12, 9, 15, 14, 20, 18}}});
    return host.process(R"({"model":{"response":"y","random":")" + random + R"("},"options":{"extra":5,"maxiterations":50}})");
  };
  Host alone;
  ASSERT_LE(run(alone, "group"), 0) << alone.errors();
  for (const char* term : {"zero(4)", "f:zero(2)", "idv(zero(3))", "at(f,3):f", "diag(f):zero(2)"}) {
    Host host;
    ASSERT_LE(run(host, std::string("group+") + term), 0) << term << host.errors();
    EXPECT_NEAR(host.real("SCALAR_LOGLIK"), alone.real("SCALAR_LOGLIK"), 1e-10) << term;
    const std::vector<double> sigma = host.reals("TABLE_VARCOMP:SIGMA");
    EXPECT_NEAR(sigma.front(), alone.reals("TABLE_VARCOMP:SIGMA").front(), 1e-8) << term;
    EXPECT_NEAR(sigma.back(), alone.reals("TABLE_VARCOMP:SIGMA").back(), 1e-8) << term;
  }
}

TEST(Fit, ReportsRelativeToABaseWhenLogLIsLarge)
{
  Data data = crossed(20000, 200, 50, 5, 23);
  for (double& y : data.columns[5]) y *= 2000.0;
  Host host;
  hand_in(host, data);
  ASSERT_LE(host.process(R"({"model":{"response":"y","random":"s"}})"), 0) << host.errors();
  EXPECT_NE(host.errors().find("LogL values are reported relative to a base of"), std::string::npos) << host.errors();
  const double logl = host.real("SCALAR_LOGLIK");
  EXPECT_LT(std::fabs(logl), 120000.0);
  EXPECT_NEAR(host.reals("TABLE_TRACE:LOGL").back(), logl, 1e-6);
  const double full = 0.5 * (2.0 * host.integer("SCALAR_AIC_NPARAM") - host.real("SCALAR_AIC"));
  EXPECT_NEAR(std::fmod(full - logl, 100000.0), 0.0, 1e-6);

  // Starting variances far too small: the base changes on the way, and the whole trace is told on the last one.
  Host far;
  hand_in(far, data);
  ASSERT_LE(far.process(R"({"model":{"response":"y","random":"s"},"options":{"varscale":1,"maxiterations":60},
    "initial_values":[{"term":"units","value":100.0}]})"), 0) << far.errors();
  const std::vector<double> trace = far.reals("TABLE_TRACE:LOGL");
  ASSERT_GT(trace.size(), 5U);
  EXPECT_GT(trace.back() - trace.front(), 1e6);
  for (std::size_t k = 1; k < trace.size(); ++k) EXPECT_GT(trace[k], trace[k - 1] - 0.01) << k;
  EXPECT_NEAR(trace.back(), far.real("SCALAR_LOGLIK"), 1e-6);
}

// Equations of a term that was taken out are no singularities of the design.
TEST(Fit, DroppedTermsAreNoSingularities)
{
  for (const auto& [fixed, count] : {std::pair{"mu", 0}, std::pair{"mu + group", 1}}) {
    Host host;
    hand_in(host, {{{"group", 3}, {"f", 3}, {"y", 0}}, {{1, 1, 1, 2, 2, 3, 3}, {1, 2, 1, 2, 1, 2, 3}, {10, 12, 9, 15, 14, 20, 18}}});
    host.process(std::string(R"({"model":{"response":"y","fixed":")") + fixed +
                 R"(","random":"f"},"initial_values":[{"term":"f","value":0.0}]})");
    const std::string told = host.errors();
    EXPECT_NE(told.find("f dropped from model at iteration 1"), std::string::npos) << told;
    EXPECT_EQ(told.find("singularties detected") != std::string::npos, count > 0) << told;
    if (count > 0) {
      EXPECT_NE(told.find("1 singularties detected (tolerance: 0.10E-07)"), std::string::npos) << told;
    }
  }
}

}  // namespace
