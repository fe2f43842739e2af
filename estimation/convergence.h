// The stop tests of the iteration and the damped retry.  Plain routines without frame.
#pragma once

#include <cstdint>

#include "estimation/evaluation.h"

namespace tolvan {

/// What the stop tests keep between iterations.
struct CONVERGENCE {
  double previous = 0.0;       // LogL of the last accepted evaluation, without base
  double previous_stable = 0;  // LogL plus the boundary count, of the simple test
  bool has_previous = false;
  int still = 0;               // accepted evaluations in a row that neither changed LogL nor moved a parameter
  bool simple = false;         // a parameter of type d exists: the simple test alone counts
  bool trivial = false;        // one parameter, one structure, one section: converged at once
};

/// Judges one accepted, unrepeated evaluation of iteration n; may reset the step size and halve the restrained count.
///   reset_step   what the step size goes back to (1, or less with the option slow)
bool has_converged(std::int64_t n, double logl, double reset_step, FIT_WORK& work, CONVERGENCE& state);

/// Whether a free parameter stands at its bound: a variance that two updates in a row pulled to nothing, or a correlation that they
/// held near one.
bool is_at_bound(const VARIANCE_MODEL& model, const UPDATE_STATE& update, const EVALUATION& ev, std::size_t parameter);

/// Whether the last step would change no parameter by more than the share `move` of it, those at their bounds left out.
bool parameters_settled(const VARIANCE_MODEL& model, const UPDATE_STATE& update, const EVALUATION& ev, double move);

/// Moves every parameter to 0.9 of its saved value plus 0.1 of the value that failed, and makes the step 0.1.
/// Gives the mean relative change, divided by the step size where that was below 1.
double damp_towards_saved(const std::vector<double>& failed, VARIANCE_MODEL& model, FIT_WORK& work);

}  // namespace tolvan
