// Covariates that stand in a file, a row for each level of a factor or value of a variate.  Routine: READ_FILE_COVARIATES.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "api/error_handler.h"
#include "data/dataset.h"
#include "data/variable_table.h"
#include "model/factor_table.h"

namespace tolvan {

/// Covariates that were read ahead, from a file of another kind: a row a key.
struct COVARIATE_TABLE {
  std::string file;  // as the definition names it
  std::vector<std::string> keys;
  std::vector<std::string> names;  // of the columns
  std::int64_t columns = 0;
  std::vector<double> values;      // by rows
};
using COVARIATE_TABLES = std::vector<COVARIATE_TABLE>;
/// The table of a file, null if it was not read ahead.
const COVARIATE_TABLE* find_table(const COVARIATE_TABLES& tables, const std::string& file);

/// READ_FILE_COVARIATES: reads the table of an "mbf" definition.
///   tables  that were read ahead
///   row     the factor row of its name; its source is the variable that holds the keys
///   basis   gets columns, table, names, and row_of_level (keys of a factor) or distinct (keys of a variate)
void READ_FILE_COVARIATES(ERROR_HANDLER& eh, const JsonNode& request, const USER_DATASET_STORE& datasets,
                          const COVARIATE_TABLES& tables, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors, std::int64_t row,
                          DESIGN_BASIS& basis);

}  // namespace tolvan
