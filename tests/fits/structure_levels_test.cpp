// Structures and the levels they stand over, in whole fits: levels without records, terms that share factor models, traits that
// stand in one response, halves with one matrix, what a component says of its own part.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>

#include "fits/host.h"

namespace {

using tolvan_test::dataset;
using tolvan_test::Host;

struct Column {
  std::string name;
  int levels;  // 0: a variate
  std::vector<double> values;
};

/// A fit of some columns with a model, given as the object's contents; what else the request holds follows.
void fit(Host& host, const std::vector<Column>& columns, const std::string& model, const std::string& options = {},
         const std::string& more = {})
{
  std::vector<std::pair<std::string, int>> names;
  std::vector<double> all;
  for (const Column& c : columns) {
    names.emplace_back(c.name, c.levels);
    all.insert(all.end(), c.values.begin(), c.values.end());
  }
  const std::size_t records = columns.front().values.size();
  host.info("{\"dataset\":" + dataset("d", records, names) + "}");
  host.matrix("d", all, static_cast<int>(records), static_cast<int>(columns.size()));
  host.process("{\"model\":{" + model + "},\"options\":{\"maxiterations\":80,\"extra\":4" + options + "}" + more + "}");
}

double logl(Host& host) { return host.real("SCALAR_LOGLIK"); }

void expect_near(const std::vector<double>& a, const std::vector<double>& b, double tolerance, const std::string& what)
{
  ASSERT_EQ(a.size(), b.size()) << what;
  for (std::size_t i = 0; i < a.size(); ++i) EXPECT_NEAR(a[i], b[i], tolerance * (1.0 + std::fabs(b[i]))) << what << " " << i;
}

/// Subjects with a random intercept and slope that share one factor, six times each.
struct Regression {
  static constexpr int subjects = 60;
  std::vector<double> subject, x, y, nothing;

  Regression()
  {
    std::mt19937 random(11);
    std::normal_distribution<double> normal;
    for (int s = 0; s < subjects; ++s) {
      const double f = normal(random), e = 0.5 * normal(random);
      for (int t = 0; t < 6; ++t) {
        subject.push_back(s + 1);
        x.push_back(t - 2.5);
        nothing.push_back(0.0);
        y.push_back(5.0 + 0.9 * f + e + 0.6 * f * (t - 2.5) + normal(random));
      }
    }
  }
  void fit(Host& host, const std::string& random, const std::string& more = {}) const
  {
    ::fit(host, {{"subject", subjects, subject}, {"x", 0, x}, {"z", 0, nothing}, {"y", 0, y}},
          R"("response":"y","fixed":"x","random":")" + random + "\"", {}, more);
  }
};

// Terms that share fa() or rr(): the factors follow the effects of the terms, and levels without a specific variance are bound to
// them.  The same matrices as facv(), which has no equations for factors.
TEST(StructureLevels, TermsThatShareFactors)
{
  const Regression data;
  const std::string terms = "str(subject+subject:x,", label = "subject+subject:x;FA1_V_";
  const std::string hold = R"(,"initial_values":[{"term":"subject+subject:x;FACV1_V_2","value":1e-9,"constraint":"F"}])";
  const std::string zero = R"(,"initial_values":[{"term":")" + label + R"(2","value":0,"constraint":"F"}])";
  const std::string both = R"(,"initial_values":[{"term":")" + label + R"(1","value":0,"constraint":"F"},{"term":")" + label +
                           R"(2","value":0,"constraint":"F"}])";
  Host bound, dense, reduced, all_zero;
  data.fit(bound, terms + "fa(2,1):id(60))", zero);
  data.fit(dense, terms + "facv(2,1):id(60))", hold);
  ASSERT_LE(bound.status, 0) << bound.errors();
  ASSERT_LE(dense.status, 0) << dense.errors();
  EXPECT_NEAR(logl(bound), logl(dense), 1e-4);
  const std::vector<double> v = bound.reals("TABLE_VARCOMP:SIGMA"), w = dense.reals("TABLE_VARCOMP:SIGMA");
  ASSERT_EQ(v.size(), 5U);
  EXPECT_NEAR(v[0], w[2], 1e-3);
  EXPECT_NEAR(v[2] * v[3], w[0] * w[1], 1e-3);

  data.fit(reduced, terms + "rr(2,1):id(60))");
  data.fit(all_zero, terms + "fa(2,1):id(60))", both);
  ASSERT_LE(reduced.status, 0) << reduced.errors();
  EXPECT_NEAR(logl(reduced), logl(all_zero), 1e-7);
  // mu and x, then 60 effects of either term and 60 of the factor; no row for what only binds.
  for (Host* host : {&bound, &reduced}) {
    const std::vector<double> effect = host->reals("TABLE_SLN:EFFECT"), loading = host->reals("TABLE_VARCOMP:GAMMA");
    ASSERT_EQ(effect.size(), 182U);
    for (std::size_t s = 0; s < 60; s += 7) EXPECT_NEAR(effect[62 + s], loading[3] * effect[122 + s], 1e-6);
    EXPECT_NE(host->json("TABLE_SLN").find("factor1.60"), std::string::npos);
    EXPECT_EQ(host->json("TABLE_SLN").find("lagrangian"), std::string::npos);
  }

  Host inside;
  data.fit(inside, terms + "id(60):fa(2,1))");
  EXPECT_NE(inside.errors().find("behind another component of a structure that terms share"), std::string::npos);
}

