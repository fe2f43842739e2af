// Outlier statistics: how far single records and single random effects lie from what all the others say of them.
// Routines: K4MGIUA, K4MRIE.
//
// The alternative outlier model (Cook, Holschuh & Weisberg 1982; Thompson 1985): an effect of its own for one record, or one more
// random effect beside one of the model's, has the score R^-1 e = P y, or G^-1 u = Z'P y, at zero, with the variances
//     diag(P) = diag(R^-1 - R^-1 W C^-1 W'R^-1)        diag(Z'PZ) = diag(G^-1 - G^-1 C^-1 G^-1).
// The statistic is score over root of variance; its square is twice what LogL rises by per unit of variance given to it.
#pragma once

#include <cstdint>

#include "api/error_handler.h"
#include "estimation/evaluation.h"
#include "estimation/fit_state.h"

namespace tolvan {

/// K4MGIUA: z'C^-1 z for the records and effects whose row z of R^-1 W or of G^-1 is more than a diagonal element: each takes a
/// forward sweep through the factor, which must not hold C-inverse yet, along the paths of its elements to the root.  The
/// columns go in blocks of 8 to 64; a thread takes at most 64 MB for its block, or 8 columns of n.  Where memory is short it says
/// so and leaves ev.outliers.formed false.
void K4MGIUA(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, MIXED_EQUATIONS& equations, int threads, EVALUATION& ev);

/// K4MRIE: the statistics of all records and random effects, from what K4MGIUA left, the leverages in fit.hat and the diagonal of
/// C-inverse.
void K4MRIE(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, MIXED_EQUATIONS& equations, const EVALUATION& ev,
            FIT_STATE& fit);

}  // namespace tolvan
