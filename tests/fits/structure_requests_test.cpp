// Structures in whole fits: specific variances of zero, linear models of variances, a user's own program, a step-down.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "fits/host.h"

namespace {

using tolvan_test::dataset;
using tolvan_test::Host;

/// Genotypes in four environments, two plots a cell, with one common factor of the environments.
struct Trial {
  static constexpr int environments = 4, genotypes = 60, count = 2 * environments * genotypes;
  std::vector<double> env, geno, one, y;

  Trial()
  {
    std::mt19937 random(5);
    std::normal_distribution<double> normal;
    const double loading[environments] = {0.9, 0.5, 0.7, 0.3}, specific[environments] = {0.3, 0.8, 0.4, 1.0};
    std::vector<double> factor(genotypes);
    for (double& f : factor) f = normal(random);
    for (int e = 0; e < environments; ++e) {
      for (int g = 0; g < genotypes; ++g) {
        const double u = loading[e] * factor[static_cast<std::size_t>(g)] + std::sqrt(specific[e]) * normal(random);
        for (int plot = 0; plot < 2; ++plot) {
          env.push_back(e + 1);
          geno.push_back(g + 1);
          one.push_back(1);
          y.push_back(5.0 + e + u + normal(random));
        }
      }
    }
  }
  /// A fit of y, fixed env, with a random part and what else the request holds.
  void fit(Host& host, const std::string& random, const std::string& more = {}, const std::string& residual = "units") const
  {
    std::vector<double> all;
    for (const auto* column : {&env, &geno, &one, &y}) all.insert(all.end(), column->begin(), column->end());
    host.info("{\"dataset\":" + dataset("d", count, {{"env", environments}, {"geno", genotypes}, {"one", 1}, {"y", 0}}) + "}");
    host.matrix("d", all, count, 4);
    host.process(R"({"model":{"response":"y","fixed":"env","random":")" + random + R"(","residual":")" + residual +
                 R"("},"options":{"maxiterations":60,"extra":6})" + more + "}");
  }
};

double logl(Host& host) { return host.real("SCALAR_LOGLIK"); }

std::string initial(const std::string& term, double value, const std::string& constraint)
{
  std::ostringstream digits;
  digits.precision(17);
  digits << value;
  return R"({"term":")" + term + R"(","value":)" + digits.str() + R"(,"constraint":")" + constraint + R"("})";
}

// A level whose specific variance is fixed at zero is bound to the factors exactly: as rr() binds all of its levels, and as the
// dense model gives it in the limit.
TEST(StructureRequests, SpecificVariancesOfZero)
{
  const Trial trial;
  const std::string label = "env:geno;env.FA1_V_";
  struct Case {
    std::string model;
    std::vector<int> zero;
    std::string other, other_label;
    double other_value, tolerance;
  };
  for (const Case& c : {Case{"fa(env,1):id(geno)", {1, 2, 3, 4}, "rr(env,1):id(geno)", "", 0.0, 1e-7},
                        Case{"fa(env,1):id(geno)", {2}, "facv(env,1):id(geno)", "env:geno;env.FACV1_V_", 1e-8, 1e-4},
                        Case{"id(geno):fa(env,1)", {1, 3}, "id(geno):facv(env,1)", "geno:env;env.FACV1_V_", 1e-8, 1e-4}}) {
    SCOPED_TRACE(c.model + " " + std::to_string(c.zero.size()));
    const std::string own = c.model.starts_with("id") ? "geno:env;env.FA1_V_" : label;
    std::string values, other_values;
    for (const int level : c.zero) {
      values += (values.empty() ? "" : ",") + initial(own + std::to_string(level), 0.0, "F");
      if (!c.other_label.empty())
        other_values += (other_values.empty() ? "" : ",") + (R"({"term":")" + c.other_label + std::to_string(level) +
                                                             R"(","value":1e-8,"constraint":"F"})");
    }
    Host with_zero, other;
    trial.fit(with_zero, c.model, ",\"initial_values\":[" + values + "]");
    trial.fit(other, c.other, other_values.empty() ? "" : ",\"initial_values\":[" + other_values + "]");
    ASSERT_LE(with_zero.status, 0) << with_zero.errors();
    ASSERT_LE(other.status, 0) << other.errors();
    EXPECT_NEAR(logl(with_zero), logl(other), c.tolerance);
    // Effects: those of the levels and the factor, none of the equations that bind; u = l f where the variance is zero.
    const std::vector<double> effects = with_zero.reals("TABLE_SLN:EFFECT");
    const std::size_t fixed = Trial::environments + 1, all = (Trial::environments + 1) * Trial::genotypes;
    ASSERT_GE(effects.size(), all);
    EXPECT_LE(effects.size(), all + fixed);
    const std::vector<double> components = with_zero.reals("TABLE_VARCOMP:GAMMA");
    const std::size_t first = effects.size() - all;
    const bool by_geno = c.model.starts_with("id");
    const auto effect = [&](int level, int g) {
      const int place = by_geno ? g * (Trial::environments + 1) + level : level * Trial::genotypes + g;
      return effects[first + static_cast<std::size_t>(place)];
    };
    for (const int level : c.zero) {
      const double loading = components[static_cast<std::size_t>(Trial::environments + level - 1)];
      for (int g = 0; g < Trial::genotypes; g += 7) EXPECT_NEAR(effect(level - 1, g), loading * effect(Trial::environments, g), 1e-7);
    }
  }
}

