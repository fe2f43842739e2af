// Parameters made of others, and the step of those when it would take them out of their space.
#include <gtest/gtest.h>

#include "base/text.h"
#include "estimation/keep_followers.h"
#include "varstruct/followers.h"

namespace tolvan {
namespace {

constexpr const char* words = "Some VCM constrained parameters restrained to parameter space";

std::int64_t told(const ERROR_HANDLER& eh)
{
  std::int64_t count = 0;
  for (const ERROR_MESSAGE& message : eh.messages()) count += message.message == words ? 1 : 0;
  return count;
}

// c = a - 0.98 b; the step presses c below zero.  It is shortened as a whole, and once c has been pressed three times near the
// optimum a and b stay there, while d goes its own way.
TEST(KeepFollowers, ShortensTheStepOfTheirMastersAndFixesThemInTheEnd)
{
  VARIANCE_MODEL model;
  for (const double v : {1.0, 1.0, 0.0, 2.0}) model.parameters.push_back({.value = v, .start = v, .label = "v"});
  const PARAMETER_SHARE shares[] = {{0, 1.0}, {1, -0.98}};
  link_to_sum(model, 2, shares);
  set_followers(model);
  ERROR_HANDLER eh;
  AIOPT aiopt;
  UPDATE_STATE state;
  state.reference.assign(4, 0.0);
  state.change.assign(4, 0.0);
  state.pulled.assign(4, 0);
  for (int n = 1; n <= 5; ++n) {
    std::vector<double> from;
    for (const VARIANCE_PARAMETER& v : model.parameters) from.push_back(v.value);
    const bool free = is_free(model.parameters[0].constraint);
    EXPECT_EQ(free, n <= 3) << n;
    if (free) model.parameters[0].value -= 0.5;
    if (free) model.parameters[1].value += 0.2;
    model.parameters[3].value += 0.1;
    aiopt(Ai::restrained) = 0;
    keep_followers_inside(eh, from, n == 1 ? 30.0 : 0.1, model, aiopt, state);
    set_followers(model, false);
    const double a = model.parameters[0].value - from[0];
    const double b = model.parameters[1].value - from[1];
    EXPECT_NEAR(0.2 * a, -0.5 * b, 1e-12) << "on the way of the step";
    EXPECT_NEAR(model.parameters[2].value, free ? 0.0949 * from[2] : from[2], 1e-12);
    EXPECT_EQ(aiopt(Ai::restrained), free ? 1 : 0);
    EXPECT_DOUBLE_EQ(model.parameters[3].value, from[3] + 0.1);
    EXPECT_EQ(told(eh), n >= 3 ? 1 : 0) << n;
  }
}

TEST(KeepFollowers, StepsInsideAreLeftAlone)
{
  struct Case {
    ParamRole role;
    double by, from, to, want;
  };
  for (const Case& c : {Case{ParamRole::correlation, 1.0, 0.5, 0.8, 0.8}, Case{ParamRole::correlation, -1.0, 0.5, 0.99, 0.975},
                        Case{ParamRole::correlation, -1.0, 0.5, -0.9, -0.9}, Case{ParamRole::variance, 2.0, 1.0, 0.01, 0.01},
                        Case{ParamRole::covariance, -2.0, 1.0, -3.0, -3.0}, Case{ParamRole::loading, -2.0, 1.0, -3.0, -3.0}}) {
    VARIANCE_MODEL model;
    for (int i = 0; i < 2; ++i) model.parameters.push_back({.value = c.from, .start = c.from, .role = c.role, .label = "v"});
    link_parameter(model, 1, 0, c.by);
    set_followers(model);
    const std::vector<double> from{c.from, c.by * c.from};
    model.parameters[0].value = c.to;
    ERROR_HANDLER eh;
    AIOPT aiopt;
    UPDATE_STATE state;
    state.reference.assign(2, 0.0);
    state.change.assign(2, 0.0);
    state.pulled.assign(2, 0);
    keep_followers_inside(eh, from, 0.0, model, aiopt, state);
    EXPECT_NEAR(model.parameters[0].value, c.want, 1e-12) << c.from << " " << c.to;
    EXPECT_TRUE(eh.messages().empty());
  }
}

}  // namespace
}  // namespace tolvan
