// Forms of the model in whole fits: a response beside an offset, at() as 0 and 1, one of several models, defined names.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "fits/host.h"

namespace {

using tolvan_test::dataset;
using tolvan_test::Host;

constexpr double missing = -1e-37;

/// A split of 48 records: group, treatment, a covariate, an offset, the response, the response without the offset, and 1 where
/// the group is the third.
struct Records {
  static constexpr int count = 48;
  std::vector<double> group, treatment, x, offset, y, rest, third;

  Records()
  {
    std::mt19937 random(11);
    std::normal_distribution<double> normal;
    for (int k = 0; k < count; ++k) {
      group.push_back(k % 8 + 1);
      treatment.push_back(k / 8 % 2 + 1);
      x.push_back(normal(random));
      offset.push_back(100.0 + 20.0 * normal(random));
      rest.push_back(3.0 + x.back() + std::sin(group.back()) + 0.5 * normal(random));
      y.push_back(rest.back() + offset.back());
      third.push_back(group.back() == 3 ? 1.0 : 0.0);
    }
  }
  void hand_in(Host& host) const
  {
    std::vector<double> all;
    for (const auto* column : {&group, &treatment, &x, &offset, &y, &rest, &third}) all.insert(all.end(), column->begin(), column->end());
    host.info("{\"dataset\":" + dataset("d", count, {{"group", 8}, {"treatment", 2}, {"x", 0}, {"o", 0}, {"y", 0}, {"rest", 0}, {"third", 0}}) + "}");
    host.matrix("d", all, count, 7);
  }
};

void fit(Host& host, const Records& records, const std::string& request)
{
  records.hand_in(host);
  host.process(request);
}

void expect_same(const std::vector<double>& a, const std::vector<double>& b, double tolerance)
{
  ASSERT_EQ(a.size(), b.size());
  ASSERT_FALSE(a.empty());
  for (std::size_t k = 0; k < a.size(); ++k) EXPECT_NEAR(a[k], b[k], tolerance) << k;
}

// A linear model of y with an offset is the model of what is left of y, but for the fitted and the estimated values.
TEST(ModelForms, AnOffsetIsAKnownPartOfTheResponse)
{
  for (const bool with_mv : {false, true}) {
    Records records;
    for (const std::size_t k : {5, 30}) {
      if (with_mv) records.y[k] = records.rest[k] = missing;
    }
    const std::string sparse = with_mv ? ",\"sparse\":\"mv\"" : "";
    Host given, plain;
    fit(given, records, R"j({"model":{"response":"y","fixed":"x+treatment+offset(o)","random":"group","residual":"units")j" + sparse + "}}");
    fit(plain, records, R"j({"model":{"response":"rest","fixed":"x+treatment","random":"group","residual":"units")j" + sparse + "}}");
    ASSERT_LE(given.status, 0) << given.errors();
    expect_same(given.reals("TABLE_TRACE:LOGL"), plain.reals("TABLE_TRACE:LOGL"), 1e-10);
    expect_same(given.reals("TABLE_VARCOMP:SIGMA"), plain.reals("TABLE_VARCOMP:SIGMA"), 1e-10);
    std::vector<double> effects = given.reals("TABLE_SLN:EFFECT");
    if (with_mv) {  // the last two
      effects[effects.size() - 2] -= records.offset[5];
      effects[effects.size() - 1] -= records.offset[30];
    }
    expect_same(effects, plain.reals("TABLE_SLN:EFFECT"), 1e-10);
    std::vector<double> fitted = given.reals("TABLE_YHT:YHAT");
    for (std::size_t k = 0; k < fitted.size(); ++k) fitted[k] -= records.offset[k];
    expect_same(fitted, plain.reals("TABLE_YHT:YHAT"), 1e-10);
    expect_same(given.reals("TABLE_YHT:RESID"), plain.reals("TABLE_YHT:RESID"), 1e-10);
  }
}

TEST(ModelForms, AMissingOffsetIsAMissingDesignValue)
{
  Records records, without;
  records.offset[7] = missing;
  for (auto* column : {&without.offset, &without.y}) (*column)[7] = column == &without.y ? missing : 0.0;
  Host dropped, lost;
  fit(dropped, records, R"j({"model":{"response":"y","fixed":"x+offset(o)"},"options":{"missing_values":"mv_remove"}})j");
  fit(lost, without, R"j({"model":{"response":"y","fixed":"x+offset(o)"}})j");
  ASSERT_LE(dropped.status, 0) << dropped.errors();
  expect_same(dropped.reals("TABLE_TRACE:LOGL"), lost.reals("TABLE_TRACE:LOGL"), 1e-12);
}

TEST(ModelForms, ALevelOfAFactorIsAResponseOfNoughtAndOne)
{
  const Records records;
  Host level, column, two;
  fit(level, records, R"j({"model":{"response":"at(group,3)","fixed":"x"}})j");
  fit(column, records, R"j({"model":{"response":"third","fixed":"x"}})j");
  ASSERT_LE(level.status, 0) << level.errors();
  expect_same(level.reals("TABLE_TRACE:LOGL"), column.reals("TABLE_TRACE:LOGL"), 0.0);
  expect_same(level.reals("TABLE_SLN:EFFECT"), column.reals("TABLE_SLN:EFFECT"), 0.0);
  // Several levels are as many responses.
  Host traits, columns;
  const std::string rest = R"j(,"fixed":"trait+trait:x","residual":"units:us(trait)"}})j";
  fit(traits, records, R"j({"model":{"response":"y+at(group,[3])")j" + rest);
  fit(columns, records, R"j({"model":{"response":"y+third")j" + rest);
  ASSERT_LE(traits.status, 0) << traits.errors();
  expect_same(traits.reals("TABLE_TRACE:LOGL"), columns.reals("TABLE_TRACE:LOGL"), 0.0);
  fit(two, records, R"j({"model":{"response":"at(group,[3,4])")j" + rest);
  ASSERT_LE(two.status, 0) << two.errors();
  EXPECT_EQ(two.reals("TABLE_YHT:YHAT").size(), 2 * static_cast<std::size_t>(Records::count));
}

// Names that a request defines beside the model: a value for each level, knots of a spline.
TEST(ModelForms, DefinedNamesAreRead)
{
  const Records records;
  Host contrast, column;
  fit(contrast, records, R"j({"contrast":{"name":"is3","variable":"group","values":[0,0,1,0,0,0,0,0]},"model":{"response":"rest","fixed":"is3"}})j");
  fit(column, records, R"j({"model":{"response":"rest","fixed":"third"}})j");
  ASSERT_LE(contrast.status, 0) << contrast.errors();
  expect_same(contrast.reals("TABLE_SLN:EFFECT"), column.reals("TABLE_SLN:EFFECT"), 1e-12);
  Host knots;
  fit(knots, records, R"j({"spline":[{"variable":"x","points":[-1,0,0.5,2]}],"model":{"response":"rest","fixed":"x","random":"spl(x)"}})j");
  ASSERT_LE(knots.status, 0) << knots.errors();
  EXPECT_EQ(knots.reals("TABLE_SLN:EFFECT").size(), 4U) << "mu, x and the two inner knots";
  for (const char* bad : {R"j("contrast":{"name":"c","variable":"zz","values":[1]})j", R"j("contrast":[7])j", R"j("spline":7)j", R"j("contrast":{"name":"c","variable":"x"})j",
                          R"j("contrast":{"variable":"x","values":[1]})j", R"j("spline":{"variable":"x","points":[1,2]})j", R"j("spline":{"points":[1,2,3]})j"}) {
    Host refused;
    fit(refused, records, std::string("{") + bad + R"j(,"model":{"response":"y"}})j");
    EXPECT_EQ(refused.status, 4) << bad << refused.errors();
  }
}

TEST(ModelForms, OneOfSeveralModelsIsFitted)
{
  const Records records;
  const std::string models = R"j({"model":[{"response":"y","fixed":"x"},{"response":"rest","fixed":"treatment","random":"group"}])j";
  Host first, second, none, alone;
  fit(first, records, models + "}");
  EXPECT_EQ(first.status, -3);
  EXPECT_NE(first.errors().find("the request has 2 models, the first is fitted"), std::string::npos);
  EXPECT_EQ(first.reals("TABLE_SLN:EFFECT").size(), 2U);
  EXPECT_NE(first.json("INPUT_JSON:MODEL").find("treatment"), std::string::npos) << "the standard form keeps all models";
  fit(second, records, models + ",\"dopart\":2}");
  fit(alone, records, R"j({"model":{"response":"rest","fixed":"treatment","random":"group"}})j");
  ASSERT_LE(second.status, 0) << second.errors();
  expect_same(second.reals("TABLE_TRACE:LOGL"), alone.reals("TABLE_TRACE:LOGL"), 0.0);
  fit(none, records, models + ",\"dopart\":3}");
  EXPECT_EQ(none.status, 4);
  EXPECT_NE(none.errors().find("invalid value supplied for dopart"), std::string::npos);
}

}  // namespace
