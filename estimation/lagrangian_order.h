// Equations without a variance of their own and those that they bind, which are to be eliminated first.  Plain routines without frame.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "estimation/equations.h"
#include "varstruct/form_structures.h"

namespace tolvan {

/// The Lagrangian equations of all structures, each with the one that it binds, numbered in model order.
std::vector<std::pair<std::int64_t, std::int64_t>> bound_equations(const TERM_TABLE& terms, const VARIANCE_MODEL& model, const FORMED& formed);

/// Whether every Lagrangian equation stands behind the one that it binds in the order of elimination: its pivot is zero before that
/// one is eliminated, and would count as singular.
bool lagrangian_equations_in_order(const TERM_TABLE& terms, const VARIANCE_MODEL& model, const FORMED& formed,
                                   const MIXED_EQUATIONS& equations);

}  // namespace tolvan
