// Transformations at work on the records as they are read.  Routines: L_CALCULATE_LREAD, AIDTRN,
// CHECKTRN.
#pragma once

#include <cstdint>
#include <span>

#include "api/error_handler.h"
#include "data/level_coding.h"
#include "data/variable_table.h"

namespace tolvan {

/// L_CALCULATE_LREAD: finds the variables that are no columns of the source, since transformations make them;
/// their column becomes 0.  To be called before the columns of the source are mapped to variables.
///   columns   of the source; 0 where they are not known: it then has as few as will do
void L_CALCULATE_LREAD(ERROR_HANDLER& eh, std::int64_t columns, VARIABLE_TABLE& variables);

/// AIDTRN: runs the transformations on a record that was just read, before it is filtered and stored.  False
/// where a transformation drops the record, or after a failure (eh.terminate()).
///   record   its number in the source, from 1, for messages
///   row      the working row, a column a variable; variables of column 0 are set here
bool AIDTRN(ERROR_HANDLER& eh, VARIABLE_TABLE& variables, LEVEL_CODING& coding, std::int64_t record,
            std::span<double> row);

/// CHECKTRN: tells, once the data are read, which columns of the data transformations overwrote, how many
/// records they dropped and where they had no result.
void CHECKTRN(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables);

}  // namespace tolvan
