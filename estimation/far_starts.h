// Places so far from the optimum that steps do not lead back: ranges in which the likelihood is flat are sought anew among the
// points, loadings that give far more variance than the data have are made smaller.
#pragma once

#include <cstdint>

#include "estimation/evaluation.h"

namespace tolvan {

/// Tries other values of the ranges about which the points tell nothing, at `start` or at the present parameters, and goes to the
/// best: the first range first, a few evaluations of the likelihood each.
///   start   the parameters of the last evaluation
///   failed  the evaluation at the present parameters did not form the structures
///   true    the parameters have been moved, with a note
bool search_ranges(ERROR_HANDLER& eh, const FIT_MODEL& in, std::int64_t iteration, const std::vector<double>& start, bool failed,
                   VARIANCE_MODEL& model, FIT_WORK& work, EVALUATION& ev);

/// Makes the loadings of levels that get far more variance than the responses have as small as those, all of a level together, where
/// LogL is better so.  Called behind the first evaluation.
///   start  the parameters that it was made at, to which all others go back
///   true   the parameters have been moved, with a note
bool shrink_loadings(ERROR_HANDLER& eh, const FIT_MODEL& in, std::int64_t iteration, const std::vector<double>& start, VARIANCE_MODEL& model,
                     FIT_WORK& work, EVALUATION& ev);

}  // namespace tolvan
