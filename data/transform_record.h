// Transformations at work on the records as they are read.  Routines: L_CALCULATE_LREAD, AIDTRN.
#pragma once

#include <cstdint>
#include <span>

#include "api/error_handler.h"
#include "data/level_coding.h"
#include "data/variable_table.h"

namespace tolvan {

/// L_CALCULATE_LREAD: finds the variables that are no columns of the source and that transformations make;
/// their column becomes 0.  To be called once the source is open, before its columns are mapped to variables.
///   columns   of the source: of the matrix, or the fields of the first record of a file
void L_CALCULATE_LREAD(ERROR_HANDLER& eh, std::int64_t columns, VARIABLE_TABLE& variables);

/// AIDTRN: runs the transformations on a record that was just read, before it is filtered and stored.  False
/// where a transformation drops the record, or after a failure (eh.terminate()).
///   record   its number in the source, from 1, for messages
///   row      the working row, a column a variable; variables of column 0 are set here
bool AIDTRN(ERROR_HANDLER& eh, VARIABLE_TABLE& variables, LEVEL_CODING& coding, std::int64_t record,
            std::span<double> row);

}  // namespace tolvan
