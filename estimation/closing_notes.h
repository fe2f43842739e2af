// What is told at the end of a fit: the status completed, notes, information criteria, the words of a failure.
#pragma once

#include <cstdint>

#include "api/error_handler.h"
#include "estimation/evaluation.h"
#include "estimation/fit_state.h"

namespace tolvan {

/// Completes the status text by what the end of the iteration shows.
///   one_pass  the fit was limited to one iteration
void judge_status(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, const FIT_WORK& work, const EVALUATION& ev, bool one_pass,
                  FIT_STATE& fit);

/// The notes on singularities and mended matrices, and the information criteria.
void note_criteria(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, const FIT_WORK& work, const FIT_STATE& fit);

/// The terminating words of a fit that failed; behind those that have ended it, where there are such.
///   singular  parameters without information, for a fit that ended so
void tell_failure(ERROR_HANDLER& eh, const FIT_STATE& fit, const UPDATE_STATE& update, std::int64_t singular);

/// Continues a message with the parameters without information and what they cannot be told from.
void name_singular(ERROR_HANDLER& eh, const UPDATE_STATE& update);

}  // namespace tolvan
