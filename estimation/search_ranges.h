// Ranges that got where the likelihood is flat in them are sought anew among the points.
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

}  // namespace tolvan
