// The rules that keep a parameter in its space when a step is applied.  Plain routines without frame.
#pragma once

#include "varstruct/parameter_table.h"

namespace tolvan {

/// What one parameter's rules are told.
struct RESTRAINT_INPUT {
  double value;       // x, the present value
  double delta;       // the proposed step
  double reference;   // r, the value left by the previous pass through the rules
  double step;        // the step size of the fit
  ParamType type;
  ParamRole role;
  Constraint constraint;
  double share = 1.0; // of the usual way that a step may go towards a bound, less after steps that lowered LogL
};

/// What they decided.
struct RESTRAINT {
  double value;            // taken
  double reference;        // for the next pass
  bool reference_set = false;
  bool settled = false;    // a variance settled near zero: its code becomes B
  bool boundary = false;   // a parameter of type P noted at its boundary
  bool reset_step = false; // the step size goes back to its saved value
};

/// How much a step changes a loading, in its own size or a third of the root of where it leads, whichever is larger.
double loading_change(double value, double delta);

/// Whether a parameter is restrained in the first stage (types R, P, L, r) or by the sign rules of the second.
bool in_first_stage(ParamType type);

/// Types R, P, L and r; last is the value before the present one, lower the lower limit of type r.
RESTRAINT restrain_typed(const RESTRAINT_INPUT& in, double last, double lower);

/// The rules by the sign of the present value, for all other types.
RESTRAINT restrain_by_sign(const RESTRAINT_INPUT& in);

}  // namespace tolvan
