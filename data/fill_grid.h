// Completing spatial layouts with records for the plots that are not in the data.  Routine: FILLGRID.
#pragma once

#include <cstdint>

#include "api/error_handler.h"
#include "data/data_store.h"
#include "data/variable_table.h"

namespace tolvan {

/// The variables that give a record its plot: rows of the variable table, from 1.
struct GRID_FACTORS {
  std::int64_t section = 0;  // 0: one grid
  std::int64_t row = 0;
  std::int64_t column = 0;
};

/// FILLGRID: adds a record for each plot of a section's grid that has none, all its other variables missing.
/// The grid of a section goes from its first to its last row and column, in the order of their numbers where
/// all labels are numbers and in the order of levels elsewhere; that of a single section has all declared levels.
/// New records stand behind the others, by section, row and column, and are the store's filled ones.  After a
/// complaint (a plot that is missing or met twice, a grid out of all proportion to the data, plots to be added that
/// nothing estimates) the store is as it was.
///   has_mv   the model estimates missing responses
void FILLGRID(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const GRID_FACTORS& factors, bool has_mv,
              DATA_STORE& store);

}  // namespace tolvan