// Variances that are a straight line in the number of the environment: their constrained optimum, against fits at fixed values
// on the line around it.
TEST(StructureRequests, ALinearModelOfVariances)
{
  const Trial trial;
  const std::string lines =
      R"(,"vcm":[{"term_id":1,"values":[1,1]},{"term_id":2,"values":[1,2]},{"term_id":3,"values":[1,3]},{"term_id":4,"values":[1,4]}])";
  Host on_line, free;
  trial.fit(on_line, "diag(env):id(geno)", lines);
  trial.fit(free, "diag(env):id(geno)");
  ASSERT_LE(on_line.status, 0) << on_line.errors();
  const std::vector<double> v = on_line.reals("TABLE_VARCOMP:SIGMA");
  ASSERT_EQ(v.size(), 5U);
  EXPECT_NEAR(v[2], 2.0 * v[1] - v[0], 1e-9);
  EXPECT_NEAR(v[3], 3.0 * v[1] - 2.0 * v[0], 1e-9);
  EXPECT_GT(logl(free), logl(on_line) + 0.01);
  const double residual = v[4];
  for (const auto& [a, b] : {std::pair{0.0, 0.0}, {0.05, 0.0}, {-0.05, 0.0}, {0.0, 0.02}, {0.0, -0.02}}) {
    std::string values;
    for (int e = 1; e <= 4; ++e) {
      const double x = (v[static_cast<std::size_t>(e - 1)] + a + b * e) / residual;
      values += (e > 1 ? "," : "") + initial("env:geno;env.DIAG_V_" + std::to_string(e), x, "F");
    }
    Host fixed;
    trial.fit(fixed, "diag(env):id(geno)", ",\"initial_values\":[" + values + "]");
    ASSERT_LE(fixed.status, 0) << fixed.errors();
    if (a == 0.0 && b == 0.0) {
      EXPECT_NEAR(logl(fixed), logl(on_line), 1e-6);
    } else {
      EXPECT_LT(logl(fixed), logl(on_line));
    }
  }
}

// A size and a correlation cannot be the same parameter.
TEST(StructureRequests, LinksOfDifferentTypesAreRefused)
{
  const Trial trial;
  Host host;
  trial.fit(host, "corh(env):id(geno)", R"(,"vcc_constraint":["1 2"])");
  EXPECT_GT(host.status, 0);
  EXPECT_NE(host.errors().find("Parameter constraints link parameters of different types!"), std::string::npos) << host.errors();
}

