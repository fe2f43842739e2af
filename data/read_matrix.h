// Reading the primary data from a matrix.  Routine: L_READ_MATRIX.
#pragma once

#include "data/level_coding.h"
#include "data/read_data.h"

namespace tolvan {

/// L_READ_MATRIX: turns the observations of a matrix into rows of the data store.
void L_READ_MATRIX(ERROR_HANDLER& eh, const DATASET_VIEW& matrix, VARIABLE_TABLE& variables,
                   LEVEL_CODING& coding, DATA_STORE& store);

}  // namespace tolvan
