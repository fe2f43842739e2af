// Lagrangian rows of an inverse: rows without a diagonal that tie one row to others.
// Routines: L_FIND_LAGRANGIAN_ROWS, L_STRENGTHEN.
#pragma once

#include "api/error_handler.h"
#include "relmat/structure_matrices.h"

namespace tolvan {

/// L_FIND_LAGRANGIAN_ROWS: finds the Lagrangian rows of an inverse that was handed in: those at its end that
/// have elements but no diagonal.  Each binds the row of its largest element, of equals one without a
/// diagonal of its own.
void L_FIND_LAGRANGIAN_ROWS(ERROR_HANDLER& eh, AINV_MTX& matrix);

/// L_STRENGTHEN: adds rho c c' to a dense inverse for each Lagrangian row c, where a bound row has no
/// diagonal.
///
/// A bound row without data would have no pivot.  Since c'u = 0 for all effects u, this changes neither
/// solutions nor the likelihood; rho is the least of the diagonals.
void L_STRENGTHEN(ERROR_HANDLER& eh, AINV_MTX& matrix);

}  // namespace tolvan
