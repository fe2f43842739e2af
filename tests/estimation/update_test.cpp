// The parameter update: damping, pivots of the information matrix, steps and their restraint; the stop tests.
#include <gtest/gtest.h>

#include <cmath>

#include "estimation/convergence.h"
#include "estimation/fault_texts.h"
#include "estimation/restraints.h"
#include "estimation/update_parameters.h"

namespace tolvan {
namespace {

constexpr double shrink = 1.5 / 15.81138801574707;

TEST(Restraints, BySignOfThePresentValue)
{
  struct Case {
    const char* what;
    double x, delta, r, step;
    ParamType type;
    ParamRole role;
    Constraint constraint;
    double value;
  };
  using T = ParamType;
  using R = ParamRole;
  using C = Constraint;
  const Case cases[] = {
      {"a plain step up", 1.0, 0.5, 1.0, 1.0, T::G, R::variance, C::P, 1.5},
      {"a step up is limited to sqrt(250) times the value", 0.1, 9.0, 0.1, 1.0, T::G, R::variance, C::P, 1.581138801574707},
      {"a step down is limited to 0.0949 of the value", 1.0, -0.99, 1.0, 1.0, T::G, R::variance, C::P, shrink},
      {"a variance pulled through zero keeps 0.0949 of itself", 1.0, -2.0, 1.0, 1.0, T::V, R::variance, C::P, shrink},
      {"and so does a small one with a small step", 0.001, -2.0, 0.001, 0.5, T::G, R::variance, C::P, 0.001 * shrink},
      {"an unbounded one may change its sign", 1e-3, -4.0, 1e-3, 1.0, T::G, R::variance, C::U, -1e-3},
      {"a covariance passes zero as far as -0.3 of itself", 1.0, -2.0, 1.0, 1.0, T::C, R::covariance, C::P, -0.3},
      {"also when its letter is G", 1.0, -1.1, 1.0, 1.0, T::G, R::covariance, C::P, -0.10000000000000009},
      {"a zero value moves by a third of the step", 0.0, 0.3, 0.0, 1.0, T::G, R::variance, C::P, 0.1},
      {"also downwards", 0.0, -0.3, 0.0, 1.0, T::G, R::variance, C::P, -0.1},
      {"a negative covariance moves at most 100 times itself", -0.01, 5.0, -0.01, 1.0, T::C, R::covariance, C::P, 0.99},
      {"a negative variance moves by half the step", -0.5, -0.6, -0.5, 1.0, T::V, R::variance, C::U, -0.8},
      {"but not past -0.99", -0.5, -1.6, -0.5, 1.0, T::V, R::variance, C::U, -0.99},
      {"and by 0.7 of it beyond", -1.0, -0.5, -1.0, 1.0, T::V, R::variance, C::U, -1.35},
  };
  for (const Case& c : cases) {
    const RESTRAINT out = restrain_by_sign({c.x, c.delta, c.r, c.step, c.type, c.role, c.constraint});
    EXPECT_NEAR(out.value, c.value, 1e-12) << c.what;
    EXPECT_FALSE(out.settled) << c.what;
  }
  const RESTRAINT settled = restrain_by_sign({5e-7, -0.1, 5e-7, 1.0, T::G, R::variance, C::P});
  EXPECT_TRUE(settled.settled && settled.reference_set);
  EXPECT_DOUBLE_EQ(settled.value, 5e-7 * shrink);
}

TEST(Restraints, CorrelationsAndTheirKin)
{
  const auto typed = [](ParamType type, double x, double delta, double r, double last) {
    return restrain_typed({x, delta, r, 1.0, type, ParamRole::correlation, Constraint::P}, last, 0.5);
  };
  using T = ParamType;
  EXPECT_DOUBLE_EQ(typed(T::R, 0.3, 0.9, 0.3, 0.3).value, 0.3 + wide(0.2f));
  EXPECT_DOUBLE_EQ(typed(T::R, 0.3, -0.9, 0.3, 0.3).value, 0.3 + wide(-0.12f));
  EXPECT_DOUBLE_EQ(typed(T::R, 0.999, 0.1, 0.999, 0.999).value, 0.999) << "at the bound it stays";
  EXPECT_DOUBLE_EQ(typed(T::R, 0.9, 0.15, 0.9, 0.8).value, (0.9 + 2.0) / 3.0) << "two thirds of the way to the bound";
  const RESTRAINT flipped = typed(T::R, 0.1, -0.16, 0.0, 0.1);
  EXPECT_DOUBLE_EQ(flipped.value, 0.1 + wide(-0.12f));
  const RESTRAINT sign = typed(T::R, 0.04, -0.11, 0.04, 0.04);
  EXPECT_DOUBLE_EQ(sign.value, -0.04);
  EXPECT_TRUE(sign.reset_step);
  EXPECT_DOUBLE_EQ(typed(T::P, 0.9, 0.2, 0.9, 0.9).value, 0.1 * 0.9 + 0.8999099761605263);
  EXPECT_TRUE(typed(T::P, 0.9995, 0.2, 0.9995, 0.9).boundary);
  EXPECT_DOUBLE_EQ(typed(T::P, 0.2, -0.5, 0.2, 0.2).value, 0.02);
  EXPECT_DOUBLE_EQ(typed(T::r, 2.0, -1.8, 2.0, 2.0).value, (2.0 + 2.0 * 0.5) / 3.0);
  EXPECT_DOUBLE_EQ(typed(T::L, 1.0, -5.0, 1.0, 1.0).value, -4.0) << "a loading is not cut";
  EXPECT_DOUBLE_EQ(loading_change(1.0, 0.5), 0.5);
  EXPECT_DOUBLE_EQ(loading_change(0.1, 0.3), 0.3 / (0.3 * std::sqrt(0.4)));
}

VARIANCE_MODEL variances(const std::vector<double>& values)
{
  VARIANCE_MODEL model;
  for (const double v : values) model.parameters.push_back({.value = v, .start = v, .label = "v" + std::to_string(model.count())});
  model.residual_parameter = model.count() - 1;
  return model;
}

INFORMATION information(const std::vector<double>& score, const std::vector<double>& ai, bool residual = true)
{
  INFORMATION out;
  for (std::size_t i = 0; i < score.size(); ++i) out.active.push_back(static_cast<std::int64_t>(i));
  out.score = score;
  out.ai = ai;
  out.unit.assign(score.size(), 1.0);
  out.held_out = residual ? static_cast<std::int64_t>(score.size()) - 1 : -1;
  return out;
}

TEST(Update, JointStepHoldsTheProfiledVarianceAndSolvesAgainForTheRest)
{
  // A Newton step on the profile likelihood: the Schur complement of the residual variance.
  ERROR_HANDLER eh;
  VARIANCE_MODEL model = variances({1.0, 2.0, 1.0});
  AIOPT aiopt;
  aiopt(Ai::penalty) = -1;
  UPDATE_STATE state;
  K4MUPD(eh, 1, 0.0, information({0.3, -0.2, 0.0}, {2.0, 0.4, 1.0, 0.5, 0.3, 4.0}), model, aiopt, state);
  const double a = 2.0 - 0.25 / 4.0;
  const double b = 0.4 - 0.15 / 4.0;
  const double c = 1.0 - 0.09 / 4.0;
  const double det = a * c - b * b;
  EXPECT_NEAR(model.parameters[0].value, 1.0 + (c * 0.3 - b * -0.2) / det, 1e-12);
  EXPECT_NEAR(model.parameters[1].value, 2.0 + (a * -0.2 - b * 0.3) / det, 1e-12);
  EXPECT_EQ(model.parameters[2].value, 1.0);
  EXPECT_EQ(aiopt(Ai::step_thousandths), 1000);
  EXPECT_EQ(aiopt(Ai::restrained), 0);

  // The first one is pulled through zero: it takes its restrained step and the other is solved given that step.
  model = variances({1.0, 2.0, 1.0});
  state = {};
  K4MUPD(eh, 1, 0.0, information({-9.0, 0.1, 0.0}, {2.0, 0.4, 1.0, 0.5, 0.3, 4.0}), model, aiopt, state);
  EXPECT_NEAR(model.parameters[0].value, shrink, 1e-12);
  const double taken = shrink - 1.0;
  EXPECT_NEAR(model.parameters[1].value, 2.0 + (0.1 - b * taken) / c, 1e-12);
  EXPECT_EQ(aiopt(Ai::restrained), 1);
  EXPECT_FALSE(eh.terminate());
}

// What B s is once the profiled residual variance, the last one, has followed.
std::vector<double> beside_profiled(const INFORMATION& b, const std::vector<double>& s)
{
  const std::int64_t h = b.count() - 1;
  std::vector<double> out;
  for (std::int64_t i = 0; i < h; ++i) {
    out.push_back(0.0);
    for (std::int64_t j = 0; j < h; ++j) out.back() += (b.at(i, j) - b.at(i, h) * b.at(j, h) / b.at(h, h)) * s[static_cast<std::size_t>(j)];
  }
  return out;
}

TEST(Update, SecantsCorrectTheInformationAlongTheStepsTaken)
{
  const std::vector<double> ai = {2.0, 0.4, 1.0, 0.5, 0.3, 4.0};
  // LogL is quadratic with S = (3, 0.2; 0.2, 0.5) for the curvature beside the profiled variance, its top at (1, 2).
  const auto at = [&](double x, double y) {
    return information({3.0 * (1.0 - x) + 0.2 * (2.0 - y), 0.2 * (1.0 - x) + 0.5 * (2.0 - y), 0.0}, ai);
  };
  SECANTS secants;
  const std::vector<std::vector<double>> places = {{0.5, 0.5, 1.0}, {1.2, 1.1, 1.1}, {1.1, 1.7, 1.3}};
  for (std::size_t i = 0; i < places.size(); ++i) {
    add_secant(variances(places[i]), at(places[i][0], places[i][1]), i == 0 ? INFINITY : 0.1, secants);
  }
  ASSERT_EQ(secants.latest.size(), 2U);
  INFORMATION corrected = at(1.1, 1.7);
  for (double& u : corrected.unit) u = 2.0;
  corrected = in_units(corrected);
  correct_by_secants(secants, corrected);
  const std::vector<double> fall = beside_profiled(corrected, {-0.1 / 2.0, 0.6 / 2.0});
  EXPECT_NEAR(fall[0], 2.0 * (3.0 * -0.1 + 0.2 * 0.6), 1e-12);
  EXPECT_NEAR(fall[1], 2.0 * (0.2 * -0.1 + 0.5 * 0.6), 1e-12);
  EXPECT_DOUBLE_EQ(corrected.at(2, 2), 4.0 * 4.0) << "the profiled variance keeps its own";

  // Where the score rises along a step a fifth of the promised curvature is kept, so that steps stay bounded.
  SECANTS bent;
  add_secant(variances({1.0, 1.0, 1.0}), information({0.0, 0.0, 0.0}, ai), INFINITY, bent);
  add_secant(variances({1.3, 1.1, 1.0}), information({0.9, 0.4, 0.0}, ai), -0.02, bent);
  INFORMATION kept = information({0.9, 0.4, 0.0}, ai);
  const std::vector<double> s = {0.3, 0.1};
  const std::vector<double> before = beside_profiled(kept, s);
  correct_by_secants(bent, kept);
  const std::vector<double> after = beside_profiled(kept, s);
  EXPECT_NEAR(s[0] * after[0] + s[1] * after[1], 0.2 * (s[0] * before[0] + s[1] * before[1]), 1e-12);

  add_secant(variances({1.5, 1.1, 1.0}), information({0.1, 0.4, 0.0}, ai), 4.0, bent);
  EXPECT_TRUE(bent.latest.empty()) << "over a large change of LogL the curvature is not the one here";
}

TEST(Update, DampingFollowsTheChangeOfLogL)
{
  struct Case {
    double gain;
    std::int64_t before, after;
    double step;
  };
  for (const Case& c : {Case{-6.0, 20, 25, 0.4}, Case{-6.0, 60, 50, 0.4}, Case{-1.0, 5, 8, 0.5}, Case{-1.0, 8, 10, 0.5},
                        Case{6.0, 20, 15, 1.0}, Case{0.5, 20, 11, 1.0}, Case{0.5, 1, 1, 1.0}, Case{0.0, 3, 10, 1.0},
                        Case{-9.0, -1, -1, 1.0}}) {
    ERROR_HANDLER eh;
    VARIANCE_MODEL model = variances({1.0, 1.0});
    AIOPT aiopt;
    aiopt(Ai::penalty) = c.before;
    UPDATE_STATE state;
    K4MUPD(eh, 3, c.gain, information({0.1, 0.0}, {2.0, 0.1, 4.0}), model, aiopt, state);
    EXPECT_EQ(aiopt(Ai::penalty), c.after) << c.gain << " " << c.before;
    EXPECT_DOUBLE_EQ(state.step, c.step);
    EXPECT_EQ(aiopt(Ai::step_thousandths), static_cast<std::int64_t>(1000.0 * c.step));
  }
}

TEST(Update, LoadingsStayInReachAndTheStepUphill)
{
  // One loading is asked for a step of 600, the other for one of 1.
  for (const double score : {60.0, -60.0}) {
    ERROR_HANDLER eh;
    VARIANCE_MODEL model = variances({2.0, 1.0});
    for (VARIANCE_PARAMETER& v : model.parameters) {
      v.type = ParamType::L;
      v.role = ParamRole::loading;
    }
    AIOPT aiopt;
    aiopt(Ai::penalty) = -1;
    UPDATE_STATE state;
    INFORMATION asked = information({score, 2.0}, {0.1, 0.0, 2.0}, false);
    K4MUPD(eh, 2, 1.0, asked, model, aiopt, state);
    const double first = model.parameters[0].value - 2.0;
    EXPECT_GT(score * first, 0.0);
    EXPECT_LE(std::fabs(first), score > 0.0 ? 2.5 : 1.3);
    EXPECT_GT(model.parameters[1].value, 1.0);
  }
}

TEST(Update, ParametersWithoutInformationLeaveTheStep)
{
  struct Case {
    const char* what;
    std::vector<double> ai;
    std::size_t singular;
    std::vector<std::string> made_of;
    bool residual;  // and no other
    bool silent = false;
  };
  for (const Case& c : {Case{"two equal variances", {2.0, 2.0, 2.0, 0.1, 0.1, 4.0}, 1, {"v0"}, false},
                        Case{"one confounded with the residual", {2.0, 0.1, 1.0, 0.1, 2.0, 4.0}, 1, {"v2"}, true},
                        Case{"one that is the sum of two others", {2.0, 2.0, 5.0, 0.0, 3.0, 3.0}, 1, {"v0", "v2"}, true},
                        Case{"one without any", {2.0, 0.0, 0.0, 0.1, 0.0, 4.0}, 1, {}, false, true}}) {
    ERROR_HANDLER eh;
    VARIANCE_MODEL model = variances({1.0, 1.0, 1.0});
    AIOPT aiopt;
    aiopt(Ai::penalty) = -1;
    UPDATE_STATE state;
    K4MUPD(eh, 1, 0.0, information({0.1, 0.1, 0.0}, c.ai), model, aiopt, state);
    EXPECT_EQ(aiopt(Ai::ai_singularities), 1) << c.what;
    EXPECT_EQ(model.parameters[c.singular].constraint, c.silent ? Constraint::P : Constraint::S) << c.what;
    EXPECT_EQ(state.first_singular, c.residual ? "v1" : "") << c.what;
    ASSERT_EQ(state.singular.size(), 1U) << c.what;
    EXPECT_EQ(state.singular[0].label, "v1") << c.what;
    EXPECT_EQ(state.singular[0].made_of, c.made_of) << c.what;
    EXPECT_EQ(state.singular[0].silent, c.silent) << c.what;
    EXPECT_EQ(model.parameters[c.singular].value, 1.0) << c.what;
  }
  ERROR_HANDLER eh;
  VARIANCE_MODEL model = variances({1.0, 1.0});
  AIOPT aiopt;
  UPDATE_STATE state;
  INFORMATION indefinite = information({0.1, 0.0}, {1.0, 3.0, 1.0}, false);
  std::vector<double> covariance;
  std::vector<std::uint8_t> used;
  K4MAII(eh, true, 7, indefinite, model, aiopt, state, covariance, used);
  EXPECT_EQ(eh.EH_LAST_MESSAGE(), "AI matrix negative definite, diagonal has been increased at iteration 7");
  for (const double v : covariance) EXPECT_TRUE(std::isfinite(v));
}

TEST(Convergence, ToleranceWidensWithTheIterations)
{
  struct Case {
    std::int64_t n;
    double change;
    std::int64_t restrained, boundary;
    bool converged;
  };
  for (const Case& c : {Case{1, 0.0, 0, 0, false}, Case{2, 0.0039, 0, 0, true}, Case{2, 0.0041, 0, 0, false},
                        Case{100, 0.199, 0, 0, true}, Case{100, 0.201, 0, 0, false}, Case{5, 0.009, 3, 0, false},
                        Case{5, 0.004, 5, 0, true}, Case{5, 0.004, 0, 1, false}}) {
    FIT_WORK work;
    work.aiopt(Ai::step_thousandths) = 1000;
    work.aiopt(Ai::restrained) = c.restrained;
    work.aiopt(Ai::boundary) = c.boundary;
    CONVERGENCE state;
    state.previous = state.previous_stable = -50.0;
    state.has_previous = true;
    EXPECT_EQ(has_converged(c.n, -50.0 + c.change, 1.0, work, state), c.converged) << c.n << " " << c.change;
  }
}

TEST(Convergence, StandingStillEndsTheFitWhateverIsHeld)
{
  for (const double move : {0.0, 0.05}) {
    FIT_WORK work;
    work.update.largest_change = move;
    CONVERGENCE state;
    for (std::int64_t n = 1; n <= 4; ++n) {
      work.aiopt(Ai::step_thousandths) = 1000;
      work.aiopt(Ai::restrained) = 40;
      EXPECT_EQ(has_converged(n, -50.0, 1.0, work, state), n == 4 && move == 0.0) << n;
    }
  }
}

TEST(Convergence, ADampedRetryGoesNineTenthsOfTheWayBack)
{
  VARIANCE_MODEL model = variances({9.0, 1.0});
  FIT_WORK work;
  work.saved = model.parameters;
  work.saved[0].value = 1.0;
  EXPECT_NEAR(damp_towards_saved({9.0, 1.0}, model, work), 0.5 * (0.8 / 2.8), 1e-7);
  EXPECT_NEAR(model.parameters[0].value, 1.8, 1e-7);
  EXPECT_DOUBLE_EQ(work.update.step, wide(0.1f));
}

TEST(Faults, EveryCodeHasItsText)
{
  for (const auto& [code, words] : std::initializer_list<std::pair<std::int64_t, const char*>>{
           {1, "Convergence Failed"}, {7, "Failed ordering equations. Increase workspace"}, {44, "Variance structure does not match data"},
           {95, "Insufficient submodels for !RBGIBBS"}, {100, "Prediction error"}, {280, "Residual Variance is Zero"},
           {999, "IEEE_NAN numeric processing error: send job to Kelmoor"}, {1009, "Variance structure is not positive definite"},
           {3020, "Error on 3-way structure having a reduced rank XFA term"}, {400000, "Invalid Poisson data"}, {0, "Convergence Failed"}}) {
    EXPECT_EQ(fault_text(code), words) << code;
  }
}

}  // namespace
}  // namespace tolvan
