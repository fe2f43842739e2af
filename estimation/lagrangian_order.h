// Whether equations without a variance of their own are eliminated after those that they bind.  A plain routine without frame.
#pragma once

#include "estimation/equations.h"
#include "varstruct/form_structures.h"

namespace tolvan {

/// Whether every Lagrangian equation stands behind the one that it binds in the order of elimination: its pivot is zero before that
/// one is eliminated, and would count as singular.
bool lagrangian_equations_in_order(const TERM_TABLE& terms, const VARIANCE_MODEL& model, const FORMED& formed,
                                   const MIXED_EQUATIONS& equations);

}  // namespace tolvan
