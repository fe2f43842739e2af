// The working variables of a fit by records, and as a file.  Routine: AIDWVR.
#pragma once

#include <string>
#include <vector>

#include "api/error_handler.h"
#include "estimation/evaluation.h"

namespace tolvan {

/// w_i = Vdot_i P y of every active parameter of an evaluation, with what follows it: the design's records by parameters.
///   ev  as the evaluation left it; put back in the end
std::vector<double> working_by_records(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& equations,
                                       EVALUATION& ev);

/// AIDWVR: writes them as text: record, number of the variance parameter, value; a file that can not be written is an error.
void AIDWVR(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& equations, EVALUATION& ev,
            const std::string& name);

}  // namespace tolvan
