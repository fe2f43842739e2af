// What the fit driver keeps between iterations.  Routine: HIT_RESET.
#pragma once

#include <cstdint>

#include "estimation/convergence.h"
#include "estimation/fit_driver.h"

namespace tolvan {

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
  std::int64_t em_updates = 0;       // of rows, so far
  bool let_go = false;               // singular information was only warned of
  bool came_by_em = false;           // the present evaluation is where an EM update led
  std::int64_t matrices = -1;        // known matrices in use; -1: not counted yet
  bool final_pass = false;
  bool interrupted = false;          // a finish code was acted on
  bool go_back = false;              // report from the last accepted parameters, not from the rejected ones
  CONVERGENCE convergence;
};

/// HIT_RESET: sets the state of the update back to where it is before the first iteration.
void HIT_RESET(ERROR_HANDLER& eh, const FIT_OPTIONS& options, FIT_WORK& work, ITERATION& it);

/// open_fit: the settings and messages before the first iteration; an error where the options leave nothing to do.
void open_fit(ERROR_HANDLER& eh, const FIT_CALL& call, FIT_WORK& work, ITERATION& it, FIT_STATE& fit);

/// Whether something is wanted that only a final pass forms.
bool final_pass_due(const FIT_WORK& work);

/// report_fit: fills tables and scalars from the last completed evaluation, whatever eh already holds; where that is nothing to
/// report from, or an earlier one was better, the parameters are evaluated once more.
void report_fit(ERROR_HANDLER& eh, FIT_CALL& call, const FIT_MODEL& in, FIT_WORK& work, const ITERATION& it, EVALUATION& ev,
                FIT_STATE& fit);

}  // namespace tolvan
