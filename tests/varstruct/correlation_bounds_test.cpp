// How correlation models keep their parameters in their space, what they say, and how they step down.
#include <gtest/gtest.h>

#include <cmath>

#include "base/numbers.h"
#include "support/checks.h"
#include "support/failing_memory.h"
#include "varstruct/make_component.h"
#include "varstruct/series_bounds.h"

namespace tolvan {
namespace {

using Values = std::vector<double>;
constexpr double pi = 3.141592653589793;

struct Setting {
  std::int64_t code, selector, sub_code, order, n;
  Values values;
  COORDINATES at = {};
  std::vector<std::int64_t> segments = {};
  double ar_limit = 0.999;
};

struct Outcome {
  Formed formed = Formed::in_handler;
  VARIANCE_MODEL model;
  STRUCTURE_ROW row;
  ERROR_HANDLER eh;
  std::unique_ptr<COMPONENT_MATRIX> component;

  double value(std::size_t k) const { return model.parameters[k].value; }
};

/// Forms a row once; the values beyond those of its model are variances.
void run(const Setting& s, Outcome& out)
{
  out.row.model = s.code;
  out.row.selector = s.selector;
  out.row.sub_code = s.sub_code;
  out.row.order = s.order;
  out.row.size = s.n;
  out.row.parameters = static_cast<std::int64_t>(s.values.size());
  for (const double x : s.values) {
    out.model.parameters.emplace_back();
    out.model.parameters.back().value = x;
    out.model.parameters.back().type = ParamType::G;
  }
  if (!s.at.x.empty()) {
    out.row.coordinates = 0;
    out.model.coordinates = {s.at};
  }
  if (!s.segments.empty()) {
    out.row.segments = 0;
    out.model.segments = {s.segments};
  }
  if (row_parameters(out.row).form == VarianceForm::one_variance) out.row.scale = out.row.parameters - 1;
  out.component = make_component(out.row, out.model);
  ASSERT_NE(out.component, nullptr);
  FORM_CONTEXT context{out.eh, out.model, out.row, 7, s.ar_limit, 0.0};
  out.formed = out.component->form(context);
  EXPECT_TRUE(out.eh.stack().entries.empty());
}

COORDINATES line(std::int64_t n)
{
  COORDINATES at;
  for (std::int64_t i = 0; i < n; ++i) at.x.push_back(static_cast<double>(i));
  return at;
}

COORDINATES grid(std::int64_t n)
{
  COORDINATES at = line(n);
  for (double& x : at.x) x = std::fmod(x, 3.0);
  for (std::int64_t i = 0; i < n; ++i) at.y.push_back(static_cast<double>(i / 3));
  return at;
}

constexpr double f01 = wide(0.01f), f99 = wide(0.99f);

TEST(CorrelationBounds, ValuesAreHeldInTheirSpace)
{
  const double ar2 = 0.9 + 0.3;         // |a + b|
  const double sum3 = 0.7 + 0.5 + 0.3;  // |a + b + c|
  struct {
    const char* name;
    Setting in;
    Values after;
    Constraint code = Constraint::P;  // of the first parameter
  } const table[] = {
      {"ar1 at the limit", {1, 1, 0, 1, 5, {-0.7}, {}, {}, 0.5}, {-0.5}, Constraint::B},
      {"ar1 equal to the limit", {1, 1, 0, 1, 5, {0.5}, {}, {}, 0.5}, {0.5}, Constraint::B},
      {"ar1 inside", {1, 1, 0, 1, 5, {0.499}, {}, {}, 0.5}, {0.499}},
      {"ar2 by the sum", {1, 1, 0, 2, 5, {0.9, 0.3}}, {0.9 / (ar2 + f01), 0.3 / (ar2 + f01)}},
      {"ar2 by the difference", {1, 1, 0, 2, 5, {-0.9, 0.3}}, {-0.9 / (ar2 + f01), 0.3 / (ar2 + f01)}},
      {"ar2 beyond the limit of ar1 is free", {1, 1, 0, 2, 5, {0.6, 0.1}, {}, {}, 0.5}, {0.6, 0.1}},
      {"ar3 by the sum",
       {1, 1, 0, 3, 7, {0.7, 0.5, 0.3}},
       {0.7 / (sum3 + f01), 0.5 / (sum3 + f01), 0.3 / (sum3 + f01)}},
      {"sar", {14, 8, 0, 1, 5, {-1.2}}, {-1.2 / (1.2 + f01)}},
      {"sar below its limit", {14, 8, 0, 1, 5, {0.995}}, {0.995}},
      {"sar2", {14, 8, 0, 2, 7, {0.5, 1.1}}, {0.5, 1.1 / (1.1 + f01)}},
      {"ma1", {2, 2, 0, 1, 5, {-1.5}}, {-1.5 * (0.995 / 1.5)}},
      {"ma2", {2, 2, 0, 2, 5, {0.9, 0.3}}, {0.9 / (ar2 + f01), 0.3 / (ar2 + f01)}},
      {"arma phi", {3, 3, 0, 2, 5, {-1.3, 0.2}}, {-0.999, 0.2}},
      {"arma theta", {3, 3, 0, 2, 5, {0.2, 1.3}}, {0.2, 0.999}},
      {"arma apart", {3, 3, 0, 2, 5, {0.1, 0.1}}, {0.1, 0.1 * wide(1.01f) * wide(1.01f)}},
      {"arma off zero", {3, 3, 0, 2, 5, {0.0, 0.0}}, {0.0, 0.001}},
      {"cor near 1", {5, 4, 0, 1, 4, {0.99995}}, {0.999}},
      {"exp from above", {6, 10, 1, 1, 4, {1.2}, line(4)}, {0.999}},
      {"exp from below", {6, 10, 1, 1, 4, {-0.1}, line(4)}, {1e-7}},
      {"aexp", {6, 16, 1, 2, 6, {1.2, 0.0}, grid(6)}, {0.999, 1e-7}},
      {"matern",
       {6, 23, 9, 5, 6, {0.0, 50.0, 1e-9, 4.0, 3.0}, grid(6)},
       {1e-7, 10.0, 0.001, 4.0 - 2.0 * pi, 2.0}},
      {"matern the other way",
       {6, 23, 9, 4, 6, {0.4, 0.0, 1e9, -4.0 - 20.0 * pi}, grid(6)},
       {0.4, 0.02, 1000.0, 2.0 * pi - 4.0}},
  };
  for (const auto& t : table) {
    SCOPED_TRACE(t.name);
    Outcome out;
    run(t.in, out);
    EXPECT_TRUE(out.formed == Formed::done || out.formed == Formed::done_by_metric);
    EXPECT_EQ(out.eh.count(), 0) << out.eh.EH_PRINT_TEXT();
    for (std::size_t k = 0; k < t.after.size(); ++k) EXPECT_NEAR(out.value(k), t.after[k], 1e-14 * std::fabs(t.after[k]));
    EXPECT_EQ(out.model.parameters[0].constraint, t.code);
    if (t.in.code != 6) {
      EXPECT_EQ(out.model.parameters[0].type, ParamType::R);
    }
  }
}

// Whatever a step proposes, the series models come out positive definite.
TEST(CorrelationBounds, SeriesStayInTheirSpaceFromAnywhere)
{
  struct {
    std::int64_t code, selector, order;
  } const models[] = {{1, 1, 1}, {1, 1, 2}, {1, 1, 3}, {14, 8, 1}, {14, 8, 2},
                      {2, 2, 1}, {2, 2, 2}, {3, 3, 2}, {5, 4, 1}};
  for (const auto& m : models) {
    const std::int64_t count = m.code == 3 ? 2 : m.order;
    for (int at = 0; at < 343; ++at) {
      Values v;
      for (int k = 0, rest = at; k < count; ++k, rest /= 7) v.push_back(-2.1 + 0.7 * (rest % 7));
      SCOPED_TRACE(testing::PrintToString(v) + " of model " + std::to_string(m.code));
      Outcome out;
      run({m.code, m.selector, 0, m.order, 9, v}, out);
      ASSERT_EQ(out.formed, Formed::done);
      ASSERT_TRUE(std::isfinite(out.component->log_determinant()));
      ASSERT_LE(out.component->log_determinant(), 1e-12);  // of a correlation matrix
    }
  }
}

TEST(CorrelationBounds, MendsAndFailuresHaveTheirMessages)
{
  const COORDINATES twice{{0.0, 1.0, 0.0, 2.0}, {0.0, 0.0, 0.0, 1.0}};
  const COORDINATES twice_on_a_line{{0.0, 1.0, 0.0, 2.0}, {}};
  const double nan = std::nan("");
  struct {
    const char* name;
    Setting in;
    Formed formed;
    const char* message;
    Etype type;
  } const table[] = {
      {"general",
       {5, 6, 0, 0, 3, {0.9, 0.9, -0.9}},
       Formed::done,
       "Negative Definite CORG structure modified at iteration 7, model may not coverge to best solution",
       Etype::warning},
      {"general beyond 1",
       {5, 6, 0, 0, 2, {1.3}},
       Formed::done,
       "Negative Definite CORG structure modified at iteration 7, model may not coverge to best solution",
       Etype::warning},
      {"banded",
       {5, 5, 0, 0, 4, {0.9, -0.9, 0.0}},
       Formed::done,
       "Negative Definite CORG structure modified at iteration 7, model may not coverge to best solution",
       Etype::warning},
      {"uniform",
       {5, 4, 0, 1, 5, {-0.6}},
       Formed::done,
       "Negative Definite CORG structure modified at iteration 7, model may not coverge to best solution",
       Etype::warning},
      {"correlations that are no numbers",
       {5, 6, 0, 0, 2, {nan}},
       Formed::in_handler,
       "failed to invert the CORR structure (leading minor order=2)",
       Etype::warning},
      {"ar3",
       {1, 1, 0, 3, 8, {0.1, nan, 0.1}},
       Formed::in_handler,
       "failed to invert the AR3 structure (leading minor order=2)",
       Etype::warning},
      {"sar2",
       {14, 8, 0, 2, 8, {0.1, nan}},
       Formed::in_handler,
       "failed to invert the SAR3 structure (leading minor order=2)",
       Etype::warning},
      {"arma",
       {3, 3, 0, 2, 8, {0.1, nan}},
       Formed::in_handler,
       "failed to invert the ARMA structure (leading minor order=1)",
       Etype::warning},
      {"a slope below zero",
       {6, 18, 6, 1, 9, {-0.01}, grid(9)},
       Formed::in_handler,
       "failed to invert the spatial R matrix  (leading minor order=2)",
       Etype::warning},
      {"the same in pieces",
       {6, 15, 4, 1, 4, {3.0}, twice, {1}},
       Formed::done_by_metric,
       nullptr,
       Etype::warning},
      {"one point twice in a piece",
       {6, 15, 4, 1, 4, {3.0}, {{0, 1, 1, 5}, {0, 0, 0, 0}}, {1}},
       Formed::in_handler,
       "failed to invert the blocked spartial R matrix (leading minor order=3)",
       Etype::warning},
      {"one point twice",
       {6, 12, 1, 1, 4, {0.5}, twice},
       Formed::done_by_metric,
       "Repeated point in spatial layout",
       Etype::warning},
      {"one point twice on a line",
       {6, 10, 1, 1, 4, {0.5}, twice_on_a_line},
       Formed::in_handler,
       "Repeated point in spatial layout",
       Etype::error},
      {"many pieces",
       {1, 1, 0, 1, 5, {0.5}, {}, {1, 2, 3}},
       Formed::done,
       "possible subsection error: Check order of data",
       Etype::warning},
      {"half as many pieces as levels",
       {1, 1, 0, 1, 6, {0.5}, {}, {2, 4}},
       Formed::done,
       nullptr,
       Etype::warning},
  };
  for (const auto& t : table) {
    SCOPED_TRACE(t.name);
    Outcome out;
    run(t.in, out);
    EXPECT_EQ(out.formed, t.formed);
    ASSERT_EQ(out.eh.count(), t.message == nullptr ? 0 : 1) << out.eh.EH_PRINT_TEXT();
    if (t.message == nullptr) continue;
    EXPECT_EQ(out.eh.EH_LAST_MESSAGE(), t.message);
    EXPECT_EQ(out.eh.messages()[0].etype, t.type);
    EXPECT_EQ(out.eh.terminate(), t.type == Etype::error);
  }
}

TEST(CorrelationBounds, CorrelationsShrinkTogetherUntilTheMatrixIsPositiveDefinite)
{
  Outcome out;
  run({5, 6, 0, 0, 3, {0.9, 0.9, -0.9, 2.5}}, out);  // with a variance
  ASSERT_EQ(out.formed, Formed::done);
  // 1 - 3 x^2 - 2 x^3 is positive below x = 0.5
  double x = 0.9;
  while (x >= 0.5) x *= f99;
  EXPECT_DOUBLE_EQ(out.value(0), x);
  EXPECT_DOUBLE_EQ(out.value(1), x);
  EXPECT_DOUBLE_EQ(out.value(2), -x);
  EXPECT_EQ(out.value(3), 2.5);
  EXPECT_NEAR(out.component->log_determinant(), std::log(1.0 - 3 * x * x - 2 * x * x * x) + 3 * std::log(2.5),
              1e-12);
}

TEST(CorrelationBounds, EqualArmaParametersStartFurtherApart)
{
  for (const double start : {0.1, -0.4, 0.0, 0.999}) {
    double phi = start, theta = start;
    bound_arma(phi, theta, true);
    EXPECT_EQ(phi, start);
    EXPECT_GE(std::fabs(phi - theta), 0.1);
    EXPECT_LT(std::fabs(phi - theta), 0.1 + 0.011 * std::fabs(theta));
  }
  double phi = 0.1, theta = 0.102;  // far enough to be let alone
  bound_arma(phi, theta, true);
  EXPECT_EQ(theta, 0.102);
}

TEST(CorrelationBounds, RepeatedPointsMoveByAHundredthOfTheSmallestSeparationSoFar)
{
  struct {
    COORDINATES at;
    double moved_to;  // the third point
  } const table[] = {
      {{{0.0, 3.0, 3.0, 9.0}, {0.0, 1.0, 1.0, 0.0}}, 3.0 + f01 * 4.0},  // city-block separations so far: 4, 4
      {{{0.0, 0.5, 0.0, 9.0}, {0.0, 0.5, 0.0, 0.0}}, 0.0 + f01 * 1.0},
  };
  for (const auto& t : table) {
    Outcome out;
    run({6, 12, 1, 1, 4, {0.5}, t.at}, out);
    EXPECT_EQ(out.formed, Formed::done_by_metric);
    EXPECT_DOUBLE_EQ(out.model.coordinates[0].x[2], t.moved_to);
    EXPECT_EQ(out.model.coordinates[0].y, t.at.y);
    FORM_CONTEXT again{out.eh, out.model, out.row, 8, 0.999, 0.0};
    out.component->form(again);
    EXPECT_EQ(out.eh.count(), 1);  // told once
  }
  Outcome first;  // nothing to measure by: far away
  run({6, 12, 1, 1, 3, {0.5}, {{1.0, 1.0, 2.0}, {1.0, 1.0, 2.0}}}, first);
  EXPECT_DOUBLE_EQ(first.model.coordinates[0].x[1], 1.0 + f01 * 1e10);
}

TEST(CorrelationBounds, SmallVariancesAreRaisedAndKeptPositive)
{
  for (const Values& values : {Values{0.3, 0.0}, Values{0.3, -2.0, 1.0, 1e-19}}) {
    Outcome out;
    run({5, 4, 0, 1, 3, values}, out);
    EXPECT_EQ(out.formed, Formed::done);
    for (std::size_t k = 1; k < values.size(); ++k) {
      EXPECT_EQ(out.value(k), std::max(values[k], 1e-18));
      EXPECT_EQ(out.model.parameters[k].constraint, Constraint::P);
    }
  }
  Outcome fixed;
  run({5, 4, 0, 1, 3, {0.3, 1.0}}, fixed);
  fixed.model.parameters[1].constraint = Constraint::F;
  fixed.model.parameters[1].value = 1e-19;
  FORM_CONTEXT again{fixed.eh, fixed.model, fixed.row, 8, 0.999, 0.0};
  fixed.component->form(again);
  EXPECT_EQ(fixed.model.parameters[1].constraint, Constraint::P);
}

TEST(CorrelationBounds, OneLevelStepsDownToTheIdentity)
{
  struct {
    const char* name;
    Setting in;
    int steps;
    std::int64_t left;  // parameters
  } const table[] = {
      {"ar1", {1, 1, 0, 1, 1, {0.3}}, 1, 0},
      {"ar3", {1, 1, 0, 3, 1, {0.3, 0.2, 0.1}}, 3, 0},
      {"ar2v", {1, 1, 0, 2, 1, {0.3, 0.2, 4.0}}, 2, 1},
      {"sar", {14, 8, 0, 1, 1, {0.3}}, 1, 0},
      {"sar2v", {14, 8, 0, 2, 1, {0.3, 0.2, 4.0}}, 2, 1},
  };
  for (const auto& t : table) {
    SCOPED_TRACE(t.name);
    Outcome out;
    run(t.in, out);
    int steps = 0;
    while (out.formed == Formed::again && steps < 10) {
      ++steps;
      out.component = make_component(out.row, out.model);
      ASSERT_NE(out.component, nullptr);
      FORM_CONTEXT context{out.eh, out.model, out.row, 1, 0.999, 0.0};
      out.formed = out.component->form(context);
    }
    EXPECT_EQ(out.formed, Formed::done);
    EXPECT_EQ(steps, t.steps);
    EXPECT_EQ(out.eh.count(), 0);
    EXPECT_EQ(out.row.model, 0);
    EXPECT_EQ(out.row.order, 0);
    EXPECT_EQ(out.row.parameters, t.left);
    const std::size_t gone = t.in.values.size() - static_cast<std::size_t>(t.left);
    for (std::size_t k = 0; k < gone; ++k) {
      EXPECT_EQ(out.value(k), 0.0);
      EXPECT_EQ(out.model.parameters[k].constraint, Constraint::F);
    }
    if (t.left == 1) {
      EXPECT_EQ(out.row.first, static_cast<std::int64_t>(gone));
      EXPECT_EQ(out.row.scale, out.row.first);
      EXPECT_DOUBLE_EQ(out.component->log_determinant(), std::log(4.0));
    }
  }
}

// A parameter count that no form of the model has.
TEST(CorrelationBounds, AMisfitHasNoComponent)
{
  VARIANCE_MODEL model;
  model.parameters.resize(3);
  STRUCTURE_ROW row{.size = 5, .parameters = 3, .model = 1, .order = 1, .selector = 1};
  EXPECT_FALSE(row_parameters(row).fit);
  EXPECT_EQ(make_component(row, model), nullptr);
  row.parameters = 4;
  row.order = 4;
  row.selector = 1;
  EXPECT_EQ(make_component(row, model), nullptr);
}

// Each allocation of forming fails in its turn: a clean answer, and the next attempt succeeds.
TEST(CorrelationBounds, ShortMemoryIsTold)
{
  const Setting table[] = {
      {1, 1, 0, 2, 6, {0.3, 0.2, 2.0}},      {14, 8, 0, 1, 3, {0.3, 1.0, 2.0, 3.0}},
      {3, 3, 0, 2, 6, {0.3, 0.2}},           {5, 4, 0, 1, 3, {0.3, 1.0, 2.0, 3.0}},
      {5, 5, 0, 0, 4, {0.3, 0.2, 0.1}},      {5, 6, 0, 0, 3, {0.3, 0.2, 0.1, 2.0}},
      {6, 12, 1, 1, 6, {0.5, 2.0}, grid(6)}, {6, 23, 9, 2, 6, {0.5, 1.2}, grid(6)},
  };
  for (const Setting& t : table) {
    SCOPED_TRACE("model " + std::to_string(t.code) + ", selector " + std::to_string(t.selector));
    bool struck = true;
    for (int good = 0; struck; ++good) {
      ASSERT_LT(good, 100);
      Outcome out;
      run(t, out);  // set up, and formed once in plenty
      out.component = make_component(out.row, out.model);
      ERROR_HANDLER eh;
      eh.set_stack_mode(0);  // the trail of routines would allocate as well
      FORM_CONTEXT context{eh, out.model, out.row, 1, 0.999, 0.0};
      Formed formed = Formed::done;
      {
        const FailingMemory memory(good, true);
        formed = out.component->form(context);
        struck = memory.struck();
      }
      EXPECT_EQ(formed == Formed::in_handler, struck);
      EXPECT_EQ(eh.terminate(), struck);
      EXPECT_TRUE(eh.stack().entries.empty());
    }
  }
}

// Bands stay bands: a million levels take no n x n matrix, and the figures are those of the closed forms.
TEST(CorrelationBounds, LongSeriesStayBanded)
{
  const std::int64_t n = 1'000'000;
  const double r = 0.6;
  Outcome out;
  run({1, 1, 0, 1, n, {r}}, out);
  ASSERT_EQ(out.formed, Formed::done);
  const double s = 1.0 - r * r;
  EXPECT_EQ(out.component->inverse().shape, Shape::banded);
  EXPECT_EQ(out.component->inverse().bandwidth, 1);
  EXPECT_NEAR(out.component->log_determinant() / (static_cast<double>(n - 1) * std::log(s)), 1.0, 1e-10);
  EXPECT_NEAR(out.component->score_part()[0] / (static_cast<double>(n - 1) * (-2.0 * r / s)), 1.0, 1e-10);
  const double* ri = out.component->inverse().values;
  EXPECT_DOUBLE_EQ(ri[0], 1.0 / s);
  EXPECT_DOUBLE_EQ(ri[n / 2], (1.0 + r * r) / s);
  EXPECT_DOUBLE_EQ(ri[n - 1], 1.0 / s);
  EXPECT_DOUBLE_EQ(ri[n + n / 2], -r / s);
  // Rdot R^-1 of a column of R: column j of Rdot, |i - j| r^(|i - j| - 1)
  Values x(static_cast<std::size_t>(n)), y(x.size());
  const std::int64_t j = n / 3;
  for (std::int64_t i = 0; i < n; ++i) x[static_cast<std::size_t>(i)] = std::pow(r, std::abs(i - j));
  out.component->working(0, x.data(), y.data(), 1, 1);
  for (const std::int64_t i : {j - 20, j - 3, j - 1, j, j + 1, j + 7}) {
    const double gap = static_cast<double>(std::abs(i - j));
    EXPECT_NEAR(y[static_cast<std::size_t>(i)], gap == 0.0 ? 0.0 : gap * std::pow(r, gap - 1.0), 1e-12);
  }
}

}  // namespace
}  // namespace tolvan
