// Where the levels of models with distances lie.  Routines: SETUP_POWER_STRUCTURES, LEVEL_COORDINATES.
#pragma once

#include <cstdint>

#include "api/error_handler.h"
#include "data/data_store.h"
#include "data/variable_table.h"
#include "model/factor_table.h"
#include "model/term_table.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// The row of the variable whose values tell the levels of a factor row, through copies and fac() or dev(); 0
/// when none does.
std::int64_t data_row(const FACTOR_TABLE& factors, std::int64_t row);

/// LEVEL_COORDINATES: turns levels of factors into the coordinates they stand for: those of `dist`, or the
/// numbers in their labels, or the level numbers where a label is no number.
///   row          factor row of the component
///   coordinates  in: a level of a factor, or the value of a variate, for each level of the component
void LEVEL_COORDINATES(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
                       std::int64_t row, COORDINATES& coordinates);

/// SETUP_POWER_STRUCTURES: gives every random row with distances its coordinates; residual rows have theirs.
void SETUP_POWER_STRUCTURES(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
                            const TERM_TABLE& terms, const DATA_STORE& store, VARIANCE_MODEL& model);

}  // namespace tolvan
