// Evaluations that fail in the middle of a fit, brought about by a user's own program: what is tried again and how, what ends the
// fit, and what is reported then.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <random>

#include "fits/host.h"

namespace {

using tolvan_test::dataset;
using tolvan_test::Host;

namespace fs = std::filesystem;

/// corv() over three environments from a program, which does something else at the calls that it is told.
struct OwnProgram : testing::Test {
  static constexpr int environments = 3, genotypes = 30, plots = 3, count = environments * genotypes * plots;
  fs::path folder = fs::temp_directory_path() / ("tolvan_failing_" + std::to_string(std::random_device{}()));
  std::vector<double> data;

  void SetUp() override
  {
    fs::create_directories(folder);
    // What the program does at a call stands in the file "modes": its number and a word a line, "5+ word" from call 5 on.
    std::ofstream(folder / "own.sh") << "cd " << folder << R"x(
k=$(($(cat count 2>/dev/null || echo 0) + 1)); echo $k > count
mode=$(awk -v k=$k '$1 == k || ($1 ~ /[+]$/ && k >= $1 + 0) { print $2 }' modes)
[ "$mode" = fails ] && exit 1
awk -v mode="$mode" -v k=$k '
function d(x,  s) { s = sprintf("%14.6E", x); sub("E", "D", s); return s }
function put(a, b,  i, j) { for (i = 1; i <= n; ++i) for (j = 1; j <= i; ++j) printf "%s%s", d((i == j ? a + b : b) + (i == 1 ? more : 0)), ++put_so_far % 6 ? "" : "\n" }
NR == 1 { n = substr($0, 1, 5) + 0; print $0 }
NR == 2 { a = substr($0, 1, 14); b = substr($0, 15, 14); sub("D", "E", a); sub("D", "E", b); a += 0; b += 0; print $0
  if (mode == "drifts") more = 0.2 * k
  if (mode == "indefinite") put(-1, 2); else if (mode == "large") put(1000 * a, 1000 * b); else put(a, b)
  more = 0
  put(1, 0); put(0, 1) }' mineA3.own > mine.gdg
)x";
    std::mt19937 random(5);
    std::normal_distribution<double> normal;
    data.resize(3 * count);
    std::vector<double> g(genotypes);
    for (double& x : g) x = normal(random);
    for (std::size_t i = 0, e = 0; e < environments; ++e) {
      for (std::size_t line = 0; line < genotypes; ++line) {
        const double effect = g[line] + 0.8 * normal(random);
        for (int p = 0; p < plots; ++p, ++i) {
          data[i] = static_cast<double>(e + 1);
          data[count + i] = static_cast<double>(line + 1);
          data[2 * count + i] = 10.0 + static_cast<double>(e) + effect + normal(random);
        }
      }
    }
  }
  void TearDown() override { fs::remove_all(folder); }

  void fit(Host& host, const std::string& modes, const std::string& options = R"("maxiterations":30)")
  {
    fs::remove(folder / "count");
    std::ofstream(folder / "modes") << modes << "\n";
    host.info("{\"dataset\":" + dataset("d", count, {{"env", environments}, {"geno", genotypes}, {"y", 0}}) + "}");
    host.matrix("d", data, count, 3);
    host.process(R"x({"model":{"response":"y","fixed":"env","random":"id(env):id(geno)"},"options":{)x" +
                 options + R"x(},"own":{"term":"env:geno","component":"env","values":[0.5,0.2],"control":3,"program":"sh )x" +
                 (folder / "own.sh").string() + R"(","file":")" + (folder / "mine").string() + "\"}}");
  }
};

TEST_F(OwnProgram, FailuresAreTriedAgainNearerToTheLastParameters)
{
  Host whole;
  fit(whole, "");
  ASSERT_EQ(whole.integer("SCALAR_CONVERGENCE_FLG"), 0) << whole.errors();
  const double logl = whole.real("SCALAR_LOGLIK");
  const std::vector<double> second_and_third = whole.reals("TABLE_TRACE:gammas_2");

  struct Case {
    const char* modes;
    std::vector<int> iterations;  // at the head of the trace
    int retries;
    const char* words;
  };
  for (const Case& c : {Case{"3 indefinite", {1, 2, 3, 3, 4}, 1, "likelihood evaluation failed with fault 1007 Variance structure is not"},
                        Case{"3 indefinite\n4 indefinite\n5 indefinite", {1, 2, 3, 3, 3, 3, 4}, 3, "trying again with reduced updates : "},
                        Case{"3 large", {1, 2, 3, 3, 4}, 1, "Logliklihood decreased to "}}) {
    SCOPED_TRACE(c.modes);
    Host host;
    fit(host, c.modes);
    EXPECT_LE(host.status, 0) << host.errors();
    EXPECT_NE(host.errors().find(c.words), std::string::npos) << host.errors();
    EXPECT_EQ(host.integer("SCALAR_CONVERGENCE_FLG"), 0);
    EXPECT_NEAR(host.real("SCALAR_LOGLIK"), logl, 1e-3);
    std::vector<int> iterations = host.integers("TABLE_TRACE:ITER");
    ASSERT_GE(iterations.size(), c.iterations.size());
    iterations.resize(c.iterations.size());
    EXPECT_EQ(iterations, c.iterations);
    // The values that failed, then nine tenths of the way back each time; what was not updated is not touched.
    const std::vector<double> b = host.reals("TABLE_TRACE:gammas_2"), residual = host.reals("TABLE_TRACE:gammas_3");
    double expected = second_and_third[2];
    for (int k = 0; k <= c.retries; ++k) {
      EXPECT_NEAR(b[static_cast<std::size_t>(2 + k)], expected, 1e-6) << k;
      expected = 0.9 * second_and_third[1] + 0.1 * expected;
    }
    for (const double r : residual) EXPECT_EQ(r, 1.0);
    EXPECT_NE(host.json("TABLE_TRACE").find('"' + std::to_string(c.retries) + '"'), std::string::npos) << "the flag of the last repeat";
  }
}

