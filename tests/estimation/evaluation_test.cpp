// One evaluation against the textbook: LogL, scores, average information, effects and leverages of small random models.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

#include "estimation/absorb_equations.h"
#include "estimation/evaluation.h"
#include "estimation/final_results.h"
#include "estimation/order_equations.h"
#include "oracle/dense_reml.h"

namespace tolvan {
namespace {

using tolvan_test::dense_reml;
using tolvan_test::DenseModel;
using tolvan_test::DenseResult;
using tolvan_test::Matrix;

/// A small model in both forms: the engine's tables and dense matrices.
struct Model {
  TERM_TABLE terms;
  FACTOR_TABLE factors;
  VARIABLE_TABLE variables;
  DESIGN_MTX design;
  VARIANCE_MODEL variance;
  FIT_OPTIONS options;
  TIMING_STORE timing;
  DenseModel dense;
};

struct Shape {
  std::vector<std::int64_t> fixed;      // levels of the fixed factors behind mu; 1 is a covariate
  std::vector<std::int64_t> random;     // levels of the random factors
  bool weights = false;
  int missing = 0;                      // responses that mv estimates
  bool nested = false;                  // the second fixed factor repeats the first: a singular fixed part
  std::int64_t dense_limit = 0;
  bool dense_random = false;            // the first random factor is in the dense block
};

Model make(const Shape& shape, std::int64_t records, unsigned seed)
{
  std::mt19937_64 gen(seed);
  std::normal_distribution<double> normal;
  Model m;
  m.options(Slot::dense) = shape.dense_limit;
  m.options(Slot::gdense) = shape.dense_random ? 1 : 0;
  std::int64_t next = 0;
  const auto term = [&](std::string name, std::int64_t levels, Block block) {
    TERM_ROW row;
    row.code = static_cast<std::int32_t>(m.terms.rows.size() + 1);
    row.equations = levels;
    row.first = next;
    row.block = block;
    row.name = std::move(name);
    next += levels;
    m.terms.rows.push_back(row);
  };
  term("mu", 1, Block::fixed);
  for (const std::int64_t f : shape.fixed) term("f", f, Block::fixed);
  m.terms.fixed_equations = next;
  for (std::size_t t = 0; t < shape.random.size(); ++t) {
    TERM_STRUCTURE structure;
    structure.term = static_cast<std::int64_t>(m.terms.rows.size());
    structure.first_row = static_cast<std::int64_t>(t);
    m.variance.terms.push_back(structure);
    STRUCTURE_ROW row;
    row.size = shape.random[t];
    row.parameters = 1;
    row.first = row.scale = static_cast<std::int64_t>(t);
    m.variance.rows.push_back(row);
    m.variance.parameters.push_back({.value = 0.3 + 0.2 * static_cast<double>(t), .label = "r" + std::to_string(t)});
    term("r", shape.random[t], Block::random);
  }
  m.variance.parameters.push_back({.value = 1.0, .label = "units"});
  m.variance.residual_parameter = m.variance.count() - 1;
  STRUCTURE_ROW residual;
  residual.size = records;
  residual.parameters = 1;
  residual.first = residual.scale = m.variance.residual_parameter;
  m.variance.residual.push_back(residual);
  m.variance.sections.push_back({.rows = 1, .records = records});
  if (shape.missing > 0) {
    term("mv_estimates", shape.missing, Block::sparse);
    m.terms.rows.back().is_mv = true;
  }
  m.terms.equations = next;

  const auto n = static_cast<std::size_t>(records);
  const std::size_t observed = n - static_cast<std::size_t>(shape.missing);
  m.dense.x = Matrix(observed, static_cast<std::size_t>(m.terms.fixed_equations));
  for (const std::int64_t levels : shape.random) m.dense.z.emplace_back(observed, static_cast<std::size_t>(levels));
  std::size_t row = 0;
  for (std::size_t r = 0; r < n; ++r) {
    const bool missing = r >= observed;  // the last records
    std::int64_t first_level = 0;
    const auto put = [&](std::int64_t equation, double value) {
      m.design.equation.push_back(static_cast<std::int32_t>(equation));
      m.design.value.push_back(value);
    };
    put(0, 1.0);
    if (!missing) m.dense.x(row, 0) = 1.0;
    double y = 2.0 + normal(gen);
    for (std::size_t f = 0; f < shape.fixed.size(); ++f) {
      const std::int64_t levels = shape.fixed[f];
      const auto first = m.terms.rows[1 + f].first;
      if (levels == 1) {
        const double x = 3.0 + normal(gen);
        put(first, x);
        y += 0.5 * x;
        if (!missing) m.dense.x(row, static_cast<std::size_t>(first)) = x;
        continue;
      }
      std::int64_t level = static_cast<std::int64_t>(gen() % static_cast<unsigned>(levels));
      if (shape.nested && f == 1) level = first_level % levels;
      if (f == 0) first_level = level;
      put(first + level, 1.0);
      y += 0.3 * static_cast<double>(level);
      if (!missing) m.dense.x(row, static_cast<std::size_t>(first + level)) = 1.0;
    }
    for (std::size_t t = 0; t < shape.random.size(); ++t) {
      const auto level = static_cast<std::int64_t>(gen() % static_cast<unsigned>(shape.random[t]));
      put(m.terms.rows[1 + shape.fixed.size() + t].first + level, 1.0);
      y += std::sin(static_cast<double>(3 * level) + static_cast<double>(t));
      if (!missing) m.dense.z[t](row, static_cast<std::size_t>(level)) = 1.0;
    }
    if (missing) put(m.terms.rows.back().first + static_cast<std::int64_t>(r - observed), -1.0);
    m.design.start.push_back(static_cast<std::int64_t>(m.design.equation.size()));
    m.design.record.push_back(static_cast<std::int64_t>(r) + 1);
    m.design.response.push_back(missing ? 0.0 : y);
    if (missing) m.design.mv.push_back(static_cast<std::int64_t>(r));
    const double w = 0.5 + static_cast<double>(gen() % 100) / 50.0;
    if (shape.weights) m.design.weight.push_back(w);
    if (missing) continue;
    m.dense.y.push_back(y);
    if (shape.weights) m.dense.weight.push_back(w);
    ++row;
  }
  m.design.data_records = records;
  return m;
}

struct Evaluated {
  FIT_WORK work;
  EVALUATION ev;
  FIT_STATE fit;
};

void evaluate(Model& m, const std::vector<double>& gamma, Evaluated& out, bool results = false)
{
  ERROR_HANDLER eh;
  const FIT_MODEL in{m.options, m.variables, m.factors, m.terms, m.design, m.timing};
  VARIANCE_MODEL variance = m.variance;
  for (std::size_t i = 0; i < gamma.size(); ++i) variance.parameters[i].value = gamma[i];
  out.work.aiopt(Ai::penalty) = -1;
  K4MITR(eh, in, 1, variance, out.work, out.ev);
  ASSERT_FALSE(eh.terminate()) << eh.EH_PRINT_TEXT();
  ASSERT_EQ(out.ev.fault, 0);
  if (results) K4MFIN(eh, in, variance, out.work, out.ev, out.fit);
  ASSERT_EQ(eh.stack().entries.size(), 0U);
}

const std::vector<std::pair<const char*, Shape>> shapes = {
    {"one-way", {{}, {6}}},
    {"crossed with a covariate", {{4, 1}, {7, 5}}},
    {"weighted", {{3}, {6, 4}, true}},
    {"missing responses", {{3, 1}, {5}, false, 4}},
    {"singular fixed part", {{4, 2}, {6, 3}, false, 0, true}},
    {"weighted, missing and singular, fixed effects in the sparse block", {{4, 2, 1}, {6, 3}, true, 3, true, 3}},
    {"a random factor in the dense block", {{4, 1}, {7, 5}, false, 0, false, 0, true}},
    {"the same, weighted, missing and singular", {{4, 2, 1}, {6, 3}, true, 3, true, 0, true}},
};

TEST(Evaluation, AgreesWithTheDenseDefinitions)
{
  for (const auto& [name, shape] : shapes) {
    for (unsigned seed = 1; seed <= 3; ++seed) {
      SCOPED_TRACE(testing::Message() << name << ", seed " << seed);
      Model m = make(shape, 48, seed);
      std::vector<double> gamma;
      for (std::size_t t = 0; t < shape.random.size(); ++t) gamma.push_back(m.variance.parameters[t].value);
      Evaluated e;
      evaluate(m, gamma, e, true);
      EXPECT_EQ(e.work.equations.dense - (shape.dense_random ? shape.random[0] : 0), shape.dense_limit == 0 ? m.terms.fixed_equations : 1);
      Evaluated shared;  // the bits of several threads
      shared.work.aiopt(Ai::threads) = 3;
      evaluate(m, gamma, shared);
      EXPECT_EQ(shared.ev.logl, e.ev.logl);
      EXPECT_EQ(shared.ev.information.score, e.ev.information.score);
      EXPECT_EQ(shared.ev.information.ai, e.ev.information.ai);
      const DenseResult d = dense_reml(m.dense, gamma);
      const bool model_order = shape.dense_limit == 0;  // else other columns of X are left out, which moves log|X'V^-1 X|
      EXPECT_EQ(static_cast<double>(e.ev.nu), d.nu);
      EXPECT_NEAR(e.ev.sigma2, d.sigma2, 1e-10 * d.sigma2);
      if (model_order) {
        EXPECT_NEAR(e.ev.logl, d.logl_profiled, 1e-9 * std::fabs(d.logl_profiled));
      }
      const auto k = static_cast<std::size_t>(e.ev.information.count());
      ASSERT_EQ(k, gamma.size() + 1);
      for (std::size_t i = 0; i + 1 < k; ++i) EXPECT_NEAR(e.ev.information.score[i], d.score[i], 1e-8 * (1.0 + std::fabs(d.score[i])));
      for (std::size_t i = 0; i < d.ai.size(); ++i) EXPECT_NEAR(e.ev.information.ai[i], d.ai[i], 1e-8 * (1e-3 + std::fabs(d.ai[i])));
      for (std::size_t t = 0; t < gamma.size(); ++t) {
        const TERM_ROW& term = m.terms.rows[1 + shape.fixed.size() + t];
        for (std::size_t l = 0; l < d.u[t].size(); ++l) {
          const auto at = static_cast<std::size_t>(term.first) + l;
          EXPECT_NEAR(e.fit.solution[at], d.u[t][l], 1e-8);
          EXPECT_NEAR(e.fit.se[at], std::sqrt(d.u_pev[t][l]), 1e-8);
        }
      }
      if (model_order) {
        for (std::size_t j = 0; j < d.kept.size(); ++j) EXPECT_NEAR(e.fit.solution[d.kept[j]], d.b[j], 1e-7 * (1.0 + std::fabs(d.b[j])));
      }
      for (std::size_t r = 0; r < d.hat.size(); ++r) EXPECT_NEAR(e.fit.hat[r], d.hat[r], 1e-8);
    }
  }
}

TEST(Evaluation, ScoresAreDerivativesOfTheLogLikelihood)
{
  for (const auto& [name, shape] : shapes) {
    SCOPED_TRACE(name);
    Model m = make(shape, 60, 11);
    std::vector<double> gamma;
    for (std::size_t t = 0; t < shape.random.size(); ++t) gamma.push_back(m.variance.parameters[t].value);
    Evaluated e;
    evaluate(m, gamma, e);
    for (std::size_t i = 0; i < gamma.size(); ++i) {
      const double step = 1e-5 * gamma[i];
      double logl[2];
      for (int side = 0; side < 2; ++side) {
        std::vector<double> moved = gamma;
        moved[i] += side == 0 ? step : -step;
        Evaluated f;
        evaluate(m, moved, f);
        logl[side] = f.ev.logl;
      }
      const double slope = (logl[0] - logl[1]) / (2.0 * step);
      EXPECT_NEAR(e.ev.information.score[i], slope, 1e-6 * (1.0 + std::fabs(slope)));
    }
  }
}

TEST(Evaluation, AbsoluteVariancesGiveTheSameSurface)
{
  Model m = make(shapes[2].second, 50, 5);
  const std::vector<double> gamma{0.4, 0.7};
  const double s2 = 1.3;
  m.variance.gamma = m.variance.profiled = false;
  for (auto& v : m.variance.parameters) v.type = ParamType::V;
  Evaluated e;
  evaluate(m, {gamma[0] * s2, gamma[1] * s2, s2}, e);
  const DenseResult d = dense_reml(m.dense, gamma, s2);
  EXPECT_NEAR(e.ev.logl, d.logl, 1e-9 * std::fabs(d.logl));
  for (std::size_t i = 0; i < 3; ++i) {
    std::vector<double> at{gamma[0] * s2, gamma[1] * s2, s2};
    const double step = 1e-5 * at[i];
    double logl[2];
    for (int side = 0; side < 2; ++side) {
      std::vector<double> moved = at;
      moved[i] += side == 0 ? step : -step;
      logl[side] = dense_reml(m.dense, {moved[0] / moved[2], moved[1] / moved[2]}, moved[2]).logl;
    }
    const double slope = (logl[0] - logl[1]) / (2.0 * step);
    EXPECT_NEAR(e.ev.information.score[i], slope, 1e-5 * (1.0 + std::fabs(slope)));
  }
}

/// The same data in another order, its effects numbered otherwise within each random term.
Model reordered(const Model& m, unsigned seed)
{
  std::mt19937 random(seed);
  std::vector<std::int32_t> number(static_cast<std::size_t>(m.terms.equations));
  std::iota(number.begin(), number.end(), 0);
  for (const TERM_ROW& term : m.terms.rows) {
    if (term.block == Block::random) std::shuffle(number.begin() + term.first, number.begin() + term.first + term.equations, random);
  }
  std::vector<std::size_t> order(m.design.response.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::shuffle(order.begin(), order.end(), random);
  Model out = m;
  out.design.equation.clear();
  out.design.value.clear();
  out.design.start.assign(1, 0);
  out.design.mv.clear();
  for (std::size_t r = 0; r < order.size(); ++r) {
    const std::size_t from = order[r];
    for (auto k = static_cast<std::size_t>(m.design.start[from]); k < static_cast<std::size_t>(m.design.start[from + 1]); ++k) {
      out.design.equation.push_back(number[static_cast<std::size_t>(m.design.equation[k])]);
      out.design.value.push_back(m.design.value[k]);
    }
    out.design.start.push_back(static_cast<std::int64_t>(out.design.equation.size()));
    out.design.response[r] = m.design.response[from];
    if (!m.design.weight.empty()) out.design.weight[r] = m.design.weight[from];
    if (std::count(m.design.mv.begin(), m.design.mv.end(), static_cast<std::int64_t>(from)) > 0) out.design.mv.push_back(static_cast<std::int64_t>(r));
  }
  return out;
}

TEST(Evaluation, OrderOfRecordsAndLevelsIsImmaterial)
{
  for (const auto& [name, shape] : shapes) {
    Model m = make(shape, 60, 4);
    std::vector<double> gamma;
    for (std::size_t t = 0; t < shape.random.size(); ++t) gamma.push_back(0.4 + 0.3 * static_cast<double>(t));
    Evaluated e;
    evaluate(m, gamma, e);
    for (unsigned seed = 1; seed <= 5; ++seed) {
      SCOPED_TRACE(testing::Message() << name << ", order " << seed);
      Model other = reordered(m, seed);
      Evaluated f;
      evaluate(other, gamma, f);
      EXPECT_NEAR(f.ev.logl, e.ev.logl, 1e-12 * std::fabs(e.ev.logl));
      EXPECT_NEAR(f.ev.sigma2, e.ev.sigma2, 1e-12 * e.ev.sigma2);
      for (std::size_t i = 0; i < gamma.size(); ++i) {
        EXPECT_NEAR(f.ev.information.score[i], e.ev.information.score[i], 1e-11 * (1.0 + std::fabs(e.ev.information.score[i])));
      }
      for (std::size_t i = 0; i < e.ev.information.ai.size(); ++i) {
        EXPECT_NEAR(f.ev.information.ai[i], e.ev.information.ai[i], 1e-11 * (1e-3 + std::fabs(e.ev.information.ai[i])));
      }
    }
  }
}

// Two random terms with the same design, so large that rounding leaves nothing of what tells them apart.
TEST(Evaluation, FailsWhereRoundingLeavesNothing)
{
  Model m = make({{}, {6, 6}}, 48, 2);
  for (std::size_t k = 2; k < m.design.equation.size(); k += 3) m.design.equation[k] = m.design.equation[k - 1] + 6;
  const FIT_MODEL in{m.options, m.variables, m.factors, m.terms, m.design, m.timing};
  for (const auto& [variance, fault] : std::vector<std::pair<double, std::int64_t>>{{1e3, 0}, {1e9, 0}, {1e15, 2000}}) {
    VARIANCE_MODEL variances = m.variance;
    variances.parameters[0].value = variances.parameters[1].value = variance;
    Evaluated e;
    e.work.aiopt(Ai::penalty) = -1;
    ERROR_HANDLER eh;
    K4MITR(eh, in, 1, variances, e.work, e.ev);
    EXPECT_FALSE(eh.terminate());
    EXPECT_EQ(e.ev.fault, fault) << variance;
  }
}

TEST(Evaluation, ToleranceOfSingularity)
{
  struct Case {
    std::vector<std::int64_t> option;
    bool flag;
    std::int64_t equations;
    double t0;
  };
  const std::vector<Case> cases = {{{}, false, 10, 1e-8},        {{}, true, 10, 1e-9},        {{2}, false, 10, 1e-6},
                                   {{-1}, false, 10, 1e-9},      {{-1}, true, 10, 1e-10},     {{0, 1}, false, 10, 1e-8},
                                   {{1, 3}, false, 10, 1e-5},    {{0, -1}, false, 10, 1e-10}, {{}, false, 1000000, 1e-8},
                                   {{}, false, 1000001, 5e-8},   {{-2}, false, 1000001, 5e-10}};
  for (const Case& each : cases) {
    FIT_OPTIONS options;
    options.tolerance = each.option;
    options(Flag::k4mxxail_tol_42) = each.flag;
    EXPECT_NEAR(singularity_tolerance(options, each.equations), each.t0, 1e-12 * each.t0);
  }
  EXPECT_EQ(singularity_tolerance({}, 10), 1e-8);  // exactly: only then may it be tightened
}

TEST(Evaluation, FaultsOfMemory)
{
  ERROR_HANDLER ordering, absorbing, other;
  K4MEAB(ordering);
  EXPECT_EQ(fault_of_memory(ordering), 7);
  absorbing.error("Out of memory absorbing: the factor of 9 equations has 45 elements", Ecode::alloc_fail);
  EXPECT_EQ(fault_of_memory(absorbing), 100001);
  other.error("errors detected in sparse matrix");
  EXPECT_EQ(fault_of_memory(other), 0);
}

TEST(Evaluation, OffsetsAreImmaterial)
{
  Model m = make(shapes[1].second, 50, 9);
  Evaluated e;
  evaluate(m, {0.4, 0.7}, e, true);
  Model moved = m;
  for (double& y : moved.design.response) y += 1e6;
  Evaluated f;
  evaluate(moved, {0.4, 0.7}, f, true);
  EXPECT_NEAR(f.ev.logl, e.ev.logl, 1e-7);
  EXPECT_NEAR(f.fit.solution[0] - 1e6, e.fit.solution[0], 1e-5);
  EXPECT_NEAR(f.fit.se[0], e.fit.se[0], 1e-7 * e.fit.se[0]);
  for (std::size_t r = 0; r < 50; ++r) EXPECT_NEAR(f.fit.residual[r], e.fit.residual[r], 1e-7);
}

}  // namespace
}  // namespace tolvan
