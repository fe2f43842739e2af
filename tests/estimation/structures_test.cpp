// Evaluations with every kind of structure against the textbook: V is built densely from the components' covariances, its
// derivatives by differences, and LogL, scores and average information follow from their definitions.
#include "structure_models.h"
#include "varstruct/followers.h"

namespace tolvan {
namespace {

using namespace tolvan::test;
using tolvan_test::dense_variance;
using tolvan_test::DenseVariance;

void evaluate(Built& b, VARIANCE_MODEL model, EVALUATION& ev)
{
  ERROR_HANDLER eh;
  FIT_WORK work;
  const FIT_MODEL in{b.options, b.variables, b.factors, b.terms, b.design, b.timing};
  work.aiopt(Ai::penalty) = -1;
  K4MITR(eh, in, 1, model, work, ev);
  ASSERT_FALSE(eh.terminate()) << eh.EH_PRINT_TEXT();
  ASSERT_EQ(ev.fault, 0) << eh.EH_PRINT_TEXT();
}

/// LogL, scores and average information of a model by their definitions.
void check(Built& b)
{
  EVALUATION ev;
  evaluate(b, b.model, ev);
  if (testing::Test::HasFatalFailure()) return;
  const auto k = static_cast<std::size_t>(ev.information.count());
  std::vector<Matrix> vdot;
  std::size_t free = 0;
  for (std::size_t i = 0; i < b.model.parameters.size(); ++i) {
    if (!is_free(b.model.parameters[i].constraint)) continue;
    ++free;
    const double step = 1e-5 * std::max(0.1, std::fabs(b.model.parameters[i].value));
    VARIANCE_MODEL up = b.model;
    VARIANCE_MODEL down = b.model;
    up.parameters[i].value += step;
    down.parameters[i].value -= step;
    vdot.push_back(variance_of(b, up));
    const Matrix below = variance_of(b, down);
    for (std::size_t m = 0; m < below.a.size(); ++m) vdot.back().a[m] = (vdot.back().a[m] - below.a[m]) / (2.0 * step);
  }
  ASSERT_EQ(k, free);
  const DenseVariance d = dense_variance(b.x, b.design.response, variance_of(b, b.model), vdot);
  EXPECT_NEAR(ev.logl, d.logl, 1e-8 * std::fabs(d.logl));
  EXPECT_NEAR(ev.quadratic, d.quadratic, 1e-8 * d.quadratic);
  EXPECT_EQ(static_cast<double>(ev.nu), d.nu);
  for (std::size_t i = 0; i < k; ++i) EXPECT_NEAR(ev.information.score[i], d.score[i], 1e-6 * (1.0 + std::fabs(d.score[i]))) << i;
  for (std::size_t i = 0; i < d.ai.size(); ++i) EXPECT_NEAR(ev.information.ai[i], d.ai[i], 1e-6 * (1.0 + std::fabs(d.ai[i]))) << i;
}

TEST(Structures, EvaluationsAgreeWithTheDenseDefinitions)
{
  for (const Case& c : cases) {
    if (c.gamma) continue;
    SCOPED_TRACE(c.name);
    Built b = build(c, 7);
    check(b);
    if (HasFatalFailure()) return;
  }
}

// Every model of the catalogue by itself, in its forms: beside the identity in a random term, with and without a variance outside in
// the residual.
TEST(Structures, EveryModelAgreesAsEffectAndAsResidual)
{
  const std::vector<double> x{0.0, 0.7, 1.5, 2.6};
  const std::vector<double> y{0.0, 1.1, 0.2, 0.9};
  struct Model {
    const char* name;
    Part part;  // four levels, the correlations alone where there are forms
    bool forms;
  };
  const Model models[] = {
      {"id", {0, 0, 4, {}}, true},
      {"ar1", {1, 1, 4, {0.4}}, true},
      {"ar2", {1, 1, 4, {0.5, 0.2}, 2}, true},
      {"ar3", {1, 1, 4, {0.4, 0.2, -0.1}, 3}, true},
      {"ma1", {2, 2, 4, {0.3}}, true},
      {"ma2", {2, 2, 4, {0.3, -0.2}, 2}, true},
      {"arma", {3, 3, 4, {0.5, -0.2}}, true},
      {"cor", {4, 5, 4, {0.3}}, true},
      {"corb", {5, 5, 4, {0.4, 0.2, 0.1}, 3}, true},
      {"corg", {6, 5, 4, {0.3, 0.2, -0.4, 0.1, 0.25, -0.15}, 6}, true},
      {"sar", {8, 14, 4, {0.3}}, true},
      {"sar2", {8, 14, 4, {0.3, 0.2}, 2}, true},
      {"exp", {10, 6, 4, {0.5}, 1, 1, x}, true},
      {"gau", {11, 6, 4, {0.4}, 1, 2, x}, true},
      {"iexp", {12, 6, 4, {0.4}, 1, 1, x, 0, nullptr, y}, true},
      {"igau", {13, 6, 4, {0.4}, 1, 2, x, 0, nullptr, y}, true},
      {"ieuc", {14, 6, 4, {0.4}, 1, 3, x, 0, nullptr, y}, true},
      {"sph", {15, 6, 4, {3.1}, 1, 4, x, 0, nullptr, y}, true},
      {"aexp", {16, 6, 4, {0.4, 0.6}, 1, 1, x, 0, nullptr, y}, true},
      {"agau", {17, 6, 4, {0.4, 0.6}, 1, 2, x, 0, nullptr, y}, true},
      {"lvr", {19, 6, 4, {0.1}, 1, 7, x}, true},
      {"cir", {22, 6, 4, {3.1}, 1, 5, x, 0, nullptr, y}, true},
      {"mtrn", {23, 6, 4, {0.7, 0.8}, 2, 9, x, 0, nullptr, y}, true},
      {"diag", {24, 8, 4, {0.5, 0.9, 1.4, 0.3}}, false},
      {"us", {25, 9, 4, {1.0, 0.3, 0.8, -0.2, 0.1, 1.3, 0.2, 0.0001, 0.4, 0.7}}, false},
      {"sfa", {26, 10, 4, {0.6, 0.5, 0.7, 0.4, 0.9, 1.2, 0.8, 1.1}}, false},
      {"sfa of two factors", {26, 10, 4, {0.6, 0.5, 0.7, 0.4, 0.1, 0.3, -0.2, 0.2, 0.9, 1.2, 0.8, 1.1}, 2}, false},
      {"chol", {27, 11, 4, {0.9, 0.4, 0.7, 0.0, -0.3, 1.1, 0.0, 0.0, 0.2, 0.6}, 1}, false},
      {"chol of full band", {27, 11, 4, {0.9, 0.4, 0.7, 0.1, -0.3, 1.1, 0.2, 0.3, 0.2, 0.6}, 3}, false},
      {"ante", {28, 12, 4, {0.8, -0.5, 1.1, 0.0, -0.4, 0.9, 0.0, 0.0, -0.3, 1.2}, 1}, false},
      {"facv", {29, 13, 4, {0.7, 0.5, 0.9, 0.6, 0.3, 0.4, 0.2, 0.5}}, false},
      {"facv of two factors", {29, 13, 4, {0.7, 0.5, 0.9, 0.6, 0.0, 0.4, -0.3, 0.2, 0.3, 0.4, 0.2, 0.5}, 2}, false},
  };
  for (const Model& m : models) {
    const std::size_t levels = 4;
    for (const std::size_t variances : {std::size_t{0}, std::size_t{1}, levels}) {
      if (variances > 0 && !m.forms) continue;
      Part part = m.part;
      for (std::size_t i = 0; i < variances; ++i) part.values.push_back(0.7 + 0.2 * static_cast<double>(i));
      if (part.selector == 0 && variances == levels) part.code = 8;
      SCOPED_TRACE(testing::Message() << m.name << ", variances: " << variances);
      const bool sized = variances > 0 || !m.forms;
      Built random = build({"", {{part, {0, 0, 6, {}}}}, {{{0, 0, 50, {1.1}}}}}, 7);
      check(random);
      Built residual = build({"", {{{0, 0, 5, {0.6}}}}, {{{0, 0, 9, {}}, part}}, false, !sized}, 7);
      check(residual);
      if (HasFatalFailure()) return;
    }
  }
}

// Parameters that follow others: the score of a master is what LogL gains with its followers, the information likewise.
TEST(Structures, FollowersAreScoredWithTheirMasters)
{
  Built b = build({"", {{{0, 0, 6, {0.7}}}, {{25, 9, 2, {0.9, 0.3, 0.6}}, {0, 0, 7, {}}}}, {{{0, 0, 30, {1.1}}}, {{0, 0, 25, {0.0001}}}}}, 7);
  ERROR_HANDLER eh;
  link_parameter(b.model, 5, 4, 1.7);  // the second residual variance after the first
  const PARAMETER_SHARE shares[] = {{0, 0.5}, {1, 0.25}};
  link_to_sum(b.model, 3, shares);     // an element of a matrix from two variances
  set_followers(b.model);
  EVALUATION ev;
  evaluate(b, b.model, ev);
  if (HasFatalFailure()) return;
  fold_followers(b.model, ev.information);
  ASSERT_EQ(ev.information.active, (std::vector<std::int64_t>{0, 1, 2, 4}));
  std::vector<Matrix> vdot;
  for (const std::int64_t i : ev.information.active) {
    const double step = 1e-5;
    VARIANCE_MODEL up = b.model;
    VARIANCE_MODEL down = b.model;
    up.parameters[static_cast<std::size_t>(i)].value += step;
    down.parameters[static_cast<std::size_t>(i)].value -= step;
    set_followers(up);
    set_followers(down);
    vdot.push_back(variance_of(b, up));
    const Matrix below = variance_of(b, down);
    for (std::size_t m = 0; m < below.a.size(); ++m) vdot.back().a[m] = (vdot.back().a[m] - below.a[m]) / (2.0 * step);
  }
  const DenseVariance d = dense_variance(b.x, b.design.response, variance_of(b, b.model), vdot);
  for (std::size_t i = 0; i < 4; ++i) EXPECT_NEAR(ev.information.score[i], d.score[i], 1e-6 * (1.0 + std::fabs(d.score[i]))) << i;
  for (std::size_t i = 0; i < d.ai.size(); ++i) EXPECT_NEAR(ev.information.ai[i], d.ai[i], 1e-6 * (1.0 + std::fabs(d.ai[i]))) << i;
}

// Reduced factor models: one a product, at an end of it, and not in a product of three.
TEST(Structures, ReducedFactorModelsHaveTheirPlace)
{
  const Part reduced{31, 15, 7, {0.0, 0.0, 0.0, 0.8, 0.5, 0.9}, 1, 0, {}, 3};
  const Part series{1, 1, 3, {0.5}};
  const Part plain{0, 0, 2, {}};
  const struct {
    std::vector<Part> product;
    const char* message;  // null: none, the fault tells it
    std::int64_t fault;
  } products[] = {
      {{reduced, series}, nullptr, 0},
      {{series, reduced}, nullptr, 0},
      {{reduced, reduced}, "Only one XFA term with zero PSIs is permitted", 3020},
      {{plain, reduced, series}, "XFA term with Zero PSIs must be first or last in direct product", 3020},
      {{reduced, plain, series}, nullptr, 3020},
  };
  for (const auto& p : products) {
    Built b = build({"", {p.product}, {{{0, 0, 60, {1.1}}}}}, 7);
    ERROR_HANDLER eh;
    FIT_WORK work;
    EVALUATION ev;
    const FIT_MODEL in{b.options, b.variables, b.factors, b.terms, b.design, b.timing};
    K4MITR(eh, in, 1, b.model, work, ev);
    EXPECT_EQ(ev.fault, p.fault);
    EXPECT_EQ(eh.terminate(), p.message != nullptr);
    if (p.message != nullptr) {
      EXPECT_EQ(eh.messages().at(eh.messages().size() - 2).message, p.message);
    }
  }
}

}  // namespace
}  // namespace tolvan
