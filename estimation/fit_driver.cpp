// The fit driver.  Routine: AIWORK.
#include "estimation/fit_driver.h"

#include <algorithm>
#include <cmath>

#include "base/clock.h"
#include "base/text.h"
#include "estimation/closing_notes.h"
#include "estimation/coefficient_file.h"
#include "estimation/convergence.h"
#include "estimation/evaluation.h"
#include "estimation/fault_texts.h"
#include "estimation/final_results.h"
#include "estimation/imputation.h"
#include "estimation/iterative_mme.h"
#include "estimation/keep_parameters.h"
#include "estimation/search_ranges.h"
#include "reports/result_tables.h"
#include "reports/user_abort.h"
#include "varstruct/lost_ranges.h"

namespace tolvan {
namespace {

constexpr double base_unit = 100000.0;     // LogL beyond 120000 is reported relative to a multiple of this
constexpr double base_needed = 120000.0;
constexpr std::int64_t last_retry_marker = 4;
constexpr std::int64_t retries = 3;
constexpr std::int64_t most_modified_notes = 10;
constexpr std::int64_t most_settling = 5;
constexpr double far_move = 0.05;          // that a parameter may still have to go when LogL has converged, relative
constexpr const char* not_converged = " Warning: LogL not converged";
constexpr std::int64_t most_singular_in_a_row = 3;  // evaluations while the iteration passes over a ridge
constexpr double fall_seen = 1e-5;         // of LogL from the best evaluation: the step was too long
constexpr double fall_reported = 2e-4;     // more than this, and the best evaluation is reported instead of the last

/// The state of the iteration that only the driver sees.
struct ITERATION {
  std::int64_t n = 0;
  std::int64_t limit = 20;
  std::int64_t extra = 0;
  std::int64_t failed = 0;           // failed evaluations so far
  std::int64_t repeats = 0;          // of the present pass
  std::int64_t singular_at_first = -1;
  std::int64_t settling = 0;         // iterations made for parameters that still moved when LogL had converged
  std::int64_t singular_in_a_row = 0;  // evaluations whose information was singular, after one where it was not
  bool clean_before = false;
  int searches = 2;                  // that ranges may still be sought anew
  double reset_step = 1.0;
  double started = 0.0;
  std::int64_t modified = 0;         // unstructured matrices made positive definite so far
  bool final_pass = false;
  bool interrupted = false;          // a finish code was acted on
  bool go_back = false;              // report from the last accepted parameters, not from the rejected ones
  CONVERGENCE convergence;
};

/// L_OPEN: the messages and settings before the loop.
void L_OPEN(ERROR_HANDLER& eh, const FIT_CALL& call, FIT_WORK& work, ITERATION& it, FIT_STATE& fit)
{
  const Frame here{eh, __func__};
  const FIT_OPTIONS& options = call.options;
  it.limit = options(Slot::maxiterations);
  it.extra = options(Slot::extra);
  it.started = wall_seconds();
  if (it.limit <= 0) {
    eh.error(text("model not processed because maximum number of iterations was set to ", it.limit));
    return;
  }
  it.reset_step = 1.0 / (1.0 + static_cast<double>(std::max<std::int64_t>(0, options(Slot::slow))));
  work.update.step = it.limit == 1 ? 1.0 : std::min(options(RealSlot::step_size), it.reset_step);
  if (!(work.update.step > 0.0)) work.update.step = it.reset_step;
  work.update.saved_step = work.update.step;
  work.aiopt(Ai::penalty) = options(Slot::aipenalty);
  work.aiopt(Ai::mode) = std::max<std::int64_t>(0, options(Slot::blup));
  fit.mode = work.aiopt(Ai::mode);
  work.aiopt(Ai::outliers) = options(Slot::outlier) > 0 ? 2 : 0;
  if (work.aiopt(Ai::outliers) > 1 && (fit.mode == 1 || fit.mode > last_mode_by_factor)) {
    eh.warning(text("there are no outlier statistics with !BLUP ", fit.mode, " because C-inverse is not formed"));
  }
  const std::int64_t present = processor_threads();
  const std::int64_t threads = std::clamp<std::int64_t>(options(Slot::maximum_number_of_threads), 1, std::max<std::int64_t>(1, present));
  work.aiopt(Ai::threads) = threads;
  eh.note(threads == present ? text("this job uses all of the ", present, " processor threads")
                             : text("this job uses ", threads, " of the ", present, " processor threads"));
  if (options(Flag::testmode)) {
    eh.warning("!TESTMODE has been selected, results from the following qualifiers have not been thoroughly validated");
    eh.continuation("!KADJ, !IMPUTE, !SINGG, !FAMILY, !EM, !PXEM, !DOMINANCE");
  }
  if (call.design.negative_weights > 0) {
    eh.warning(text(call.design.negative_weights, " negative weight(s) may have been treated as zero"));
  }
  if (call.design.negative_weights + call.design.zero_weights > 0) {
    eh.warning("it is not safe to use zero weights to remove records from analysis");
    eh.continuation(
        "they should be reset to 1; especially if associated with missing response values that need to be predicted "
        "(model term mv)");
  }

  // t0 = 1e-8 (1e-9 by its flag) times ten to the first value of the option tolerance, to the second less 1 when there
  // are two; five times as much above a million equations.
  work.tolerance = options(Flag::k4mxxail_tol_42) ? 1e-9 : 1e-8;
  const auto power_of_ten = [](std::int64_t k) { return std::pow(10.0, static_cast<double>(std::clamp<std::int64_t>(k, -300, 300))); };
  if (!options.tolerance.empty() && options.tolerance[0] != 0) work.tolerance *= power_of_ten(options.tolerance[0]);
  if (call.terms.equations > 1000000) work.tolerance *= 5.0;
  if (options.tolerance.size() >= 2) work.tolerance *= power_of_ten(options.tolerance[1] - 1);
  work.default_tolerance = work.tolerance == 1e-8;
  work.cancel.asked = [](void*) { return abort_file_exists(); };

  it.convergence.trivial = call.model.count() == 1 && call.model.terms.empty() && call.model.sections.size() == 1;
  it.convergence.simple = std::any_of(call.model.parameters.begin(), call.model.parameters.end(),
                                      [](const VARIANCE_PARAMETER& v) { return v.type == ParamType::d; });
}

/// L_SET_BASE: keeps the reported LogL small by a base once it is beyond 120000.
void L_SET_BASE(ERROR_HANDLER& eh, double logl, FIT_STATE& fit)
{
  const Frame here{eh, __func__};
  if (!std::isfinite(logl) || std::fabs(logl - fit.base) < base_needed) return;
  fit.base = std::trunc(logl / base_unit) * base_unit;
  eh.note(text("LogL values are reported relative to a base of ", trim(edit_g(fit.base, 15, 8))));
}

/// L_TRACE: one line of the trace, and the monitor's answer to it.
void L_TRACE(ERROR_HANDLER& eh, FIT_CALL& call, const FIT_WORK& work, const EVALUATION& ev, const ITERATION& it, FIT_STATE& fit)
{
  const Frame here{eh, __func__};
  ITERATION_ROW row;
  row.iteration = it.n;
  row.logl = ev.fault > 0 ? no_value : ev.logl - fit.base;
  row.sigma2 = ev.fault > 0 ? no_value : ev.sigma2;
  row.df = ev.nu;
  row.restrained = work.aiopt(Ai::restrained);
  row.flag = it.repeats == 0 ? ' ' : static_cast<char>('0' + std::min<std::int64_t>(it.repeats, 9));
  row.seconds = wall_seconds() - it.started;
  row.largest_change = work.update.largest_change;
  row.step = work.update.step;
  row.gammas = ev.evaluated;
  fit.trace.push_back(std::move(row));
  HANDLE_TRACE(eh, call.communication, fit, it.limit, call.report, call.tables);
}

/// L_RETRY: goes back towards the saved parameters after a failed evaluation; false when no retry is left.
bool L_RETRY(ERROR_HANDLER& eh, bool fault, VARIANCE_MODEL& model, FIT_WORK& work, const EVALUATION& ev, ITERATION& it)
{
  const Frame here{eh, __func__};
  if (!work.has_saved || it.failed > retries || it.repeats >= last_retry_marker) return false;
  std::vector<double> failed(model.parameters.size());
  for (std::size_t i = 0; i < failed.size(); ++i) {
    failed[i] = ev.evaluated.size() == failed.size() ? ev.evaluated[i] : model.parameters[i].value;
  }
  const double mean = damp_towards_saved(failed, model, work);
  if (fault) {
    eh.warning(text("likelihood evaluation failed with fault ", ev.fault, " ", fault_text(ev.fault)));
    eh.continuation(text("trying again with reduced updates : ", edit_f(200.0 * mean, 8, 3)));
  } else {
    eh.warning(text("Logliklihood decreased to ", edit_f(ev.logl, 11, 2), ", trying again with reduced updates ",
                    edit_f(200.0 * mean, 8, 3)));
  }
  ++it.repeats;
  if (mean < wide(1e-5f)) {
    it.limit = it.n + 1;
  } else {
    --it.n;
  }
  return true;
}

/// L_USER_STOP: acts on a wish to stop; true when the loop ends at once.
bool L_USER_STOP(ERROR_HANDLER& eh, FIT_WORK& work, ITERATION& it, FIT_STATE& fit)
{
  const Frame here{eh, __func__};
  const std::int64_t code = CHECK_FOR_USER_ABORT(eh);
  if (code == static_cast<std::int64_t>(Ecode::user_abort)) {
    fit.status = "JOB ABORTED by USER";
    fit.end = FitEnd::aborted;
    return true;
  }
  if (code == static_cast<std::int64_t>(Ecode::user_finish) && !it.interrupted) {
    it.interrupted = true;
    fit.status = "JOB INTERUPTED by USER";
    it.limit = it.n + 1;
    work.update.step = 1.0;
  }
  return false;
}

/// L_ACCEPT: records an evaluation without fault: best LogL, falls in a row, the parameters to go back to.
void L_ACCEPT(ERROR_HANDLER& eh, FIT_CALL& call, const EVALUATION& ev, FIT_WORK& work, ITERATION& it)
{
  const Frame here{eh, __func__};
  work.aiopt(Ai::falls) = work.has_saved && work.previous_logl - wide(0.001f) > ev.logl ? work.aiopt(Ai::falls) + 1 : 0;
  KEEPGM_SAVE_AND_ADJUST(eh, it.n, call.options(Slot::oscillate) != 0, ev, call.model, work);
  const std::int64_t modified = call.model.modified - it.modified;
  it.modified = call.model.modified;
  if (modified > 0 && it.modified < most_modified_notes) {
    eh.note(text("US matrix updates modified ", it.modified, " time(s)"));
  }
  if (ev.negative > 0) {
    eh.EH_ADD_MESSAGE({.text = text(ev.negative, " negative pivot(s) in MME treated as singular"),
                       .etype = Etype::note,
                       .unique = true});
  }
  if (it.singular_at_first < 0) {
    it.singular_at_first = ev.absorbed.singular;
  } else if (ev.absorbed.singular > it.singular_at_first) {
    eh.warning(text(ev.absorbed.singular - it.singular_at_first, " more singularities detected in design)"));
    eh.continuation(text("reset tolerance to ", trim(edit_e(work.tolerance, 10, 2)), " if the new DF are correct, otherwise try ",
                         trim(edit_e(0.1 * work.tolerance, 10, 2))));
    it.singular_at_first = ev.absorbed.singular;
  }
}

/// Parameters that a step passing over a ridge could not tell apart take part again: a correlation near zero beside a nugget, say.
void free_dependent(VARIANCE_MODEL& model, FIT_WORK& work)
{
  for (std::size_t i = 0; i < model.parameters.size() && i < work.latest.parameters.size(); ++i) {
    Constraint& code = model.parameters[i].constraint;
    if (code == Constraint::S) code = work.latest.parameters[i].constraint;
  }
  work.update.first_singular.clear();
}

/// Whether ranges got, by the last evaluation, where the data say nothing about them, and may be sought anew.
bool ranges_are_lost(const FIT_CALL& call, const EVALUATION& ev, const ITERATION& it, const FIT_STATE& fit)
{
  return it.searches > 0 && fit.mode == 0 && it.n > 0 && it.n < it.limit && ev.evaluated.size() == call.model.parameters.size() &&
         !lost_ranges(call.model, ev.evaluated, false).empty();
}

/// L_SEEK: seeks lost ranges anew, or, where the first evaluation failed, all of them; true when parameters were moved.
bool L_SEEK(ERROR_HANDLER& eh, bool failed, FIT_CALL& call, const FIT_MODEL& in, FIT_WORK& work, EVALUATION& ev, ITERATION& it)
{
  const Frame here{eh, __func__};
  --it.searches;
  if (!failed) free_dependent(call.model, work);
  const std::vector<double> start = failed ? parameter_values(call.model) : ev.evaluated;
  return search_ranges(eh, in, it.n, start, failed, call.model, work, ev);
}

/// Whether something is wanted that only a final pass forms.
bool final_pass_due(const FIT_WORK& work)
{
  return work.aiopt(Ai::final_required) < 0 || work.aiopt(Ai::outliers) > 1;
}

/// L_ITERATE: the loop; leaves the fit's status and end set.
void L_ITERATE(ERROR_HANDLER& eh, FIT_CALL& call, const FIT_MODEL& in, FIT_WORK& work, EVALUATION& ev, ITERATION& it, FIT_STATE& fit)
{
  const Frame here{eh, __func__};
  const auto p = static_cast<double>(call.model.count());
  for (;;) {
    const bool lost = ranges_are_lost(call, ev, it, fit);
    ++it.n;
    if (lost) L_SEEK(eh, false, call, in, work, ev, it);
    if (it.extra > 0) it.final_pass = false;
    if (it.n >= it.limit || fit.mode > 0) it.final_pass = true;
    work.aiopt(Ai::final_pass) = it.final_pass ? 1 : 0;

    K4MITR(eh, in, it.n, call.model, work, ev);
    if (ev.absorbed.cancelled) {
      L_USER_STOP(eh, work, it, fit);
      fit.end = FitEnd::aborted;
      return;
    }
    if (eh.terminate()) {
      if (ev.fault > 0) fit.end = FitEnd::failed;
      if (ev.fault > 0) fit.status = fault_text(ev.fault);
      return;
    }
    if (it.n <= 2) TMG_LOG(call.timing, " Iteration complete");

    if (ev.fault > 0) {
      it.failed = ev.fault == 999 ? std::max<std::int64_t>(it.failed + 1, retries) : it.failed + 1;
      L_TRACE(eh, call, work, ev, it, fit);
      if (eh.terminate()) return;
      if (ev.fault == 2130) eh.warning(text("residual Sum of squares is ", trim(edit_g(ev.quadratic, 13, 6))));
      const bool retriable = ev.fault >= 10 && ev.fault <= 2000 && ev.fault != 1006;
      const bool unformed = it.n == 1 && ev.fault > 1000 && ev.fault <= 1025 && it.limit > 1 && fit.mode == 0 && it.searches > 0;
      const std::int64_t fault = ev.fault;
      if (unformed && L_SEEK(eh, true, call, in, work, ev, it)) {
        --it.n;
        ev.evaluated.clear();
        continue;
      }
      ev.fault = fault;
      if (retriable && L_RETRY(eh, true, call.model, work, ev, it)) continue;
      fit.fault = ev.fault;
      fit.end = FitEnd::failed;
      fit.status = ev.fault < 10 ? std::string(fault_text(ev.fault)) : "Iteration failed";
      return;
    }

    const double fall = work.has_saved ? work.previous_logl - ev.logl : 0.0;
    if (fit.mode == 0) L_SET_BASE(eh, ev.logl, fit);
    if (it.n >= 2 && fall >= 2.0 * p + 10.0) {
      ++it.failed;
      L_TRACE(eh, call, work, ev, it, fit);
      if (eh.terminate()) return;
      if (L_RETRY(eh, false, call.model, work, ev, it)) continue;
      eh.warning("iteration was aborted because model is not converging");
      eh.continuation("consider changing the starting values, the model or use !CONTINUE to push on regardless");
      fit.status = "Convergence failed";
      it.go_back = true;
      return;
    }
    L_ACCEPT(eh, call, ev, work, it);
    // A step that lost LogL is not followed by another from where it led: it is taken anew from the best parameters, shorter.
    const bool fell = work.best_logl - ev.logl > fall_seen;
    damp_steps(fell, work.update);
    if (fell) step_from_best(eh, it.n, ev.logl - work.best_logl, call.model, work);
    if (eh.terminate()) return;
    L_TRACE(eh, call, work, ev, it, fit);
    if (call.files != nullptr) SAVE_PARAMETERS(eh, call.model, parameter_values(call.model), *call.files);
    const bool repeated = it.repeats > 0;
    it.repeats = 0;
    it.failed = 0;
    if (fit.mode > 0) {
      fit.status = "BLUP run done";
      fit.end = fit.mode > last_mode_by_factor && !ev.iterated ? FitEnd::not_converged : FitEnd::converged;
      if (fit.end == FitEnd::not_converged) fit.status = "Warning: BLUP run done; Solutions Not Converged";
      return;
    }

    const std::int64_t singular = work.aiopt(Ai::ai_singularities);
    if (singular > 0 && fit.end == FitEnd::converged) {
      eh.warning(text(singular, " singularities in AI matrix"));
      return;  // further iterations were asked for, and there is nothing more to find
    }
    const bool ridge = it.n >= 2 && it.singular_in_a_row < most_singular_in_a_row && (it.clean_before || it.singular_in_a_row > 0);
    const bool passing = singular > 0 && (ridge || ranges_are_lost(call, ev, it, fit));
    it.singular_in_a_row = passing ? it.singular_in_a_row + 1 : 0;
    it.clean_before = singular == 0;
    if (passing) free_dependent(call.model, work);
    if (singular > 0 && !passing && call.options(Slot::aisingularities) == 0) {
      fit.status = "Singularity in Average Information Matrix";
      fit.end = FitEnd::failed;
      fit.fault = -1;
      return;
    }
    if (singular > 0 && !passing) {
      eh.EH_ADD_MESSAGE({.text = text(singular, " singularities in AI matrix"), .etype = Etype::warning, .unique = true});
    }
    if (ev.sigma2 < wide(0.001f) && it.limit >= 2 && it.n >= 2) {
      eh.EH_ADD_MESSAGE({.text = "this error occurs in an animal model when the RESIDUAL variance is trying to go negative, i.e. "
                                 "heritability based on sire or dam variance would exceed 1",
                         .etype = Etype::warning,
                         .unique = true});
    }
    if (it.n >= 2 || eh.terminate()) {
      if (L_USER_STOP(eh, work, it, fit)) return;
    }
    if (eh.terminate()) return;

    if (!it.final_pass && work.aiopt(Ai::falls) > std::min<std::int64_t>(it.n, 8) + 2) {
      eh.warning(
          "convergence has failed, this may be because you have specified  an inappropriate model for your data or because the "
          "data does not fit the model well, if you cannot resolve the problem, please report it");
      eh.continuation("AI updates repeatedly lowered the LogL");
      fit.status = "Convergence failure";
      return;
    }
    work.previous_logl = ev.logl;
    const bool converged = has_converged(it.n, ev.logl, it.reset_step, work, it.convergence) && !repeated && !passing;
    if (converged) {
      fit.status = "LogL Converged; ";
      fit.end = FitEnd::converged;
    } else if (it.settling > 0) {
      fit.status = not_converged;
      fit.end = FitEnd::not_converged;
    }
    if (it.final_pass) {
      if (!converged && singular > 0) fit.status = "Warning: iteration aborted because of singularities in AI matrix";
      return;
    }
    if (!converged) continue;
    // LogL is flat at its top: it may have settled while a parameter still is far from its place.
    if (it.extra <= 0 && it.settling < most_settling && !parameters_settled(call.model, work.update, ev, far_move)) {
      ++it.settling;
      continue;
    }
    if (it.extra <= 0) {
      if (!final_pass_due(work)) return;
      it.limit = it.n + 1;
      continue;
    }
    if (--it.extra == 0) it.final_pass = true;
  }
}

/// L_REPORT: fills tables and scalars from the last completed evaluation, whatever the handler of the fit already holds.
void L_REPORT(ERROR_HANDLER& eh, FIT_CALL& call, const FIT_MODEL& in, FIT_WORK& work, EVALUATION& ev, const ITERATION& it, FIT_STATE& fit)
{
  const Frame here{eh, __func__};
  ERROR_HANDLER aside;  // an aborted fit still reports: routines leave at once when their handler has terminated
  ERROR_HANDLER& own = eh.terminate() ? aside : eh;
  FINISH_TRACE(own, fit, call.tables);
  const bool evaluated = work.has_saved && fit.end != FitEnd::aborted;
  const bool failed = fit.fault > 0 || it.go_back;
  const bool better_before = !failed && work.best_logl - ev.logl > fall_reported;
  const bool unfinished = fit.mode == 0 && final_pass_due(work) && work.aiopt(Ai::final_pass) == 0;
  if (evaluated && (failed || better_before || unfinished)) {
    // The failed or rejected evaluation is nothing to report from: evaluate once more at the last good parameters.  A likelihood
    // with kinks, as ranges of spherical models have, keeps stepping over its top: there the best parameters met are reported.
    for (std::size_t i = 0; i < work.saved.size(); ++i) {
      call.model.parameters[i] = work.saved[i];
      if (better_before || failed) call.model.parameters[i].value = work.best.parameters[i].value;
    }
    if (better_before) own.note("the parameters of an earlier iteration are reported, its LogL was the best");
    work.aiopt(Ai::final_pass) = 1;
    K4MITR(own, in, std::max<std::int64_t>(it.n, 2), call.model, work, ev);
  }
  if (evaluated && !own.terminate() && ev.fault == 0 && !ev.absorbed.cancelled) {
    K4MFIN(own, in, call.model, work, ev, fit);
    if (!own.terminate()) {
      fit.logl = ev.logl - fit.base;
      judge_status(own, call.model, work, ev, it.limit == 1, fit);
      if (fit.mode > 0) {
        own.note("variance parameters were not estimated because the !BLUP qualifier was specified");
        own.continuation("the Standard Errors of variance components (and solutions?) and derived quantities are wrong");
        own.continuation("use !MAXIT 1 instead of !BLUP to get correct standard errors");
      } else {
        note_criteria(own, in, call.model, work, fit);
      }
      if (call.options(Slot::impute) > 0 && fit.mode == 0 && fit.end == FitEnd::converged) K4MIMPT(own, call, in, work, fit);
      STORE_FIT_SCALARS(own, call.model, fit, call.tables);
      AIDRPT(own, call.variables, call.factors, call.terms, call.design, call.model, fit, call.genomic, call.tables);
      if (call.options.inverse_table) {
        const auto threads = static_cast<int>(std::max<std::int64_t>(1, work.aiopt(Ai::threads)));
        AIRCINV(own, call.terms, work.equations, threads, call.tables);
      }
      if (call.options(Slot::cmat) > 0 && call.files != nullptr && call.files->in_use)
        WRITE_CMAT(own, work.equations, text(call.files->folder(), "CMAT.bin"));
      if (call.files != nullptr) SAVE_PARAMETERS(own, call.model, fit.evaluated, *call.files);
      TMG_LOG(call.timing, " TLV/SLN/YHT written");
    }
  }
  eh.EH_ADD_ALL(aside);
}

}  // namespace

void AIWORK(ERROR_HANDLER& eh, FIT_CALL& call, FIT_STATE& fit)
{
  const Frame here{eh, __func__};
  FIT_WORK work;
  ITERATION it;
  EVALUATION ev;
  const FIT_MODEL in{call.options, call.variables, call.factors, call.terms, call.design, call.timing};
  L_OPEN(eh, call, work, it, fit);
  if (eh.terminate()) return;
  if (call.options.final_file.asked) {
    fit.status = " Warning: Only one iteration performed";
    it.limit = 1;
    work.update.step = work.update.saved_step = 1.0;
  }
  if (call.files != nullptr) work.equations.given_order = call.files->order;
  L_ITERATE(eh, call, in, work, ev, it, fit);
  const FACTOR& factor = work.equations.factor;
  if (call.files != nullptr && !factor.order.empty()) call.files->order = {factor.order, factor.dense};
  TMG_LOG(call.timing, " EndingResiduals");
  const std::int64_t singular = work.aiopt(Ai::ai_singularities);
  L_REPORT(eh, call, in, work, ev, it, fit);
  if (fit.end == FitEnd::failed && !eh.terminate()) tell_failure(eh, fit, singular);
  const std::int64_t flag = fit.end == FitEnd::converged ? 0 : (fit.end == FitEnd::not_converged ? 2 : 1);
  ERROR_HANDLER aside;
  WARNING(eh.terminate() ? aside : eh, fit.status, flag, call.tables);
  eh.EH_ADD_ALL(aside);
  TMG_LOG(call.timing, "END OF AIWORK");
}

}  // namespace tolvan
