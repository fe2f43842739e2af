// The factor model whose factors are effects of their own: levels u, factors f, and a Lagrangian row for
// every level without a specific variance.  Routine: US2XFA.
//
// V = L L' + Psi over m levels is never formed for the equations.  With u = L f + e, var(f) = I and var(e) =
// Psi the inverse of the extended matrix is sparse (Thompson et al. 2003):
//     [ Psi^-1       -Psi^-1 L       ]   levels
//     [ -L'Psi^-1    I + L'Psi^-1 L  ]   factors
// A level with psi = 0 has u = l'f exactly.  It takes the row of a Lagrangian multiplier m instead, with
//     [ g    -g l'          1   ]   u
//     [ -g l   I + g l l'  -l   ]   factors
//     [ 1    -l'            0   ]   m
// for any g: on the constraint the terms in g vanish, so that solutions and log|C| don't depend on it, while
// u has a pivot even where it has no data.  The pivots of the m rows are negative and m = (Z'Py) of its
// level.
//
// Order within the component: m levels, k factors, the Lagrangian rows.  Parameters: m specific variances,
// then the loadings, factor after factor.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "api/error_handler.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// How the rows of an extended component divide.
struct EXTENDED_LAYOUT {
  std::int64_t levels = 0;   // m
  std::int64_t factors = 0;  // k
  std::vector<std::int64_t>
      lagrangian_levels;  // levels (from 0) with a Lagrangian row, rising; row m + k + t belongs to [t], and
                          // its equation must be eliminated after that of the level
  std::int64_t lagrangian() const { return static_cast<std::int64_t>(lagrangian_levels.size()); }
  std::int64_t size() const { return levels + factors + lagrangian(); }
};

/// The layout of a row of model code 15 at the present values.  The size of the row tells how many Lagrangian
/// rows there are: those beyond levels and factors.  They go to the levels with a specific variance of
/// exactly 0; one that is left over stays without effect.  Taken once, at set-up, and kept: the component
/// does the same when it is first formed.
EXTENDED_LAYOUT extended_layout(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model);

/// US2XFA: rewrites an unstructured covariance matrix as its k leading factors with specific variances.
/// Loadings are from the eigenvalues of the correlations, less 1; the specific variances are what they leave
/// of the diagonal.
///   packed    n levels, lower triangle by rows, diagonal above 0
///   specific  n; loadings  n x k, factor after factor
/// False, with a message, if the diagonal is not positive or the eigenvalues are not found.
bool US2XFA(ERROR_HANDLER& eh, std::span<const double> packed, std::int64_t n, std::int64_t k,
            std::span<double> specific, std::span<double> loadings);

}  // namespace tolvan
