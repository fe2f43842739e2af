// The absorption of an evaluation's equations, and what its pivots tell.  Routine: L_ABSORB.
#pragma once

#include <cstdint>

#include "api/error_handler.h"
#include "estimation/evaluation.h"

namespace tolvan {

/// t0 of the rule of singularity: 1e-8 (1e-9 by its flag) times ten to the first value of the option tolerance, to the second less 1
/// when there are two; five times as much above a million equations.
double singularity_tolerance(const FIT_OPTIONS& options, std::int64_t equations);

/// L_ABSORB: absorbs C and reports its singular pivots in the words of the rule.
///
/// Effects of a positive definite variance matrix are never singular.  Where that matrix is so close to a singular one that rounding
/// leaves nothing of a pivot, LogL cannot be told: leaving the equation out would set the effect to zero, and with it those that are
/// bound to it.
void L_ABSORB(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, int threads, FIT_WORK& work, EVALUATION& ev);

/// Whether V is positive definite on the data left by the fixed effects, by inertia: C and G^-1 then have equally many
/// negative pivots (Sylvester's law).  Only negative variances can make it otherwise.
bool is_positive_definite(const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& equations, EVALUATION& ev);

/// The fault of a layout or an absorption that has ended for want of memory; 0 where that was not it.
std::int64_t fault_of_memory(const ERROR_HANDLER& eh);

}  // namespace tolvan
