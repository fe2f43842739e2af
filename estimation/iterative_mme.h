// One evaluation that solves the equations by iteration instead of factorising them.  Routine: ITERATIVE_MME.
#pragma once

#include <cstdint>

#include "api/error_handler.h"
#include "estimation/evaluation.h"

namespace tolvan {

/// Modes of the option blup above this one solve by iteration; the value is the selector of K4MSLV.
inline constexpr std::int64_t last_mode_by_factor = 3;

/// How the equations are to be solved in a mode.
Solving solving_of_mode(std::int64_t mode);

/// ITERATIVE_MME: solutions, residuals and residual variance at the present parameters; neither log|C| nor C-inverse is known.
///
/// The singular equations are those of the fixed effects alone, so the solutions are those of the factorised equations as long
/// as these leave out the same ones.  An iteration that fails leaves fault 1 and the words in eh; one that the user ended sets
/// ev.absorbed.cancelled.
void ITERATIVE_MME(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, std::int64_t mode, FIT_WORK& work,
                   EVALUATION& ev);

}  // namespace tolvan
