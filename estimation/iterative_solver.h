// The mixed-model equations solved by iteration.  Routine: K4MSLV.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "api/error_handler.h"
#include "estimation/coefficients.h"

namespace tolvan {

/// The method that a selector asks for: 0 Gauss-Seidel, 4 preconditioned conjugate gradients, any other k Gauss-Seidel with the
/// relaxation factor 0.1 k.
inline constexpr std::int64_t gauss_seidel = 0;
inline constexpr std::int64_t conjugate_gradients = 4;
inline constexpr std::int64_t most_rounds = 1000;

/// The equations as the solver meets them.
struct EQUATION_STORE {
  std::span<const double> reciprocal;  // 1/C(i,i); 0 where the diagonal is 0 or the equation is left out: its solution stays 0
  const COEFFICIENTS* c = nullptr;     // C by rows: Gauss-Seidel needs it
  std::function<void(const double* x, double* y)> multiply;  // y = C x for conjugate gradients; empty: by the rows of C
};

enum class SolverEnd { converged, out_of_rounds, diverged, aborted };

/// How an iteration went.
struct SOLVER_REPORT {
  SolverEnd end = SolverEnd::converged;
  std::int64_t rounds = 0;
  double measure = 0.0;  // log10(sum of squared changes / sum of squared solutions) of the last round
};

/// K4MSLV: solves C x = b by iteration from x = 0.
///
/// A round ends the iteration with success once its measure is at or below -10; a measure above 1 behind the fourth round, and
/// a direction in which C is not positive, end it with an error.  The file ABORTTLV.NOW ends it as well: it is deleted and
/// becomes a message of eh.
///   solutions  overwritten; 0 for the equations left out
///   told       whether the opening message was given already
SOLVER_REPORT K4MSLV(ERROR_HANDLER& eh, const EQUATION_STORE& equations, const std::vector<double>& right_hand_side,
                     std::vector<double>& solutions, std::int64_t method, std::int64_t maximum_rounds, bool told = false);

}  // namespace tolvan