/// Genotypes in environments, of which the third has no records.
struct Sparse {
  std::vector<double> env, packed, geno, y;

  Sparse()
  {
    std::mt19937 random(4);
    std::normal_distribution<double> normal;
    for (int g = 0; g < 50; ++g) {
      const double f = normal(random), own[] = {0.9 * normal(random), 0.9 * normal(random), 0.9 * normal(random)};
      for (int t = 0; t < 6; ++t) {
        const double loading[] = {0.9, 0.5, 0.8};
        env.push_back(t % 3 == 2 ? 4 : t % 3 + 1);
        packed.push_back(t % 3 + 1);
        geno.push_back(g + 1);
        y.push_back(2.0 + loading[t % 3] * f + own[t % 3] + normal(random));
      }
    }
  }
  void fit(Host& host, const std::string& random, bool all) const
  {
    ::fit(host, {{"env", all ? 4 : 3, all ? env : packed}, {"geno", 50, geno}, {"y", 0, y}},
          R"("response":"y","fixed":"env","random":")" + random + "\"");
  }
};

// A level that no record has: its parameters are held, and all others are those of the fit without it, whatever the model.
TEST(StructureLevels, LevelsWithoutRecords)
{
  const Sparse data;
  for (const auto& [model, held] : std::vector<std::pair<std::string, int>>{{"diag(env)", 1},
                                                                           {"us(env)", 4},
                                                                           {"corh(env)", 1},
                                                                           {"corgh(env)", 4},
                                                                           {"fa(env,1)", 2},
                                                                           {"facv(env,1)", 2},
                                                                           {"sfa(env,1)", 2},
                                                                           {"chol(env,3)", 4},
                                                                           {"ante(env,1)", 2}}) {
    SCOPED_TRACE(model);
    Host with, without;
    data.fit(with, model + ":id(geno)", true);
    data.fit(without, model + ":id(geno)", false);
    ASSERT_LE(with.status, 0) << with.errors();
    ASSERT_LE(without.status, 0) << without.errors();
    EXPECT_NEAR(logl(with), logl(without), 2e-3);
    const std::string table = with.json("TABLE_VARCOMP");
    EXPECT_NE(with.errors().find(std::to_string(held) + " variance parameters are held"), std::string::npos) << with.errors();
  }
  // A term without records in a structure that it shares.
  const Regression slopes;
  Host with, without;
  slopes.fit(with, "str(subject+subject:x+subject:z,us(3):id(60))");
  slopes.fit(without, "str(subject+subject:x,us(2):id(60))");
  ASSERT_LE(with.status, 0) << with.errors();
  EXPECT_NEAR(logl(with), logl(without), 1e-3);
}

/// Sires with two traits on each daughter, as two responses and as one with a record a trait.
struct Traits {
  std::vector<double> sire, y1, y2, long_sire, long_y;

  Traits()
  {
    std::mt19937 random(8);
    std::normal_distribution<double> normal;
    for (int s = 0; s < 40; ++s) {
      const double a = normal(random), b = 0.4 * a + 0.8 * normal(random);
      for (int d = 0; d < 5; ++d) {
        const double e = normal(random);
        y1.push_back(3.0 + 0.7 * a + e);
        y2.push_back(5.0 + 0.7 * b + 0.5 * e + normal(random));
        sire.push_back(s + 1);
        for (const double y : {y1.back(), y2.back()}) {
          long_sire.push_back(s + 1);
          long_y.push_back(y);
        }
      }
    }
  }
};

