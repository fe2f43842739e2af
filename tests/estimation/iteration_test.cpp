// What happens between evaluations: the watch for oscillation, the floor of residual variances, the look at starting values.
#include <gtest/gtest.h>

#include "estimation/keep_parameters.h"
#include "estimation/section_variances.h"
#include "support/checks.h"

namespace tolvan {
namespace {

VARIANCE_MODEL sections_of(const std::vector<double>& variances)
{
  VARIANCE_MODEL model;
  model.profiled = model.gamma = false;
  for (const double v : variances) {
    RESIDUAL_SECTION section;
    section.rows = 0;
    section.scale = model.count();
    model.parameters.push_back({.value = v, .start = v, .label = "v" + std::to_string(model.count() + 1)});
    model.sections.push_back(section);
  }
  return model;
}

TEST(Iteration, OscillatingParametersAreResetToTheMeanOfTheirLastValues)
{
  struct Case {
    const char* what;
    std::vector<double> values;  // of six evaluations, and the next one
    double gain;                 // of LogL an iteration
    double expected;
  };
  for (const Case& c : {Case{"up and down", {1.0, 2.0, 1.0, 2.0, 1.0, 2.0, 1.0}, 0.0, 1.5},
                        Case{"up and down, but gaining", {1.0, 2.0, 1.0, 2.0, 1.0, 2.0, 1.0}, 1.0, 1.0},
                        Case{"one way", {1.0, 2.0, 3.0, 4.0, 5.0, 6.0, 7.0}, 0.0, 7.0},
                        Case{"hardly at all", {1.0, 1.01, 1.0, 1.01, 1.0, 1.01, 1.0}, 0.0, 1.0}}) {
    ERROR_HANDLER eh;
    VARIANCE_MODEL model = sections_of({1.0});
    FIT_WORK work;
    work.aiopt(Ai::step_thousandths) = 1000;
    for (std::size_t k = 0; k + 1 < c.values.size(); ++k) {
      EVALUATION ev;
      ev.evaluated = {c.values[k]};
      ev.logl = -10.0 + c.gain * static_cast<double>(k);
      model.parameters[0].value = c.values[k + 1];
      KEEPGM_SAVE_AND_ADJUST(eh, static_cast<std::int64_t>(k) + 1, true, ev, model, work);
      EXPECT_DOUBLE_EQ(work.saved[0].value, c.values[k]);
    }
    EXPECT_DOUBLE_EQ(model.parameters[0].value, c.expected) << c.what;
    EXPECT_DOUBLE_EQ(work.update.step, c.expected == 1.5 ? 0.4 : 1.0) << c.what;
  }
}

TEST(Iteration, SmallSectionsAreRaisedOnlyAmongSeveral)
{
  FIT_OPTIONS options = FIT_OPTIONS_DEFAULTS();
  options(Slot::s2limit) = 1;
  ERROR_HANDLER eh;
  VARIANCE_MODEL three = sections_of({0.001, 1.0, 1.999});
  raise_small_sections(eh, options, three);
  EXPECT_DOUBLE_EQ(three.parameters[0].value, 1.0 / 30.0) << "their mean over 10 times their number";
  EXPECT_DOUBLE_EQ(three.parameters[1].value, 1.0);
  EXPECT_TRUE(has_message(eh, "small Residual variance in section 1 fixed at .033333"));
  VARIANCE_MODEL two = sections_of({0.001, 1.0});
  raise_small_sections(eh, options, two);
  EXPECT_DOUBLE_EQ(two.parameters[0].value, 0.001);
}

TEST(Iteration, StartingVariancesFarOffAreTold)
{
  for (const auto& [ratio, words] : {std::pair{3.5, "may be too small"}, std::pair{0.1, "may be too large"}, std::pair{1.0, ""}}) {
    ERROR_HANDLER eh;
    EVALUATION ev;
    ev.nu = 50;
    ev.quadratic = 50.0 * ratio;
    judge_starting_variances(eh, sections_of({1.0, 1.0, 1.0}), ev);
    if (words[0] == '\0') {
      EXPECT_TRUE(eh.messages().empty());
    } else {
      EXPECT_TRUE(has_message(eh, words));
    }
  }
}

}  // namespace
}  // namespace tolvan
