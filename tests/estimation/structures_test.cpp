// Evaluations with every kind of structure against the textbook: V is built densely from the components' covariances, its
// derivatives by differences, and LogL, scores and average information follow from their definitions.
#include "structure_models.h"

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

TEST(Structures, EvaluationsAgreeWithTheDenseDefinitions)
{
  for (const Case& c : cases) {
    if (c.gamma) continue;
    SCOPED_TRACE(c.name);
    Built b = build(c, 7);
    EVALUATION ev;
    evaluate(b, b.model, ev);
    if (HasFatalFailure()) return;
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
