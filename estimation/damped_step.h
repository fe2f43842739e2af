// The joint Newton step, damped where it would go further than the information can be trusted.  Plain routine without frame.
#pragma once

#include <cstdint>
#include <vector>

#include "estimation/update_parameters.h"

namespace tolvan {

/// The step of the open parameters, in units, with the diagonal of the information raised, in place, as far as is needed.
///
/// Far from the optimum, where factors can be rotated or correlations make up for each other, the information asks for steps of any
/// size: its diagonal is raised until loadings and correlations stay in reach (Levenberg 1944; Marquardt 1963).  Unlike cutting
/// single steps this leaves the step as a whole uphill.
///   shortening   times that the step is halved, and its diagonal raised besides, since steps lowered the LogL
///   placed       parameters whose steps are looked after elsewhere
void damped_step(const VARIANCE_MODEL& model, int shortening, const std::vector<std::uint8_t>& open,
                 const std::vector<std::uint8_t>& placed, INFORMATION& information, std::vector<double>& delta);

}  // namespace tolvan
