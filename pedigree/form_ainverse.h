// The inverse of the relationship matrix of a pedigree, formed row by row.  Routines: K4MAIG, K4MLLIN,
// CALC_AINVERSE.
#pragma once

#include <cstdint>
#include <vector>

#include "api/error_handler.h"
#include "base/sparse_matrix.h"
#include "pedigree/check_pedigree.h"
#include "pedigree/inbreeding.h"

namespace tolvan {

/// The inverse with its companions.  Genetic groups are the first rows.
struct AINVERSE {
  SPARSE_MTX_LLIST matrix;         // compressed by rows
  std::vector<double> inbreeding;  // of each row, 0 for a group
  std::vector<double> variance;    // within the family, D of each row
  double logdet = 0.0;             // the sum of -ln D: log|A^-1|
  std::int64_t fixed_groups = 0;   // genetic groups without a variance of their own
};

/// K4MLLIN: adds what one individual contributes to the inverse: l l' / D, l holding 1 for itself and minus
/// its path coefficients for its parents (Henderson 1976, Biometrics 32, 69-83; with groups Quaas 1988, J.
/// Dairy Sci. 71, 1338-1345).
///   i, s, d   rows, from 1; 0 an unknown parent.  A parent that stands behind its offspring is taken as
///   unknown, with a warning. w         1 / D matrix    its pattern has the elements
void K4MLLIN(ERROR_HANDLER& eh, std::int64_t i, std::int64_t s, std::int64_t d, double c1, double c2,
             double w, SPARSE_MTX_LLIST& matrix);

/// K4MAIG: forms the inverse with the inbreeding coefficients and the log determinant.
///
/// The parents must stand ahead of their progeny.  Gives the last row that is in order, from 1: fewer
/// than there are after a fault of the next one.
std::int64_t K4MAIG(ERROR_HANDLER& eh, const PEDIGREE& pedigree, const BREEDING_RULES& rules, AINVERSE& out);

/// What is asked of a pedigree that comes from outside.
struct AINVERSE_CALL {
  double selfing = 0.0;     // rate of selfing where the second parent is missing
  double inbreeding = 0.0;  // of parents: below 1 that of the base, 1 inbred lines
  bool selfing_set = false, inbreeding_set = false;
  double group_offset = 0.0;  // diagonal of the genetic groups
  PEDIGREE_FLAGS flags;
};

/// CALC_AINVERSE: checks and sorts a pedigree and forms its inverse.
void CALC_AINVERSE(ERROR_HANDLER& eh, const PEDIGREE_COLUMNS& columns, const AINVERSE_CALL& call,
                   PEDIGREE& pedigree, AINVERSE& out);

}  // namespace tolvan
