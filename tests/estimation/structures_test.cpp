// Evaluations with every kind of structure against the textbook: V is built densely from the components' covariances, its
// derivatives by differences, and LogL, scores and average information follow from their definitions.
#include "base/text.h"
#include "estimation/working_file.h"
#include "structure_models.h"
#include "support/checks.h"
#include "support/own_script.h"
#include "varstruct/followers.h"

namespace tolvan {
namespace {

using namespace tolvan::test;
using tolvan_test::dense_variance;
using tolvan_test::DenseVariance;

/// Evaluates a model; gives its working variables by records, too.
std::vector<double> evaluate(Built& b, VARIANCE_MODEL model, EVALUATION& ev)
{
  std::vector<double> w;
  const auto run = [&] {
    ERROR_HANDLER eh;
    FIT_WORK work;
    const FIT_MODEL in{b.options, b.variables, b.factors, b.terms, b.design, b.timing};
    work.aiopt(Ai::penalty) = -1;
    K4MITR(eh, in, 1, model, work, ev);
    ASSERT_FALSE(eh.terminate()) << eh.EH_PRINT_TEXT();
    ASSERT_EQ(ev.fault, 0) << eh.EH_PRINT_TEXT();
    fold_followers(model, ev.information);
    w = working_by_records(eh, in, model, work.equations, ev);
  };
  run();
  return w;
}

/// LogL, scores and average information of a model by their definitions, of masters together with what follows them.
///   step  of the differences, of a parameter's size; 0: a whole tenth, for variances that are linear in their parameters
void check(Built& b, double step = 1e-5)
{
  set_followers(b.model);
  EVALUATION ev;
  const std::vector<double> w = evaluate(b, b.model, ev);
  if (testing::Test::HasFatalFailure()) return;
  const auto k = static_cast<std::size_t>(ev.information.count());
  std::vector<Matrix> vdot;
  std::size_t free = 0;
  for (std::size_t i = 0; i < b.model.parameters.size(); ++i) {
    if (!is_free(b.model.parameters[i].constraint) || follows(b.model.parameters[i])) continue;
    ++free;
    const double by = step == 0.0 ? 0.1 : step * std::max(0.1, std::fabs(b.model.parameters[i].value));
    VARIANCE_MODEL up = b.model;
    VARIANCE_MODEL down = b.model;
    up.parameters[i].value += by;
    down.parameters[i].value -= by;
    set_followers(up);
    set_followers(down);
    vdot.push_back(variance_of(b, up));
    const Matrix below = variance_of(b, down);
    for (std::size_t m = 0; m < below.a.size(); ++m) vdot.back().a[m] = (vdot.back().a[m] - below.a[m]) / (2.0 * by);
  }
  ASSERT_EQ(k, free);
  const DenseVariance d = dense_variance(b.x, b.design.response, variance_of(b, b.model), vdot);
  EXPECT_NEAR(ev.logl, d.logl, 1e-8 * std::fabs(d.logl));
  EXPECT_NEAR(ev.quadratic, d.quadratic, 1e-8 * d.quadratic);
  EXPECT_EQ(static_cast<double>(ev.nu), d.nu);
  for (std::size_t i = 0; i < k; ++i) EXPECT_NEAR(ev.information.score[i], d.score[i], 1e-6 * (1.0 + std::fabs(d.score[i]))) << i;
  for (std::size_t i = 0; i < d.ai.size(); ++i) EXPECT_NEAR(ev.information.ai[i], d.ai[i], 1e-6 * (1.0 + std::fabs(d.ai[i]))) << i;
  // Working variables: Vdot P y.
  Matrix y(b.design.response.size(), 1);
  y.a = b.design.response;
  for (std::size_t i = 0; i < k; ++i) {
    const Matrix expected = vdot[i] * (d.p * y);
    for (std::size_t r = 0; r < y.rows; ++r) EXPECT_NEAR(w[i * y.rows + r], expected(r, 0), 1e-6 * (1.0 + std::fabs(expected(r, 0)))) << i << ' ' << r;
  }
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

// Every model of the catalogue in its forms: beside the identity and beside related animals in a random term, in the residual of one
// section and of two, and in both, the residual's parameters following those of the effects.
TEST(Structures, EveryModelAgreesAsEffectAndAsResidual)
{
  const std::vector<double> x{0.0, 0.7, 1.5, 2.6};
  const std::vector<double> y{0.0, 1.1, 0.2, 0.9};
  enum Kind { plain, in_forms, effects_alone };
  struct Model {
    const char* name;
    Part part;  // four levels, the correlations alone where there are forms
    Kind kind;
  };
  const Model models[] = {
      {"id", {0, 0, 4, {}}, in_forms},
      {"ar1", {1, 1, 4, {0.4}}, in_forms},
      {"ar2", {1, 1, 4, {0.5, 0.2}, 2}, in_forms},
      {"ar3", {1, 1, 4, {0.4, 0.2, -0.1}, 3}, in_forms},
      {"ma1", {2, 2, 4, {0.3}}, in_forms},
      {"ma2", {2, 2, 4, {0.3, -0.2}, 2}, in_forms},
      {"arma", {3, 3, 4, {0.5, -0.2}}, in_forms},
      {"cor", {4, 5, 4, {0.3}}, in_forms},
      {"corb", {5, 5, 4, {0.4, 0.2, 0.1}, 3}, in_forms},
      {"corg", {6, 5, 4, {0.3, 0.2, -0.4, 0.1, 0.25, -0.15}, 6}, in_forms},
      {"sar", {8, 14, 4, {0.3}}, in_forms},
      {"sar2", {8, 14, 4, {0.3, 0.2}, 2}, in_forms},
      {"euc", {9, 6, 4, {0.4}, 1, 3, x, 0, nullptr, y}, in_forms},
      {"exp", {10, 6, 4, {0.5}, 1, 1, x}, in_forms},
      {"gau", {11, 6, 4, {0.4}, 1, 2, x}, in_forms},
      {"iexp", {12, 6, 4, {0.4}, 1, 1, x, 0, nullptr, y}, in_forms},
      {"igau", {13, 6, 4, {0.4}, 1, 2, x, 0, nullptr, y}, in_forms},
      {"ieuc", {14, 6, 4, {0.4}, 1, 3, x, 0, nullptr, y}, in_forms},
      {"sph", {15, 6, 4, {3.1}, 1, 4, x, 0, nullptr, y}, in_forms},
      {"aexp", {16, 6, 4, {0.4, 0.6}, 1, 1, x, 0, nullptr, y}, in_forms},
      {"agau", {17, 6, 4, {0.4, 0.6}, 1, 2, x, 0, nullptr, y}, in_forms},
      {"lin", {18, 6, 4, {0.3}, 1, 6, x}, in_forms},
      {"lvr", {19, 6, 4, {0.1}, 1, 7, x}, in_forms},
      {"cir", {22, 6, 4, {3.1}, 1, 5, x, 0, nullptr, y}, in_forms},
      {"mtrn of one", {23, 6, 4, {0.7}, 1, 9, x, 0, nullptr, y}, in_forms},
      {"mtrn", {23, 6, 4, {0.7, 0.8}, 2, 9, x, 0, nullptr, y}, in_forms},
      {"mtrn of four", {23, 6, 4, {0.7, 0.8, 1.3, 0.4}, 4, 9, x, 0, nullptr, y}, in_forms},
      {"diag", {24, 8, 4, {0.5, 0.9, 1.4, 0.3}}, plain},
      {"us", {25, 9, 4, {1.0, 0.3, 0.8, -0.2, 0.1, 1.3, 0.2, 0.0001, 0.4, 0.7}}, plain},
      {"sfa", {26, 10, 4, {0.6, 0.5, 0.7, 0.4, 0.9, 1.2, 0.8, 1.1}}, plain},
      {"sfa of two factors", {26, 10, 4, {0.6, 0.5, 0.7, 0.4, 0.1, 0.3, -0.2, 0.2, 0.9, 1.2, 0.8, 1.1}, 2}, plain},
      {"chol", {27, 11, 4, {0.9, 0.4, 0.7, 0.0, -0.3, 1.1, 0.0, 0.0, 0.2, 0.6}, 1}, plain},
      {"chol of full band", {27, 11, 4, {0.9, 0.4, 0.7, 0.1, -0.3, 1.1, 0.2, 0.3, 0.2, 0.6}, 3}, plain},
      {"ante", {28, 12, 4, {0.8, -0.5, 1.1, 0.0, -0.4, 0.9, 0.0, 0.0, -0.3, 1.2}, 1}, plain},
      {"facv", {29, 13, 4, {0.7, 0.5, 0.9, 0.6, 0.3, 0.4, 0.2, 0.5}}, plain},
      {"facv of two factors", {29, 13, 4, {0.7, 0.5, 0.9, 0.6, 0.0, 0.4, -0.3, 0.2, 0.3, 0.4, 0.2, 0.5}, 2}, plain},
      {"fa", {31, 15, 5, {0.3, 0.4, 0.2, 0.5, 0.8, 0.5, 0.9, -0.3}, 1, 0, {}, 4}, effects_alone},
      {"fa of two factors", {31, 15, 6, {0.3, 0.4, 0.2, 0.5, 0.8, 0.5, 0.9, -0.3, 0.0, 0.2, 0.4, 0.6}, 2, 0, {}, 4}, effects_alone},
      {"fa with one level exact", {31, 15, 6, {0.3, 0.0, 0.2, 0.5, 0.8, 0.5, 0.9, -0.3}, 1, 0, {}, 4}, effects_alone},
      {"rr", {31, 15, 9, {0.0, 0.0, 0.0, 0.0, 0.8, 0.5, 0.9, -0.3}, 1, 0, {}, 4}, effects_alone},
      {"a known matrix", {33, -1, 9, {0.8}, 1, 0, {}, 0, &nine_animals()}, effects_alone},
      {"a singular matrix", {33, -1, 8, {0.8}, 1, 0, {}, 6, &six_of_rank_four(false)}, effects_alone},
  };
  const Part animals{33, -1, 9, {}, 1, 0, {}, 0, &nine_animals()};
  for (const Model& m : models) {
    const std::size_t levels = 4;
    for (const std::size_t variances : {std::size_t{0}, std::size_t{1}, levels}) {
      if (variances > 0 && m.kind != in_forms) continue;
      Part part = m.part;
      for (std::size_t i = 0; i < variances; ++i) part.values.push_back(0.7 + 0.2 * static_cast<double>(i));
      if (part.selector == 0 && variances == levels) part.code = 8;
      SCOPED_TRACE(testing::Message() << m.name << ", variances: " << variances);
      const bool sized = variances > 0 || m.kind != in_forms;
      Part related = animals;
      if (!sized) related.values = {0.8};
      const std::vector<std::vector<Part>> effect{{part, {0, 0, 6, sized ? std::vector<double>{} : std::vector<double>{0.9}}}};
      std::vector<Built> uses;
      uses.push_back(build({"", effect, {{{0, 0, 50, {1.1}}}}}, 7));
      uses.push_back(build({"", {{part, related}}, {{{0, 0, 50, {1.1}}}}}, 7));
      if (m.kind != effects_alone) {
        uses.push_back(build({"", {{{0, 0, 5, {0.6}}}}, {{{0, 0, 9, {}}, part}}, false, !sized}, 7));
        uses.push_back(build({"", {{{0, 0, 5, {0.6}}}}, {{part, {0, 0, 5, {}}}, {{0, 0, 6, {}}, part}}, true, !sized, 3, 3}, 7));
        Built& both = uses.emplace_back(build({"", effect, {{{0, 0, 9, {}}, part}}, false, !sized}, 7));
        const std::int64_t behind = both.model.residual.back().first;
        for (std::size_t k = 0; k < part.values.size(); ++k) {
          const auto at = static_cast<std::int64_t>(k);
          if (both.model.parameters[k].value != 0.0) link_parameter(both.model, behind + at, at, 1.0);
        }
      }
      for (std::size_t k = 0; k < uses.size(); ++k) {
        SCOPED_TRACE(testing::Message() << "use " << k);
        check(uses[k]);
        if (HasFatalFailure()) return;
      }
    }
  }
}

// A structure that a user's program forms, as effect and as residual.  It is linear in its parameters, which the program gets with
// seven digits.
TEST(Structures, OwnProgramsAgree)
{
  const TempFolder folder;
  const std::string script = folder.file("mine.sh", text(own_script, folder.path("mine.gdg"), "\n"));
  const Part own{7, 7, 3, {0.75, 0.5}, 2};
  for (const bool effect : {true, false}) {
    const Case as_effect{"", {{own, {0, 0, 6, {}}}}, {{{0, 0, 50, {1.1}}}}};
    const Case as_residual{"", {{{0, 0, 5, {0.6}}}}, {{{0, 0, 12, {}}, own}}};
    Built b = build(effect ? as_effect : as_residual, 7);
    b.model.own_programs = {{.program = "sh " + script, .file = folder.path("mine.data"), .control = 1}};
    (effect ? b.model.rows.front() : b.model.residual.back()).own = 0;
    check(b, 0.0);
  }
}

// Sections with equal variances keep their cross-products where their records share effects; not where each has effects of its own.
TEST(Structures, SectionsKeepTheirCrossProducts)
{
  const struct {
    Case c;
    std::vector<std::uint8_t> formed;
  } models[] = {
      {{"", {{{0, 0, 6, {0.7}}}}, {{{0, 0, 40, {1.1}}}, {{0, 0, 5, {}}, {0, 0, 6, {2.3}}}}}, {1, 1}},
      {{"", {{{0, 0, 6, {0.7}}}}, {{{1, 1, 24, {0.4, 1.2}}}, {{0, 0, 30, {2.3}}}}}, {0, 1}},
      {{"", {{{0, 0, 6, {0.7}}}}, {{{0, 0, 30, {1.1}}}}}, {}},  // one section: all of C is kept
      {{"", {{{0, 0, 300, {0.7}}}, {{0, 0, 300, {0.4}}}}, {{{0, 0, 9, {1.1}}}, {{0, 0, 8, {2.3}}}}, false, false, 300}, {}},
  };
  for (const auto& m : models) {
    Built b = build(m.c, 7);
    ERROR_HANDLER eh;
    FIT_WORK work;
    EVALUATION ev;
    K4MITR(eh, {b.options, b.variables, b.factors, b.terms, b.design, b.timing}, 1, b.model, work, ev);
    EXPECT_EQ(work.equations.products.formed, m.formed);
  }
}

// Parameters that follow others: the score of a master is what LogL gains with its followers, the information likewise.
TEST(Structures, FollowersAreScoredWithTheirMasters)
{
  Built b = build({"", {{{0, 0, 6, {0.7}}}, {{25, 9, 2, {0.9, 0.3, 0.6}}, {0, 0, 7, {}}}}, {{{0, 0, 30, {1.1}}}, {{0, 0, 25, {0.0001}}}}}, 7);
  link_parameter(b.model, 5, 4, 1.7);  // the second residual variance after the first
  const PARAMETER_SHARE shares[] = {{0, 0.5}, {1, 0.25}};
  link_to_sum(b.model, 3, shares);     // an element of a matrix from two variances
  check(b);
}

// A factor by animals with fixed groups, no variances of its own: every trait has its groups as fixed effects.
TEST(Structures, FactorsOfAnimalsWithGroupsAgree)
{
  const std::size_t traits = 3, animals = 9, groups = 2, levels = animals + groups;
  Built b = build({"", {{{31, 15, 7, {0.0, 0.0, 0.0, 0.8, 0.5, 0.9}, 1, 0, {}, 3}, {33, -1, 11, {}, 1, 0, {}, 0, &grouped_animals()}}},
                   {{{0, 0, 80, {1.1}}}}}, 7);
  EVALUATION ev;
  evaluate(b, b.model, ev);
  if (HasFatalFailure()) return;
  // A and the groups' shares out of the inverse: its blocks are A^-1 and -A^-1 Q.
  Matrix inverse(levels, levels);
  const AINV_MTX& star = grouped_animals();
  for (std::size_t j = 0; j < levels; ++j) {
    for (auto k = static_cast<std::size_t>(star.start[j]); k < static_cast<std::size_t>(star.start[j + 1]); ++k) {
      inverse(static_cast<std::size_t>(star.row[k]), j) = inverse(j, static_cast<std::size_t>(star.row[k])) = star.values[k];
    }
  }
  Matrix own(animals, animals), between(animals, groups);
  for (std::size_t i = 0; i < animals; ++i) {
    for (std::size_t j = 0; j < animals; ++j) own(i, j) = inverse(groups + i, groups + j);
    for (std::size_t g = 0; g < groups; ++g) between(i, g) = -inverse(groups + i, g);
  }
  double log_determinant = 0.0;
  const Matrix a = tolvan_test::inverse_spd(own, log_determinant);
  const Matrix q = a * between;
  const std::size_t n = b.x.rows;
  Matrix x(n, b.x.columns + traits * groups);
  std::vector<Matrix> z(traits, Matrix(n, animals));
  for (std::size_t r = 0; r < n; ++r) {
    for (std::size_t c = 0; c < b.x.columns; ++c) x(r, c) = b.x(r, c);
    for (std::size_t t = 0; t < traits; ++t) {
      for (std::size_t g = 0; g < groups; ++g) {
        double& sum = x(r, b.x.columns + t * groups + g);
        sum = b.z[0](r, t * levels + g);
        for (std::size_t i = 0; i < animals; ++i) sum += b.z[0](r, t * levels + groups + i) * q(i, g);
      }
      for (std::size_t i = 0; i < animals; ++i) z[t](r, i) = b.z[0](r, t * levels + groups + i);
    }
  }
  const auto variance = [&](const std::vector<double>& theta) {  // three loadings, the residual variance
    Matrix zl(n, animals);
    for (std::size_t t = 0; t < traits; ++t) {
      for (std::size_t k = 0; k < zl.a.size(); ++k) zl.a[k] += theta[t] * z[t].a[k];
    }
    Matrix v = zl * a * transpose(zl);
    for (std::size_t r = 0; r < n; ++r) v(r, r) += theta[3];
    return v;
  };
  const std::vector<double> theta{0.8, 0.5, 0.9, 1.1};
  std::vector<Matrix> vdot;
  for (std::size_t i = 0; i < theta.size(); ++i) {
    std::vector<double> up = theta, down = theta;
    up[i] += 0.1;
    down[i] -= 0.1;
    vdot.push_back(variance(up));
    const Matrix below = variance(down);
    for (std::size_t k = 0; k < below.a.size(); ++k) vdot.back().a[k] = (vdot.back().a[k] - below.a[k]) / 0.2;
  }
  const DenseVariance d = dense_variance(x, b.design.response, variance(theta), vdot);
  EXPECT_EQ(static_cast<double>(ev.nu), d.nu);
  EXPECT_NEAR(ev.quadratic, d.quadratic, 1e-8 * d.quadratic);
  EXPECT_NEAR(ev.logl, d.logl, 1e-8 * std::fabs(d.logl));
  ASSERT_EQ(ev.information.count(), 4);
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
