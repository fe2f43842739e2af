// Parameters that a user's model makes of others, kept in their space.  Plain routines without frame.
#pragma once

#include "api/error_handler.h"
#include "estimation/update_parameters.h"

namespace tolvan {

/// Whether every parameter that follows others measures the same kind of thing as they do: a size (variances, covariances), a
/// loading, a correlation, and so on.
bool links_are_alike(const VARIANCE_MODEL& model);

/// Shortens the step of the parameters that a follower is made of where it would take the follower out of its space: a variance to
/// less than about a tenth, a correlation more than nineteen twentieths of the way to one.  A follower that three steps in a row
/// press against its bound near the optimum stays there, and what it is made of is fixed with it; the user is told once.
///   evaluated   the values that the step began from; the model holds where it leads
///   gain        of LogL in the last step
/// Call it before the followers take their values.
void keep_followers_inside(ERROR_HANDLER& eh, const std::vector<double>& evaluated, double gain, VARIANCE_MODEL& model, AIOPT& aiopt,
                           UPDATE_STATE& state);

}  // namespace tolvan
