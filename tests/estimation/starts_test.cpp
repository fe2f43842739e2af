// Steps from starting values that are far off: where the mean squares of balanced data are known the first ones lead there.
#include <numeric>

#include "estimation/expected_information.h"
#include "structure_models.h"

namespace tolvan {
namespace {

using namespace tolvan::test;

/// One evaluation and its step, without damping.
void step(Built& b, std::int64_t iteration, FIT_WORK& work)
{
  ERROR_HANDLER eh;
  EVALUATION ev;
  const FIT_MODEL in{b.options, b.variables, b.factors, b.terms, b.design, b.timing};
  work.aiopt(Ai::penalty) = -1;
  K4MITR(eh, in, iteration, b.model, work, ev);
  ASSERT_FALSE(eh.terminate()) << eh.EH_PRINT_TEXT();
  ASSERT_EQ(ev.fault, 0);
  work.previous_logl = work.best_logl = ev.logl;
  work.has_saved = true;
}

// Nothing but a residual: one step leads to its mean square, from above and from below, and a few to a matrix of mean products,
// which the fixed effects keep from being exact at once.
TEST(Starts, AResidualReachesItsMeanSquaresAtOnce)
{
  const struct {
    std::vector<double> at;       // where the iteration of 12 steps begins, to find what is wanted
    std::vector<Part> structure;  // with no values
    std::int64_t steps;
    double tolerance;
  } cases[] = {{{1.0}, {{0, 0, 40, {}}}, 1, 1e-10}, {{1.0, 0.2, 1.0}, {{0, 0, 30, {}}, {25, 9, 2, {}}}, 3, 1e-3}};
  for (const auto& c : cases) {
    const auto after = [&](double times, std::int64_t steps) {
      std::vector<Part> residual = c.structure;
      residual.back().values = c.at;
      for (double& v : residual.back().values) v *= times;
      Built b = build({"", {}, {residual}}, 11);
      FIT_WORK work;
      for (std::int64_t n = 1; n <= steps; ++n) step(b, n, work);
      std::vector<double> values;
      for (const VARIANCE_PARAMETER& v : b.model.parameters) values.push_back(v.value);
      return values;
    };
    const std::vector<double> want = after(1.0, 12);
    for (const double times : {20.0, 0.3}) {
      const std::vector<double> got = after(times, c.steps);
      for (std::size_t i = 0; i < want.size(); ++i) EXPECT_NEAR(got[i], want[i], c.tolerance * want[0]) << times << " " << i;
    }
  }
}

constexpr std::int64_t groups = 12;
constexpr std::int64_t each = 5;

/// Two balanced one-way layouts side by side, each with its own mean and variances: y = a group's effect and a residual.
Built one_way_twice(const std::vector<double>& of_groups, const std::vector<double>& of_residual)
{
  Built b = build({"", {{{24, 8, 2, of_groups}, {0, 0, groups, {}}}},
                   {{{0, 0, groups * each, {of_residual[0]}}}, {{0, 0, groups * each, {of_residual[1]}}}}, false, false, 2}, 3);
  DESIGN_MTX& d = b.design;
  d.equation.clear();
  d.value.clear();
  d.start = {0};
  for (std::int64_t r = 0; r < 2 * groups * each; ++r) {
    const std::int64_t layout = r / (groups * each);
    const std::int64_t g = r / each;  // over both layouts
    d.equation.insert(d.equation.end(), {0, static_cast<std::int32_t>(1 + layout), static_cast<std::int32_t>(3 + g)});
    d.value.insert(d.value.end(), {1.0, 1.0, 1.0});
    d.start.push_back(static_cast<std::int64_t>(d.equation.size()));
    const auto x = static_cast<double>(r);
    d.response[static_cast<std::size_t>(r)] =
        (layout == 0 ? 3.0 : 1.0) * std::sin(2.3 * static_cast<double>(g)) + (layout == 0 ? 1.0 : 0.6) * std::cos(5.1 * x);
  }
  return b;
}

TEST(Starts, BalancedDataLeadToTheirMeanSquaresInAFewSteps)
{
  const std::vector<double> y = one_way_twice({1.0, 1.0}, {1.0, 1.0}).design.response;
  std::vector<double> want;  // group variances, then the residual ones
  std::vector<double> within(2, 0.0);
  for (std::size_t layout = 0; layout < 2; ++layout) {
    const auto from = y.begin() + static_cast<std::ptrdiff_t>(layout * groups * each);
    const double all = std::accumulate(from, from + groups * each, 0.0) / (groups * each);
    double between = 0.0;
    for (std::int64_t g = 0; g < groups; ++g) {
      const double mean = std::accumulate(from + g * each, from + (g + 1) * each, 0.0) / each;
      for (std::int64_t k = 0; k < each; ++k) within[layout] += std::pow(from[g * each + k] - mean, 2) / (groups * (each - 1));
      between += each * std::pow(mean - all, 2) / (groups - 1);
    }
    ASSERT_GT(between, 1.5 * within[layout]);
    want.push_back((between - within[layout]) / each);
  }
  want.insert(want.end(), within.begin(), within.end());
  for (const double of_group : {50.0, 1.0, 0.02}) {
    for (const double of_residual : {5.0, 1.0, 0.2}) {
      Built b = one_way_twice({of_group * want[0], of_group * want[1]}, {of_residual * want[2], of_residual * want[3]});
      FIT_WORK work;
      for (std::int64_t n = 1; n <= 4; ++n) step(b, n, work);
      if (HasFatalFailure()) return;
      for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_NEAR(b.model.parameters[i].value, want[i], 0.02 * want[i]) << of_group << " " << of_residual << " " << i;
      }
    }
  }
}

// A plain variance takes the average information as it is; several in one product are weighed by what the data say of each.
TEST(Starts, OnlySizesThatStandAgainstEachOtherAreWeighed)
{
  VARIANCE_MODEL model;
  for (const double v : {1.0, 2.0, 4.0}) model.parameters.push_back({.value = v, .start = v, .label = "v"});
  model.terms = {{.term = 0, .first_row = 0}, {.term = 1, .first_row = 1}};
  model.rows = {{.size = 3, .parameters = 1, .first = 0, .scale = 0}, {.size = 2, .parameters = 2, .model = 8, .first = 1}};
  INFORMATION information;
  information.active = {0, 1, 2};
  information.unit = {1.0, 1.0, 1.0};
  information.ai = {2.0, 0.5, 3.0, 0.2, 0.3, 4.0};
  information.score = {1.5, 1.5, 0.0};
  information.quadratic = {2.0, 2.0, 0.7};  // the parameters promise 0.5, 0.5 and 0.7
  const std::vector<double> ratio = data_ratios(model, information);
  EXPECT_EQ(ratio, (std::vector<double>{1.0, 4.0, 1.0}));
  make_expected(ratio, information);
  EXPECT_EQ(information.ai, (std::vector<double>{2.0, 0.25, 0.75, 0.2, 0.15, 4.0}));
}

}  // namespace
}  // namespace tolvan