// The matrix a I + b J from a program is that of corv().
TEST(StructureRequests, AProgramOfTheUser)
{
  const std::filesystem::path folder = std::filesystem::temp_directory_path() / ("tolvan_own_" + std::to_string(std::random_device{}()));
  std::filesystem::create_directories(folder);
  const std::string script = (folder / "mine.sh").string();
  std::ofstream(script) << R"(awk '
function d(x,  s) { s = sprintf("%14.6E", x); sub("E", "D", s); return s }
function put(a, b,  i, j, line, k) { k = 0; line = ""
  for (i = 1; i <= n; ++i) for (j = 1; j <= i; ++j) { line = line d(i == j ? a + b : b); if (++k % 6 == 0) { print line; line = "" } }
  if (line != "") print line }
NR == 1 { n = substr($0, 1, 5) + 0; print $0 }
NR == 2 { a = substr($0, 1, 14); b = substr($0, 15, 14); gsub("D", "E", a); gsub("D", "E", b); print $0
  put(a + 0, b + 0); put(1, 0); put(0, 1) }' "$1" > )"
                        << (folder / "mine.gdg").string() << "\n";
  const std::string entry = R"(,"own":{"term":"env:geno","component":"env","values":[0.5,0.2],"control":3,"program":"sh )" + script +
                            R"(","file":")" + (folder / "mine").string() + "\"}";
  const Trial trial;
  Host own, known;
  trial.fit(own, "id(env):id(geno)", entry);
  trial.fit(known, "corv(env):id(geno)");
  ASSERT_LE(own.status, 0) << own.errors();
  EXPECT_NEAR(logl(own), logl(known), 1e-4);
  EXPECT_NE(own.json("TABLE_VARCOMP").find("env:geno;env.OWN_V_2"), std::string::npos);
  const std::vector<double> v = own.reals("TABLE_VARCOMP:GAMMA"), w = known.reals("TABLE_VARCOMP:GAMMA");
  ASSERT_EQ(v.size(), 3U);
  EXPECT_NEAR(v[1], w[0] * w[1], 2e-3 * v[1]);  // the covariance; the exchange has seven digits

  for (const auto& [words, text] : std::vector<std::pair<std::string, std::string>>{
           {R"({"term":"nobody","program":"x"})", "no structure vector set up for nobody"},
           {R"({"term":"env:geno","program":"x"})", "it has several components"},
           {R"({"term":"env:geno","component":"row","program":"x"})", "none of its components is row"},
           {R"({"term":"env:geno","component":"env","form":"odd"})", "plain, diagonal or inverse"},
           {R"({"term":"env:geno","component":"env","program":"true","file":")" + (folder / "none").string() + "\"}",
            "unable to read / write data file"}}) {
    Host host;
    trial.fit(host, "id(env):id(geno)", ",\"own\":" + words);
    EXPECT_GT(host.status, 0) << words;
    EXPECT_NE(host.errors().find(text), std::string::npos) << words << host.errors();
  }
  std::filesystem::remove_all(folder);
}

// A series over one level has no use for its correlation, which stays in the tables with value 0 and code F.
TEST(StructureRequests, AStepDownKeepsItsParameterInTheTables)
{
  const Trial trial;
  Host stepped, plain;
  trial.fit(stepped, "ar1v(one):id(geno)");
  trial.fit(plain, "idv(one):id(geno)");
  ASSERT_LE(stepped.status, 0) << stepped.errors();
  EXPECT_NEAR(logl(stepped), logl(plain), 1e-9);
  const std::vector<double> v = stepped.reals("TABLE_VARCOMP:SIGMA"), w = plain.reals("TABLE_VARCOMP:SIGMA");
  ASSERT_EQ(v.size(), 3U);
  ASSERT_EQ(w.size(), 2U);
  EXPECT_EQ(v[0], 0.0);
  EXPECT_NEAR(v[1], w[0], 1e-9);
  EXPECT_NEAR(v[2], w[1], 1e-9);
}

}  // namespace
