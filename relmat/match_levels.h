// Factors and the known matrices between their levels.  Routines: TAKE_PEDIGREE_LEVELS,
// NAME_PEDIGREE_FACTORS, NAME_MARKER_FACTORS, MATCH_MATRIX_LEVELS, L_TAKE_LEVELS.
#pragma once

#include "api/error_handler.h"
#include "data/variable_table.h"
#include "model/factor_table.h"
#include "relmat/structure_matrices.h"

namespace tolvan {

/// The matrix of a factor row, null for none: by its name, or the first pedigree's.
const AINV_MTX* matrix_of(const AINV_MTXS& store, const FACTOR_ROW& factor);

/// L_TAKE_LEVELS: makes identities the levels of a variable.
void L_TAKE_LEVELS(ERROR_HANDLER& eh, const std::vector<std::string>& labels, VARIABLE& variable);

/// TAKE_PEDIGREE_LEVELS: gives the identities of a pedigree as levels to the variables that are marked as
/// pedigree factors.
void TAKE_PEDIGREE_LEVELS(ERROR_HANDLER& eh, const std::vector<std::string>& labels,
                          VARIABLE_TABLE& variables);

/// NAME_PEDIGREE_FACTORS: gives them also to variables that a term connects with a pedigree by its name,
/// ahead of the data.
void NAME_PEDIGREE_FACTORS(ERROR_HANDLER& eh, const AINV_MTXS& store, const FACTOR_TABLE& factors,
                           VARIABLE_TABLE& variables);

/// NAME_MARKER_FACTORS: has the factors that a term connects with a matrix of markers follow the labels of its
/// genotypes.  Factors of plain numbers 1 to n stay: these are rows of the matrix.
void NAME_MARKER_FACTORS(ERROR_HANDLER& eh, const AINV_MTXS& store, const FACTOR_TABLE& factors,
                         VARIABLE_TABLE& variables);

/// MATCH_MATRIX_LEVELS: gives every factor that names a known matrix as many levels as the matrix has rows,
/// with those that a singular one adds.
///
/// The level numbers of the data are the rows; where a matrix has labels the factor's must be the same, in
/// the same order.  A matrix with more rows than there are levels is a warning, with fewer an error.  A
/// matrix that is missing is left to be told where the structure is set up.
void MATCH_MATRIX_LEVELS(ERROR_HANDLER& eh, const AINV_MTXS& store, const VARIABLE_TABLE& variables,
                         FACTOR_TABLE& factors);

}  // namespace tolvan
