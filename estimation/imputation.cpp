#include "estimation/imputation.h"

#include <algorithm>
#include <cmath>

#include "base/random.h"
#include "base/text.h"
#include "estimation/final_results.h"
#include "estimation/missing_responses.h"

namespace tolvan {
namespace {

/// Mean and sum of squares about it, updated by one value after the other (Welford 1962).
struct RUNNING {
  std::vector<double> mean, squares;
  double count = 0.0;

  void add(const std::vector<double>& x)
  {
    if (count == 0.0) {
      mean.assign(x.size(), 0.0);
      squares.assign(x.size(), 0.0);
    }
    count += 1.0;
    for (std::size_t i = 0; i < x.size(); ++i) {
      const double d = x[i] - mean[i];
      mean[i] += d / count;
      squares[i] += d * (x[i] - mean[i]);
    }
  }
  double variance(std::size_t i) const { return count > 1.0 ? squares[i] / (count - 1.0) : 0.0; }
};

/// What is summed over the rounds.
struct SUMS {
  RUNNING gamma, sigma, sigma2, solution, pev, fitted;
};

/// A draw from the distribution of the effects given the responses, less its mean, over sqrt(s2): L'^-1 D^-1/2 z has variance
/// C^-1.  False where a pivot is negative: there is no such distribution.
bool draw_effects(const FACTOR& factor, int threads, WICHMANN_HILL& random, std::vector<double>& b)
{
  b.resize(factor.reciprocal.size());
  for (std::size_t p = 0; p < b.size(); ++p) {
    const double reciprocal = factor.reciprocal[p];
    if (reciprocal < 0.0) return false;
    b[p] = reciprocal > 0.0 ? random.normal() / std::sqrt(reciprocal) : 0.0;  // D^1/2 z: the sweep below divides by D
  }
  SMIBCK(factor, b.data(), 1, threads);
  return true;
}

/// One chain of rounds.
struct ROUNDS {
  FIT_CALL& call;
  const FIT_MODEL& known;   // the model of the fit, mv in it
  CHANGED_DESIGN full;      // the same with all responses
  FIT_MODEL complete;
  VARIANCE_MODEL model;     // at the parameters of the round
  FIT_WORK draw, fitted;
  EVALUATION drawn, evaluated;
  WICHMANN_HILL random{default_seeds};
  std::vector<double> noise;
  double sigma2;
  FIT_STATE state;          // of the completed data

  ROUNDS(FIT_CALL& call_, const FIT_MODEL& in, const FIT_WORK& work, const FIT_STATE& fit)
      : call(call_),
        known(in),
        full(with_responses_given(in.terms, in.design)),
        complete{in.options, in.variables, in.factors, full.terms, full.design, in.timing},
        model(at_final_values(call_.model, fit)),
        sigma2(call_.model.profiled ? fit.sigma2 : 1.0)
  {
    for (FIT_WORK* each : {&draw, &fitted}) {
      each->aiopt(Ai::threads) = work.aiopt(Ai::threads);
      each->aiopt(Ai::penalty) = -1;  // LogL of different data tells nothing of the step
      each->tolerance = work.tolerance;
      each->default_tolerance = work.default_tolerance;
      each->cancel = work.cancel;
    }
    draw.aiopt(Ai::mode) = 1;
  }
  int threads() const { return static_cast<int>(std::max<std::int64_t>(1, draw.aiopt(Ai::threads))); }

