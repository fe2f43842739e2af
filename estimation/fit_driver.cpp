// The fit driver.  Routine: AIWORK.
#include "estimation/fit_driver.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "base/clock.h"
#include "base/text.h"
#include "estimation/closing_notes.h"
#include "estimation/evaluation.h"
#include "estimation/far_starts.h"
#include "estimation/fault_texts.h"
#include "estimation/iteration.h"
#include "estimation/iterative_mme.h"
#include "estimation/keep_parameters.h"
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

/// L_SET_BASE: keeps the reported LogL small by a base once it is beyond 120000; the earlier rows of the trace follow.
void L_SET_BASE(ERROR_HANDLER& eh, double logl, FIT_STATE& fit)
{
  const Frame here{eh, __func__};
  if (!std::isfinite(logl) || std::fabs(logl - fit.base) < base_needed) return;
  const double earlier = fit.base;
  fit.base = std::trunc(logl / base_unit) * base_unit + 0.0;  // not -0
  for (ITERATION_ROW& row : fit.trace) {
    if (!is_no_value(row.logl)) row.logl += earlier - fit.base;
  }
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
///   base  of the LogL that is reported
bool L_RETRY(ERROR_HANDLER& eh, bool fault, double base, VARIANCE_MODEL& model, FIT_WORK& work, const EVALUATION& ev, ITERATION& it)
{
  const Frame here{eh, __func__};
  if (!work.has_saved || it.failed > retries || it.repeats > last_retry_marker) return false;
  std::vector<double> failed(model.parameters.size());
  for (std::size_t i = 0; i < failed.size(); ++i) {
    failed[i] = ev.evaluated.size() == failed.size() ? ev.evaluated[i] : model.parameters[i].value;
  }
  const double mean = damp_towards_saved(failed, model, work);
  if (fault) {
    eh.warning(text("likelihood evaluation failed with fault ", ev.fault, " ", fault_text(ev.fault)));
    eh.continuation(text("trying again with reduced updates : ", edit_f(200.0 * mean, 8, 3)));
  } else {
    eh.warning(text("Logliklihood decreased to ", edit_f(ev.logl - base, 11, 2), ", trying again with reduced updates ",
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
    if (fit.end != FitEnd::converged) fit.status = "JOB INTERUPTED by USER";
    it.limit = it.n + 1;
    work.update.step = 1.0;
  }
  return false;
}

/// Singular equations but for those of terms that were taken out of the run.
std::int64_t singular_equations(const FIT_CALL& call, const MIXED_EQUATIONS& q, const EVALUATION& ev)
{
  std::int64_t count = ev.absorbed.singular;
  for (const TERM_STRUCTURE& structure : call.model.terms) {
    if (!structure.dropped || q.factor.reciprocal.empty()) continue;
    const std::int64_t first = first_equation(call.terms, structure);
    for (std::int64_t e = first; e < first + structure_size(call.model, structure); ++e) {
      count -= q.factor.reciprocal[static_cast<std::size_t>(q.position_of(e))] == 0.0 ? 1 : 0;
    }
  }
  return count;
}

/// L_ACCEPT: records an evaluation without fault: best LogL, falls in a row, the parameters to go back to.
void L_ACCEPT(ERROR_HANDLER& eh, FIT_CALL& call, const EVALUATION& ev, FIT_WORK& work, ITERATION& it)
{
  const Frame here{eh, __func__};
  const bool fell = work.has_saved && !it.came_by_em && work.previous_logl - wide(0.001f) > ev.logl;
  work.aiopt(Ai::falls) = fell ? work.aiopt(Ai::falls) + 1 : 0;
  it.came_by_em = work.em.used > it.em_updates;
  it.em_updates = work.em.used;
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
  const std::int64_t singular = singular_equations(call, work.equations, ev);
  if (it.singular_at_first < 0) {
    it.singular_at_first = singular;
    if (it.singular_at_first > 0) {
      eh.note(text(it.singular_at_first, " singularties detected (tolerance: ", trim(edit_e(work.tolerance, 10, 2)), ")"));
    }
  } else if (singular > it.singular_at_first) {
    eh.warning(text(singular - it.singular_at_first, " more singularities detected in design)"));
    eh.continuation(text("reset tolerance to ", trim(edit_e(work.tolerance, 10, 2)), " if the new DF are correct, otherwise try ",
                         trim(edit_e(0.1 * work.tolerance, 10, 2))));
    it.singular_at_first = singular;
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
  return it.searches > 0 && fit.mode == 0 && ev.fault == 0 && it.n > 0 && it.n < it.limit &&
         ev.evaluated.size() == call.model.parameters.size() && !lost_ranges(call.model, ev.evaluated, false).empty();
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

/// The residual variance as it is reported: profiled, else the residual's own; 1 where there is no one such variance.
double residual_variance(const VARIANCE_MODEL& model, const EVALUATION& ev)
{
  if (model.profiled || model.residual_parameter < 0) return ev.sigma2;
  return ev.evaluated[static_cast<std::size_t>(model.residual_parameter)];
}

/// L_COUNT_MATRICES: complains of known matrices that have become more since the first iteration.
void L_COUNT_MATRICES(ERROR_HANDLER& eh, const FIT_CALL& call, ITERATION& it)
{
  const Frame here{eh, __func__};
  const std::int64_t used = call.genomic.matrices != nullptr ? std::ssize(call.genomic.matrices->matrices) : 0;
  if (it.matrices < 0) it.matrices = used;
  if (used <= it.matrices) return;
  eh.internal(text("looks like the size of AMTXS is growing per iteration - it shouldnt: iteration = ", it.n, ", old_mused = ", it.matrices,
                   ", mused = ", used));
}

/// L_ITERATE: the loop; leaves the fit's status and end set.
void L_ITERATE(ERROR_HANDLER& eh, FIT_CALL& call, const FIT_MODEL& in, FIT_WORK& work, EVALUATION& ev, ITERATION& it, FIT_STATE& fit)
{
  const Frame here{eh, __func__};
  const auto p = static_cast<double>(call.model.count());
  for (;;) {
    const bool lost = ranges_are_lost(call, ev, it, fit);
    ++it.n;
    L_COUNT_MATRICES(eh, call, it);
    if (eh.terminate()) return;
    if (lost) L_SEEK(eh, false, call, in, work, ev, it);
    if (!lost && it.n == 2 && ev.fault == 0 && fit.mode == 0) {
      const std::vector<double> start = ev.evaluated;
      shrink_loadings(eh, in, it.n, start, call.model, work, ev);
    }
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
      if (ev.fault > 0) {
        fit.fault = ev.fault;
        fit.end = FitEnd::failed;
        fit.status = fault_text(ev.fault);
      }
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
      if (retriable && L_RETRY(eh, true, fit.base, call.model, work, ev, it)) continue;
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
      if (L_RETRY(eh, false, fit.base, call.model, work, ev, it)) continue;
      eh.warning("iteration was aborted because model is not converging");
      eh.continuation("consider changing the starting values, the model or use !CONTINUE to push on regardless");
      fit.status = "Convergence failed";
      fit.end = FitEnd::not_converged;
      it.go_back = true;
      return;
    }
    L_ACCEPT(eh, call, ev, work, it);
    // A step that lost LogL is not followed by another from where it led: it is taken anew from the best parameters, shorter.
    const bool fell = work.best_logl - ev.logl > fall_seen;
    damp_steps(fell, work.update);
    if (fell) {
      step_from_best(eh, it.n, ev.logl - work.best_logl, call.model, work);
      it.came_by_em = false;
    }
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
      name_singular(eh, work.update);
      return;  // further iterations were asked for, and there is nothing more to find
    }
    const bool ridge = it.n >= 2 && it.singular_in_a_row < most_singular_in_a_row && (it.clean_before || it.singular_in_a_row > 0);
    const bool passing = singular > 0 && (ridge || ranges_are_lost(call, ev, it, fit));
    it.singular_in_a_row = passing ? it.singular_in_a_row + 1 : 0;
    it.clean_before = singular == 0;
    if (passing) free_dependent(call.model, work);
    if (singular > 0 && !passing && call.options(Slot::aisingularities) == 0) {
      fit.status = "Singularity in Average Information Matrix";
      if (call.report != nullptr && call.report->write("Singularity appeared in AI matrix\n")) call.report->show();
      fit.end = FitEnd::failed;
      fit.fault = -1;
      return;
    }
    if (singular > 0 && !passing) {
      it.let_go = true;
      bool told = false;
      eh.EH_ADD_MESSAGE({.text = text(singular, " singularities in AI matrix"),
                         .etype = Etype::warning,
                         .unique = true,
                         .is_duplicate = &told});
      if (!told) name_singular(eh, work.update);
    }
    // Small against the response, too: small units alone say nothing.
    const double residual = residual_variance(call.model, ev), least = wide(0.001f);
    if (residual < least && residual < least * work.equations.mean_square_y && it.limit >= 2 && it.n >= 2) {
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
      eh.continuation("the Standard Errors of variance components (and solutions?) and derived quantities are wrong");
      eh.continuation("use !MAXIT 1 instead of !BLUP to get correct standard errors");
      eh.continuation("AI updates repeatedly lowered the LogL");
      fit.status = "Convergence failure";
      fit.end = FitEnd::not_converged;
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
    if (it.n >= 2 && L_USER_STOP(eh, work, it, fit)) return;
    if (it.final_pass) {
      const bool told = fit.end == FitEnd::converged || it.interrupted;
      if (!told && it.let_go) fit.status = "Warning: iteration aborted because of singularities in AI matrix";
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

}  // namespace

void AIWORK(ERROR_HANDLER& eh, FIT_CALL& call, FIT_STATE& fit)
{
  const Frame here{eh, __func__};
  FIT_WORK work;
  ITERATION it;
  EVALUATION ev;
  const FIT_MODEL in{call.options, call.variables, call.factors, call.terms, call.design, call.timing};
  open_fit(eh, call, work, it, fit);
  if (eh.terminate()) return;
  if (call.files != nullptr) work.equations.given_order = call.files->order;
  L_ITERATE(eh, call, in, work, ev, it, fit);
  const FACTOR& factor = work.equations.factor;
  if (call.files != nullptr && !factor.order.empty()) call.files->order = {factor.order, factor.dense};
  TMG_LOG(call.timing, " EndingResiduals");
  const std::int64_t singular = work.aiopt(Ai::ai_singularities);
  report_fit(eh, call, in, work, it, ev, fit);
  if (fit.end == FitEnd::failed) tell_failure(eh, fit, work.update, singular);
  const std::int64_t flag = fit.end == FitEnd::converged ? 0 : (fit.end == FitEnd::not_converged ? 2 : 1);
  ERROR_HANDLER aside;
  WARNING(eh.terminate() ? aside : eh, fit.status, flag, call.tables);
  eh.EH_ADD_ALL(aside);
  TMG_LOG(call.timing, "END OF AIWORK");
}

}  // namespace tolvan
