// Inbreeding coefficients and Mendelian sampling variances of a pedigree, for every breeding system.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "api/error_handler.h"
#include "pedigree/check_pedigree.h"

namespace tolvan {

/// What is out of the ordinary in how parents pass on to their progeny.
struct BREEDING_RULES {
  bool grandsire = false;  // the second parent is the maternal grandsire
  double grandsire_path =
      0.0;  // path coefficient of the second parent where it is given (queens of drones); 0: not given
  double selfing = 0.0;          // rate of selfing where the second parent is not known
  double base_inbreeding = 0.0;  // of individuals without parents, below 1
  bool inbred_lines = false;     // every individual is a fully inbred line
  double group_base = 0.0;       // diagonal of a genetic group; 0: none; negative: empty groups are only told
  bool full_sib_shortcut = true;  // full sibs in consecutive rows share their inbreeding
  bool by_sires = true;           // the indirect method where it applies; false: always the walk
};

/// Both by row, from 0.  Rows of genetic groups hold 0 and are not used.
struct INBREEDING {
  std::vector<double> F;  // inbreeding coefficient
  std::vector<double> D;  // variance within the family, in units of the additive variance
};

/// The path coefficients from the two parents of a row (from 1) to itself.
std::pair<double, double> parent_paths(const PEDIGREE& pedigree, const BREEDING_RULES& rules,
                                       std::int64_t row);

/// Whether all paths are one half and inbreeding is that of the parents' relationship, but for individuals
/// without parents.
bool is_plain(const PEDIGREE& pedigree, const BREEDING_RULES& rules);

/// L_INBREEDING_BY_WALK: F and D row after row, by a walk over the ancestors of each individual.
///
/// F_i = a(i,i) - 1 with a(i,i) = sum_j L_ij^2 D_j over the ancestors j, youngest first (Meuwissen & Luo
/// 1992, Genet. Sel. Evol. 24, 305-313).  Gives true, or false with the row (from 1) that has a fault or, for
/// a lack of memory, 0.
bool L_INBREEDING_BY_WALK(ERROR_HANDLER& eh, const PEDIGREE& pedigree, const BREEDING_RULES& rules,
                          INBREEDING& out, std::int64_t& fault);

/// L_INBREEDING_BY_SIRES: the same for a plain pedigree, from the relationships of each sire with its mates.
///
/// A column of A = T D T' is made from v = T' e_s over the ancestors of the sire and then T (D v) over those
/// of its mates alone (Colleau 2002, Genet. Sel. Evol. 34, 409-421; Sargolzaei, Iwaisaki & Colleau 2005, J.
/// Anim. Breed. Genet. 122, 325-331). The parents must stand ahead of their progeny.
void L_INBREEDING_BY_SIRES(ERROR_HANDLER& eh, const PEDIGREE& pedigree, const BREEDING_RULES& rules,
                           INBREEDING& out);

/// D is at least the first and F at most the second; both keep the inverse stable.
inline constexpr double least_variance = 0.000005;
inline constexpr double highest_inbreeding = 0.99999;

}  // namespace tolvan
