// What a fit settles and tells before its first iteration.  Routine: HIT_RESET.
#include <algorithm>

#include "base/clock.h"
#include "base/text.h"
#include "estimation/absorb_equations.h"
#include "estimation/iteration.h"
#include "estimation/iterative_mme.h"
#include "reports/user_abort.h"

namespace tolvan {

void HIT_RESET(ERROR_HANDLER& eh, const FIT_OPTIONS& options, FIT_WORK& work, ITERATION& it)
{
  const Frame here{eh, __func__};
  work.update = {};
  it.reset_step = 1.0 / (1.0 + static_cast<double>(std::max<std::int64_t>(0, options(Slot::slow))));
  work.update.step = it.limit == 1 ? 1.0 : std::min(options(RealSlot::step_size), it.reset_step);
  if (!(work.update.step > 0.0)) work.update.step = it.reset_step;
  work.update.saved_step = work.update.step;
  work.aiopt(Ai::penalty) = options(Slot::aipenalty);
}

void open_fit(ERROR_HANDLER& eh, const FIT_CALL& call, FIT_WORK& work, ITERATION& it, FIT_STATE& fit)
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
  if (options.final_file.asked) {
    fit.status = " Warning: Only one iteration performed";
    it.limit = 1;
  }
  HIT_RESET(eh, options, work, it);
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

  work.tolerance = singularity_tolerance(options, call.terms.equations);
  work.default_tolerance = work.tolerance == 1e-8;
  work.cancel.asked = [](void*) { return abort_file_exists(); };

  it.convergence.trivial = call.model.count() == 1 && call.model.terms.empty() && call.model.sections.size() == 1;
  it.convergence.simple = std::any_of(call.model.parameters.begin(), call.model.parameters.end(),
                                      [](const VARIANCE_PARAMETER& v) { return v.type == ParamType::d; });
  if (!call.model.own_programs.empty()) eh.note(" READING OWN structures ");
}

}  // namespace tolvan
