// Looks at the variances of residual sections around an evaluation.
#pragma once

#include "api/error_handler.h"
#include "api/fit_options.h"
#include "estimation/evaluation.h"

namespace tolvan {

/// Raises variances of residual sections that are far below the others, where there are more than two (the option s2limit):
/// the floor is their mean over 10 times their number.
void raise_small_sections(ERROR_HANDLER& eh, const FIT_OPTIONS& options, VARIANCE_MODEL& model);

/// Tells, on the first iteration of a fit with more than two residual variances, that the starting values are far off.
void judge_starting_variances(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, const EVALUATION& ev);

}  // namespace tolvan
