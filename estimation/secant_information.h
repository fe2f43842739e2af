// What the scores of successive evaluations tell of the curvature of LogL, beside the average information.  Plain routines without frame.
#pragma once

#include <cstdint>
#include <vector>

#include "varstruct/parameter_table.h"

namespace tolvan {

struct INFORMATION;

/// A step between two evaluations, and by how much the score falls along it more than the mean of their informations says; one an
/// active parameter, 0 for the profiled residual variance.
struct SECANT {
  std::vector<double> step, excess;
};

/// The last evaluation, and the latest secants, oldest first; all belong to the same active parameters.
struct SECANTS {
  std::vector<std::int64_t> active;
  std::vector<double> value, score, ai;
  std::vector<SECANT> latest;
};

/// Takes in a new evaluation; gain is its LogL less that of the one before.  Secants over a large change say nothing about the place
/// where the fit is now: they are forgotten.
void add_secant(const VARIANCE_MODEL& model, const INFORMATION& information, double gain, SECANTS& secants);

/// Corrects information in units so that it agrees with the secants (Broyden 1970; Fletcher 1970; Goldfarb 1970; Shanno 1970), each damped
/// so that the information stays positive definite (Powell 1978).
void correct_by_secants(const SECANTS& secants, INFORMATION& information);

}  // namespace tolvan
