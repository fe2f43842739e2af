// Outlier statistics against their definitions: P y over the roots of diag(P), Z'P y over those of diag(Z'PZ), P being dense.
#include "base/numbers.h"
#include "estimation/final_results.h"
#include "structure_models.h"
#include "support/failing_memory.h"

namespace tolvan {
namespace {

using namespace tolvan::test;

struct Fitted {
  ERROR_HANDLER eh;
  FIT_WORK work;
  EVALUATION ev;
  FIT_STATE fit;
};

void fit_once(Built& b, int threads, Fitted& f, std::int64_t mode = 0, bool final_pass = true)
{
  const FIT_MODEL in{b.options, b.variables, b.factors, b.terms, b.design, b.timing};
  f.work.aiopt(Ai::penalty) = -1;
  f.work.aiopt(Ai::outliers) = 2;
  f.work.aiopt(Ai::final_pass) = final_pass ? 1 : 0;
  f.work.aiopt(Ai::threads) = threads;
  f.work.aiopt(Ai::mode) = mode;
  VARIANCE_MODEL model = b.model;
  K4MITR(f.eh, in, 1, model, f.work, f.ev);
  ASSERT_FALSE(f.eh.terminate()) << f.eh.EH_PRINT_TEXT();
  ASSERT_EQ(f.ev.fault, 0);
  K4MFIN(f.eh, in, model, f.work, f.ev, f.fit);
  ASSERT_FALSE(f.eh.terminate()) << f.eh.EH_PRINT_TEXT();
  ASSERT_TRUE(f.eh.stack().entries.empty());
}

TEST(Outliers, AreScoresOverTheirStandardDeviations)
{
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Built b = build(c, 7);
    Fitted f;
    fit_once(b, 1, f);
    if (HasFatalFailure()) return;
    const double s2 = f.ev.sigma2;
    const tolvan_test::DenseVariance d = tolvan_test::dense_variance(b.x, b.design.response, variance_of(b, b.model), {});
    ASSERT_EQ(f.fit.record_outlier.size(), d.py.size());
    std::vector<bool> missing(d.py.size(), false);
    for (const std::int64_t r : b.design.mv) missing[static_cast<std::size_t>(r)] = true;
    for (std::size_t r = 0; r < d.py.size(); ++r) {
      if (missing[r]) {
        EXPECT_TRUE(is_no_value(f.fit.rinv_residual[r]) && is_no_value(f.fit.record_outlier[r])) << r;
        continue;
      }
      EXPECT_NEAR(f.fit.rinv_residual[r], d.py[r] / s2, 1e-8) << r;
      EXPECT_NEAR(f.fit.record_outlier[r], d.py[r] / std::sqrt(s2 * d.p(r, r)), 1e-7) << r;
    }
    for (std::size_t t = 0; t < b.z.size(); ++t) {
      const Matrix zt = transpose(b.z[t]);
      const Matrix zpz = zt * d.p * b.z[t];
      for (std::size_t i = 0; i < zt.rows; ++i) {
        double score = 0.0;
        for (std::size_t r = 0; r < zt.columns; ++r) score += zt(i, r) * d.py[r];
        const auto e = static_cast<std::size_t>(b.terms.rows[2 + t].first) + i;
        EXPECT_NEAR(f.fit.ginv_effect[e], score / s2, 1e-7) << t << " " << i;
        const double expected = zpz(i, i) > 1e-9 ? score / std::sqrt(s2 * zpz(i, i)) : 0.0;
        EXPECT_NEAR(f.fit.effect_outlier[e], expected, 1e-6) << t << " " << i;
      }
    }
    EXPECT_TRUE(is_no_value(f.fit.ginv_effect[0]) && is_no_value(f.fit.effect_outlier[0]));  // mu is no random effect
  }
}

// A field of 40 by 50 plots: many blocks of columns, and a factor large enough for two threads.
TEST(Outliers, AreTheSameWithTwoThreads)
{
  const Case field{"field", {{{0, 0, 300, {0.3}}}, {{0, 0, 200, {0.2}}}}, {{{1, 1, 40, {0.6}}, {1, 1, 50, {0.7}}}}, false, true};
  Built b = build(field, 3);
  Fitted one, two;
  fit_once(b, 1, one);
  if (HasFatalFailure()) return;
  fit_once(b, 2, two);
  ASSERT_GT(one.work.equations.factor.flops, 2e6);  // below, one thread does it all
  EXPECT_EQ(one.fit.record_outlier, two.fit.record_outlier);
  EXPECT_EQ(one.fit.effect_outlier, two.fit.effect_outlier);
}

// Response and design in other units: the statistics have none.
TEST(Outliers, HaveNoUnits)
{
  for (const double unit : {1e-7, 1e7}) {
    Built b = build(cases[3], 7);
    Built scaled = b;
    for (double& y : scaled.design.response) y *= unit;
    for (VARIANCE_PARAMETER& v : scaled.model.parameters) {
      if (v.label == "scale" || &v == scaled.model.parameters.data()) v.value *= unit * unit;
    }
    Fitted f, g;
    fit_once(b, 1, f);
    fit_once(scaled, 1, g);
    if (HasFatalFailure()) return;
    for (std::size_t r = 0; r < f.fit.record_outlier.size(); ++r) EXPECT_NEAR(g.fit.record_outlier[r], f.fit.record_outlier[r], 1e-7);
    for (std::size_t e = 4; e < f.fit.effect_outlier.size(); ++e) EXPECT_NEAR(g.fit.effect_outlier[e], f.fit.effect_outlier[e], 1e-7);
  }
}

TEST(Outliers, ComeFromAFinalPassAlone)
{
  Built b = build(cases[3], 7);
  Fitted f;
  fit_once(b, 1, f, 0, false);
  EXPECT_TRUE(f.fit.record_outlier.empty() && f.fit.effect_outlier.empty());
  Fitted solutions;  // solutions at given parameters are one
  fit_once(b, 1, solutions, 2);
  EXPECT_FALSE(solutions.fit.record_outlier.empty());
  Fitted without_inverse;
  fit_once(b, 1, without_inverse, 1);
  EXPECT_TRUE(without_inverse.fit.record_outlier.empty());
  EXPECT_TRUE(without_inverse.fit.hat.empty());
  EXPECT_TRUE(is_no_value(without_inverse.fit.se[0]));
  for (std::size_t e = 0; e < solutions.fit.solution.size(); ++e) EXPECT_EQ(solutions.fit.solution[e], without_inverse.fit.solution[e]);
}

}  // namespace
}  // namespace tolvan
