// Where the primary data come from, and reading them into the data store.
// Routines: GET_PRIMARY_DATA_DESCRIPTION, READ_DATA_FILE, AIDSUM, AIDDIS.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "api/error_handler.h"
#include "data/data_store.h"
#include "data/dataset.h"
#include "data/variable_table.h"

namespace tolvan {

/// The primary data set: a file, or a matrix that was handed in.
struct PRIMARY_DATA {
  const JsonNode* data_file = nullptr;  // null for a matrix
  JsonNode* variables = nullptr;        // the list of variable descriptions
  DATASET_VIEW matrix;                  // data null for a file
};

/// GET_PRIMARY_DATA_DESCRIPTION: finds the file, or the first dataset that holds the response.
void GET_PRIMARY_DATA_DESCRIPTION(ERROR_HANDLER& eh, JsonNode& request, const USER_DATASET_STORE& store,
                                  PRIMARY_DATA& primary);

/// READ_DATA_FILE: reads the primary data, file or matrix, into rows of doubles with factors as level
/// numbers.
///   variables   level counts and labels are completed
///   store       one row a record, one column a variable, in variable order; it keeps the rules that it comes with
///               but for what the data file says
void READ_DATA_FILE(ERROR_HANDLER& eh, const PRIMARY_DATA& primary, VARIABLE_TABLE& variables,
                    DATA_STORE& store);

/// What the counting passes found of one variable.
struct VARIABLE_SUMMARY {
  std::int64_t records = 0, missing = 0, zeros = 0;
  double mean = 0.0, minimum = 0.0, maximum = 0.0;  // of a variate's present values
  std::vector<std::int64_t> level_counts;           // of a factor
};
using DATA_SUMMARY = std::vector<VARIABLE_SUMMARY>;

/// AIDSUM: counts records, missing values, zeros and levels of every variable; plots that were filled in don't count.
void AIDSUM(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const DATA_STORE& store,
            DATA_SUMMARY& summary);
/// AIDDIS: the data summary as text: a line a variable, and the level counts of factors of at most so many levels.
std::string AIDDIS(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const DATA_SUMMARY& summary,
                   std::size_t most_levels = std::numeric_limits<std::size_t>::max());
/// WRITE_DATA_SUMMARY: writes the text of AIDDIS to a file.
void WRITE_DATA_SUMMARY(ERROR_HANDLER& eh, const std::string& path, const VARIABLE_TABLE& variables,
                        const DATA_SUMMARY& summary);
/// ADJUST_DATA_SUMMARY: complains of a response without variation.
void ADJUST_DATA_SUMMARY(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const DATA_SUMMARY& summary,
                         std::int64_t response);

}  // namespace tolvan