TEST(StructureLevels, TraitsInOneResponse)
{
  const double missing = -1e-37;
  for (const bool lost : {false, true}) {
    SCOPED_TRACE(lost);
    Traits data;
    if (lost) data.y2[3] = data.long_y[7] = missing;
    const std::string rest = std::string(R"j(,"fixed":"trait","random":"us(trait):id(sire)","residual":"id(units):us(trait)")j") +
                             (lost ? R"(,"sparse":"mv")" : "");
    Host two, one;
    fit(two, {{"sire", 40, data.sire}, {"y1", 0, data.y1}, {"y2", 0, data.y2}}, R"("response":"y1+y2")" + rest);
    fit(one, {{"sire", 40, data.long_sire}, {"y", 0, data.long_y}}, R"("response":"y")" + rest, R"(,"asmv":2)");
    ASSERT_LE(two.status, 0) << two.errors();
    ASSERT_LE(one.status, 0) << one.errors();
    EXPECT_NEAR(logl(one), logl(two), 1e-8);
    for (const char* column : {"TABLE_VARCOMP:SIGMA", "TABLE_VARCOMP:SE", "TABLE_SLN:EFFECT"})
      expect_near(one.reals(column), two.reals(column), 1e-6, column);
    expect_near(one.reals("TABLE_YHT:YHAT"), two.reals("TABLE_YHT:YHAT"), 1e-6, "fitted values");
  }
  const Traits data;
  const std::vector<Column> columns = {{"sire", 40, data.long_sire}, {"y", 0, data.long_y}};
  struct Case {
    const char *residual, *options, *words;
  };
  for (const Case& c : {Case{"units", R"(,"asmv":2)", "the ASMV qualifier may only be used with a units.us() residual"},
                        Case{"id(units):us(trait)", R"(,"asmv":3)", "include mv in the model if there are any missing values in the data"}}) {
    Host host;
    fit(host, columns, std::string(R"("response":"y","fixed":"trait","residual":")") + c.residual + "\"", c.options);
    EXPECT_GT(host.status, 0);
    EXPECT_NE(host.errors().find(c.words), std::string::npos) << host.errors();
  }
  Host other;
  fit(other, {{"sire", 40, data.sire}, {"y1", 0, data.y1}, {"y2", 0, data.y2}}, R"("response":"y1+y2","fixed":"trait")", R"(,"asmv":3)");
  EXPECT_NE(other.errors().find("the option asmv tells of 3 traits, the model has 2"), std::string::npos) << other.errors();
}

/// The standard form of the product of a function of env and geno, with members at the term and at its first component.
std::string product(const std::string& function, const std::string& at_term, const std::string& at_part)
{
  return R"("random":{"terms":[{"interaction":[{"function":{"name":")" + function +
         R"(","arguments":[{"name":"variable_name","value":"env"}]})" + at_part + R"(},"geno"])" + at_term + "}]}";
}

// Values and qualifiers that a component says of its own part, as those of the term; the two halves of sing share one matrix.
TEST(StructureLevels, WhatAComponentSaysOfItsPart)
{
  std::mt19937 random(2);
  std::normal_distribution<double> normal;
  Column env{"env", 4, {}}, half{"half", 2, {}}, pair{"pair", 2, {}}, geno{"geno", 40, {}}, y{"y", 0, {}};
  for (int g = 0; g < 40; ++g) {
    const double f[2] = {normal(random), normal(random)};
    for (int e = 0; e < 4; ++e) {
      for (int plot = 0; plot < 2; ++plot) {
        env.values.push_back(e + 1);
        half.values.push_back(e / 2 + 1);
        pair.values.push_back(e % 2 + 1);
        geno.values.push_back(g + 1);
        y.values.push_back((e % 2 == 0 ? 0.9 : 0.6) * f[e / 2] + 0.3 * normal(random) + normal(random));
      }
    }
  }
  const std::vector<Column> columns = {env, half, pair, geno, y};
  const std::string response = R"("response":"y","fixed":"env",)";
  Host at_term, at_part;
  fit(at_term, columns, response + product("ar1v", R"(,"values":[0.4,0.7],"ps_constraints":"FP")", ""));
  fit(at_part, columns, response + product("ar1v", "", R"(,"values":[0.4,0.7],"ps_constraints":"FP")"));
  ASSERT_LE(at_term.status, 0) << at_term.errors();
  ASSERT_LE(at_part.status, 0) << at_part.errors();
  EXPECT_EQ(logl(at_term), logl(at_part));
  EXPECT_EQ(at_part.reals("TABLE_VARCOMP:SIGMA").at(0), 0.4);

  Host halved, halved_part, written_out;
  fit(halved, columns, response + product("us", R"(,"sing":4)", ""));
  fit(halved_part, columns, response + product("us", "", R"(,"sing":4)"));
  fit(written_out, columns, response + R"j("random":"id(half):us(pair):id(geno)")j");
  for (Host* host : {&halved, &halved_part}) {
    ASSERT_LE(host->status, 0) << host->errors();
    EXPECT_NEAR(logl(*host), logl(written_out), 1e-8);
    expect_near(host->reals("TABLE_VARCOMP:SIGMA"), written_out.reals("TABLE_VARCOMP:SIGMA"), 1e-6, "components");
    EXPECT_NE(host->json("TABLE_VARCOMP").find("env:geno;env.US_C_2_1"), std::string::npos);
  }
  struct Case {
    const char *function, *at_term, *at_part, *words;
  };
  for (const Case& c : {Case{"us", R"(,"sing":3)", "", "was expecting an even number, observed = 3"},
                        Case{"us", R"(,"sing":6)", "", "SING tells of 6 levels"},
                        Case{"ar1v", "", R"(,"values":[0.4])", "number expected = 2, number supplied = 1"},
                        Case{"ar1v", R"(,"sing":4,"subsection":"half")", "", "not implemented"}}) {
    Host host;
    fit(host, columns, response + product(c.function, c.at_term, c.at_part));
    EXPECT_GT(host.status, 0) << c.at_term;
    EXPECT_NE(host.errors().find(c.words), std::string::npos) << host.errors();
  }
}

