// What follows the iterations of a fit: the evaluation that is reported, its tables, scalars and files.
#include <algorithm>

#include "base/text.h"
#include "estimation/closing_notes.h"
#include "estimation/coefficient_file.h"
#include "estimation/final_results.h"
#include "estimation/imputation.h"
#include "estimation/iteration.h"
#include "estimation/working_file.h"
#include "reports/result_tables.h"

namespace tolvan {
namespace {

constexpr double fall_reported = 2e-4;  // of LogL: more than this, and the best evaluation is reported instead of the last

}  // namespace

bool final_pass_due(const FIT_WORK& work)
{
  return work.aiopt(Ai::final_required) < 0 || work.aiopt(Ai::outliers) > 1;
}

void report_fit(ERROR_HANDLER& eh, FIT_CALL& call, const FIT_MODEL& in, FIT_WORK& work, const ITERATION& it, EVALUATION& ev, FIT_STATE& fit)
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
    if (own.terminate() && eh.terminate()) return;  // it failed again: that has been told
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
      const Timed timed{call.timing, "NEW_AIDRPT"};
      AIDRPT(own, call.variables, call.factors, call.terms, call.design, call.model, fit, call.genomic, call.tables);
      if (call.options.inverse_table) {
        const auto threads = static_cast<int>(std::max<std::int64_t>(1, work.aiopt(Ai::threads)));
        const bool to_file = call.files != nullptr && call.files->in_use;
        AIRCINV(own, call.terms, work.equations, threads, call.options.inverse_terms, to_file, call.tables);
      }
      if (call.options(Slot::cmat) > 0 && call.files != nullptr && call.files->in_use)
        WRITE_CMAT(own, work.equations, text(call.files->folder(), "CMAT.bin"));
      if (call.options(Slot::debug) > 0 && call.files != nullptr && call.files->in_use)
        WRITE_CMAT_TEXT(own, work.equations, text(call.files->folder(), "cmat.rcv"));
      if (call.options(Slot::debug) > 0 && call.files != nullptr && call.files->in_use && fit.mode == 0 && ev.information.count() > 0)
        AIDWVR(own, in, call.model, work.equations, ev, text(call.files->folder(), "wvar.rcv"));
      if (call.files != nullptr) SAVE_PARAMETERS(own, call.model, fit.evaluated, *call.files);
      TMG_LOG(call.timing, " TLV/SLN/YHT written");
    }
  }
  eh.EH_ADD_ALL(aside);
}

}  // namespace tolvan
