// The parameters of accepted iterations: the last and the best ones, and a short history that shows oscillation.
// Routine: KEEPGM_SAVE_AND_ADJUST.
#pragma once

#include <cstdint>

#include "api/error_handler.h"
#include "estimation/evaluation.h"

namespace tolvan {

/// KEEPGM_SAVE_AND_ADJUST: stores an accepted evaluation.  With `watch` (the option oscillate) parameters that have been going up
/// and down by more than a twentieth of themselves, without a gain of LogL, are reset to the mean of their last two values and the
/// step size is cut to 0.4 of itself.
///   iteration  its number; model holds the next values on entry and, where reset, on return
void KEEPGM_SAVE_AND_ADJUST(ERROR_HANDLER& eh, std::int64_t iteration, bool watch, const EVALUATION& ev, VARIANCE_MODEL& model,
                            FIT_WORK& work);

}  // namespace tolvan