  void round(ERROR_HANDLER& eh);
};

/// Draws, evaluates and steps; state and model tell the outcome.
void ROUNDS::round(ERROR_HANDLER& eh)
{
  constexpr std::int64_t no_first_pass = 2;
  K4MITR(eh, known, no_first_pass, model, draw, drawn);
  if (eh.terminate() || drawn.fault > 0 || drawn.absorbed.cancelled) return;
  const MIXED_EQUATIONS& q = draw.equations;
  if (!draw_effects(q.factor, threads(), random, noise)) {
    drawn.fault = 1;
    return;
  }
  const std::int64_t first = full.terms.equations;  // mv stands behind all others
  for (std::size_t k = 0; k < known.design.mv.size(); ++k) {
    const auto p = static_cast<std::size_t>(q.position_of(first + static_cast<std::int64_t>(k)));
    const auto row = static_cast<std::size_t>(known.design.mv[k]);
    const double offset = known.design.offset.empty() ? 0.0 : known.design.offset[row];
    full.design.response[row] = drawn.solution[p] + q.shift + offset + std::sqrt(sigma2) * noise[p];
  }
  if (fitted.equations.n > 0) take_responses(full.design, fitted.equations);
  K4MITR(eh, complete, no_first_pass, model, fitted, evaluated);
  if (eh.terminate() || evaluated.fault > 0 || evaluated.absorbed.cancelled) return;
  state = {};
  K4MFIN(eh, complete, model, fitted, evaluated, state);
  if (model.profiled) sigma2 = evaluated.sigma2;
}

/// Adds a round, the drawn responses as the solutions of mv.
void add_round(const ROUNDS& rounds, SUMS& sums)
{
  const FIT_STATE& state = rounds.state;
  std::vector<double> solution = state.solution;
  std::vector<double> pev(solution.size());
  for (std::size_t e = 0; e < pev.size(); ++e) pev[e] = state.se[e] * state.se[e];
  for (const std::int64_t row : rounds.known.design.mv) solution.push_back(rounds.full.design.response[static_cast<std::size_t>(row)]);
  pev.resize(solution.size(), 0.0);
  sums.gamma.add(state.evaluated);
  sums.sigma.add(state.sigma);
  sums.sigma2.add({state.sigma2});
  sums.solution.add(solution);
  sums.pev.add(pev);
  sums.fitted.add(state.fitted);
}

/// L_STORE_SUMMARY: registers TABLE_VPARSUM: a row a parameter, on the reported scale.
void L_STORE_SUMMARY(ERROR_HANDLER& eh, const RUNNING& sigma, OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  const auto n = static_cast<std::int64_t>(sigma.count);
  const std::int64_t id = OTST_REGISTER_TABLE(eh, store, "TABLE_VPARSUM");
  if (eh.terminate()) return;
  OUTPUT_TABLE& t = store.table(id);
  OTT_ADD_TITLE(eh, t, text("Variance parameter summary from ", n, " iterations"));
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "ITERATIONS", .heading = "iterations", .format = "I6"});
  OTT_ADD_COLUMN(eh, t, {.name = "MEAN", .heading = "Mean", .format = "g14.6"});
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "ID", .heading = "ID", .format = "I6"});
  OTT_ADD_COLUMN(eh, t, {.name = "STNDDEVN", .heading = "StndDevn", .format = "g14.6"});
  OTT_ALLOC_DATA_STORES(eh, t, std::ssize(sigma.mean));
  if (eh.terminate()) return;
  for (std::size_t i = 0; i < sigma.mean.size(); ++i) {
    OTT_NEXT_ROW(eh, t);
    OTT_SET_INTEGER_VALUES(eh, t, {n, static_cast<std::int64_t>(i) + 1});
    OTT_SET_REAL_VALUES(eh, t, {sigma.mean[i], std::sqrt(sigma.variance(i))});
  }
  OTT_ADD_FOOTNOTE(eh, t, text("reported solutions are averages of ", n, " rounds of imputation with SE based on sampling variance"));
}

/// Puts the averages where the results of the fit were.
void report_averages(const SUMS& sums, FIT_STATE& fit)
{
  fit.evaluated = sums.gamma.mean;
  fit.sigma = sums.sigma.mean;
  fit.sigma2 = sums.sigma2.mean.front();
  fit.solution = sums.solution.mean;
  for (std::size_t e = 0; e < fit.se.size(); ++e) fit.se[e] = std::sqrt(std::max(0.0, sums.pev.mean[e] + sums.solution.variance(e)));
  for (std::size_t r = 0; r < fit.fitted.size(); ++r) {
    if (!is_no_value(fit.residual[r])) fit.residual[r] += fit.fitted[r] - sums.fitted.mean[r];
  }
  fit.fitted = sums.fitted.mean;
  fit.imputations = static_cast<std::int64_t>(sums.solution.count);
  fit.status = "RBG run finished";
}

}  // namespace

void K4MIMPT(ERROR_HANDLER& eh, FIT_CALL& call, const FIT_MODEL& in, const FIT_WORK& work, FIT_STATE& fit)
{
  const Frame here{eh, __func__};
  const std::int64_t asked = in.options(Slot::impute);
  if (in.design.mv.empty()) {
    eh.warning("nothing is imputed: no response is missing in this model");
    eh.continuation("include the model term mv, which keeps records without a response");
    return;
  }
  const Timed timed{in.timing, "K4MIMPT"};
  ROUNDS rounds(call, in, work, fit);
  const std::vector<VARIANCE_PARAMETER> converged = rounds.model.parameters;
  SUMS sums;
  for (std::int64_t n = 0; n <= asked; ++n) {
    ERROR_HANDLER own;
    rounds.round(own);
    const std::int64_t fault = std::max(rounds.drawn.fault, rounds.evaluated.fault);
    if (own.terminate() || fault > 0 || rounds.drawn.absorbed.cancelled || rounds.evaluated.absorbed.cancelled) {
      if (own.terminate()) eh.EH_ADD_ALL(own);
      eh.warning(text("imputation stopped in round ", n, "; the results are those of the fit without it"));
      return;
    }
    if (n > 0) add_round(rounds, sums);
    // What a step has held at a bound may move again in the next round: that has other data.
    for (std::size_t i = 0; i < converged.size(); ++i) {
      VARIANCE_PARAMETER& v = rounds.model.parameters[i];
      if (v.value != 0.0) v.constraint = converged[i].constraint;
    }
  }
  L_STORE_SUMMARY(eh, sums.sigma, call.tables);
  if (!eh.terminate()) report_averages(sums, fit);
}

}  // namespace tolvan