TEST_F(OwnProgram, WhatEndsTheFitIsToldAndTheLastGoodEvaluationReported)
{
  Host whole;
  fit(whole, "");
  const std::vector<double> logl = whole.reals("TABLE_TRACE:LOGL");
  struct Case {
    const char* modes;
    std::size_t rows;      // of the trace
    int reported;          // iteration whose LogL is reported, 0: none
    bool fails;
    std::vector<const char*> words;
    const char* final_message;
  };
  const char* partly = "the standard errors of variance components, solutions, derived quantities and other results are probably partly";
  for (const Case& c :
       {Case{"1 indefinite", 1, 0, true, {"the estimation was ABORTED because a fault occurred, no further output possible"}, "Terminated early"},
        Case{"3 indefinite\n4 indefinite\n5 indefinite\n6 indefinite", 6, 2, true,
             {"the estimation was ABORTED because a fault occurred\"", "fault 1007", partly}, "Terminated early"},
        Case{"3 fails", 2, 2, true, {"unable to read / write data file", "fault 4 Failed to process MYOWNGDG files", partly}, "Terminated early"},
        Case{"3+ fails", 2, 0, true, {"fault 4 Failed to process MYOWNGDG files", "no further output possible"}, "Terminated early"},
        Case{"3 large\n4 large\n5 large\n6 large", 6, 2, false,
             {"iteration was aborted because model is not converging", "consider changing the starting values"}, "Convergence failed"}}) {
    SCOPED_TRACE(c.modes);
    Host host;
    fit(host, c.modes);
    const std::string told = host.errors();
    EXPECT_EQ(told.find("\"terminate\":true") != std::string::npos, c.fails) << told;
    for (const char* words : c.words) EXPECT_NE(told.find(words), std::string::npos) << words << told;
    EXPECT_NE(host.json("SCALAR_FINAL_MESSAGE").find(c.final_message), std::string::npos);
    EXPECT_EQ(host.integer("SCALAR_CONVERGENCE_FLG"), c.fails ? 1 : 2);
    EXPECT_EQ(host.reals("TABLE_TRACE:LOGL").size(), c.rows);
    EXPECT_EQ(host.reals("TABLE_VARCOMP:SIGMA").empty(), c.reported == 0);
    if (c.reported > 0) {
      EXPECT_NEAR(host.real("SCALAR_LOGLIK"), logl[static_cast<std::size_t>(c.reported - 1)], 1e-6);
    }
  }
}

TEST_F(OwnProgram, AFitWhoseStepsOnlyLoseIsGivenUp)
{
  // With each call the matrix has more variance in the first environment than the parameters say: LogL falls whatever the step.
  Host host;
  fit(host, "3+ drifts", R"("maxiterations":60,"extra":50)");
  EXPECT_NE(host.json("SCALAR_FINAL_MESSAGE").find("Convergence failure"), std::string::npos) << host.errors();
  EXPECT_EQ(host.integer("SCALAR_CONVERGENCE_FLG"), 2);
  const std::vector<double> logl = host.reals("TABLE_TRACE:LOGL");
  // More than min(n, 8) + 2 falls in a row.
  ASSERT_GT(logl.size(), 11U);
  for (std::size_t k = logl.size() - 11; k < logl.size(); ++k) EXPECT_LT(logl[k], logl[k - 1] - 0.001);
  EXPECT_FALSE(logl[logl.size() - 12] < logl[logl.size() - 13] - 0.001) << "the first of them is the first after a gain";
  const std::string told = host.errors();
  std::size_t at = 0;
  for (const char* words : {"convergence has failed, this may be because you have specified  an inappropriate model",
                            "derived quantities are wrong", "use !MAXIT 1 instead of !BLUP", "AI updates repeatedly lowered the LogL"}) {
    at = told.find(words, at);
    ASSERT_NE(at, std::string::npos) << words << told;
  }
}

}  // namespace
