// Covariates that stand in a file, a row for each level of a factor or value of a variate.  Routine: READ_FILE_COVARIATES.
#pragma once

#include "api/error_handler.h"
#include "data/dataset.h"
#include "data/variable_table.h"
#include "model/factor_table.h"

namespace tolvan {

/// READ_FILE_COVARIATES: reads the table of an "mbf" definition.
///   row     the factor row of its name; its source is the variable that holds the keys
///   basis   gets columns, table, names, and row_of_level (keys of a factor) or distinct (keys of a variate)
void READ_FILE_COVARIATES(ERROR_HANDLER& eh, const JsonNode& request, const USER_DATASET_STORE& datasets,
                          const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors, std::int64_t row, DESIGN_BASIS& basis);

}  // namespace tolvan