// Numbers of levels in the residual: the records are taken as they stand, here in the order that the factors would give them.
TEST(StructureLevels, RecordsAsTheyStand)
{
  std::mt19937 random(6);
  std::normal_distribution<double> normal;
  Column row{"row", 6, {}}, col{"col", 8, {}}, y{"y", 0, {}};
  double last = 0.0;
  for (int r = 0; r < 6; ++r) {
    for (int c = 0; c < 8; ++c) {
      row.values.push_back(r + 1);
      col.values.push_back(c + 1);
      last = 0.6 * last + normal(random);
      y.values.push_back(last);
    }
  }
  Host sized, named;
  fit(sized, {row, col, y}, R"j("response":"y","residual":"ar1(6):exp(8)")j");
  fit(named, {row, col, y}, R"j("response":"y","residual":"ar1(row):exp(col)")j");
  ASSERT_LE(sized.status, 0) << sized.errors();
  EXPECT_NEAR(logl(sized), logl(named), 1e-9);
  for (const char* words : {"Data is assumed presorted to match R structure sections", "Assuming data is pre-sorted: ar1(6):exp(8)"})
    EXPECT_NE(sized.errors().find(words), std::string::npos) << words;
  Host wrong;
  fit(wrong, {row, col, y}, R"j("response":"y","residual":"ar1(6):ar1(7)")j");
  EXPECT_NE(wrong.errors().find("there are 48 data records but the residual model implies 42 data records"), std::string::npos) << wrong.errors();
}

// Rank-one data: the best covariance matrix is singular.  Factors that can make any matrix end beside the unstructured one; those
// that can not, within the space of theirs.
TEST(StructureLevels, TriangularFactorsOfNearlySingularMatrices)
{
  for (const unsigned seed : {1U, 2U, 3U, 4U}) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::normal_distribution<double> normal;
    const double loading[] = {0.9, 0.5, 0.7, 0.3};
    Column env{"env", 4, {}}, geno{"geno", 60, {}}, y{"y", 0, {}};
    for (int g = 0; g < 60; ++g) {
      const double f = normal(random);
      for (int k = 0; k < 8; ++k) {
        env.values.push_back(k / 2 + 1);
        geno.values.push_back(g + 1);
        y.values.push_back(5.0 + loading[k / 2] * f + normal(random));
      }
    }
    Host us, ante, chol;
    for (const auto& [host, model] : {std::pair{&us, "us(env)"}, {&ante, "ante(env,3)"}, {&chol, "chol(env,3)"}}) {
      fit(*host, {env, geno, y}, std::string(R"("response":"y","fixed":"env","random":")") + model + ":id(geno)\"");
      EXPECT_LE(host->status, 0) << model << host->errors();
    }
    // The way to a boundary is long; what is left of it is small against the units that a wrong end costs.
    EXPECT_NEAR(logl(ante), logl(us), 0.1);
    EXPECT_NEAR(logl(chol), logl(us), 0.1);
  }
}

}  // namespace
