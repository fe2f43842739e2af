// A pedigree's inverse cut down to the individuals with data.  Routines: REDUCEAI, REDUCE_PEDIGREES.
#pragma once

#include <vector>

#include "api/error_handler.h"
#include "data/data_store.h"
#include "data/variable_table.h"
#include "model/factor_table.h"
#include "relmat/structure_matrices.h"

namespace tolvan {

/// REDUCEAI: replaces a sparse inverse by that of the rows to keep.
///
/// With r the rows that go it is the Schur complement A^dd - A^dr (A^rr)^-1 A^rd = (A_dd)^-1, and
/// log|A_dd| = log|A| + log|A^rr|: the rows go one by one, always one with the fewest relatives left, as in a
/// factorisation (Duff, Erisman & Reid 1986, Direct Methods for Sparse Matrices).  Labels and inbreeding are
/// cut down with it.
///   keep   of each row
void REDUCEAI(ERROR_HANDLER& eh, const std::vector<bool>& keep, AINV_MTX& matrix);

/// REDUCE_PEDIGREES: cuts the pedigrees that ask for it down to the individuals that the data name, behind
/// their genetic groups, and renumbers the levels of the variables that the model ties to them; gives whether
/// any was cut down.
bool REDUCE_PEDIGREES(ERROR_HANDLER& eh, AINV_MTXS& store, const FACTOR_TABLE& factors,
                      VARIABLE_TABLE& variables, DATA_STORE& data);

}  // namespace tolvan
