// Reading the primary data from a binary file.  Routine: L_READ_BINARY_FILE.
#pragma once

#include "data/record_intake.h"

namespace tolvan {

/// L_READ_BINARY_FILE: reads singles or doubles, with or without marks around each record, into rows of the
/// store. Without marks a record has as many numbers as the last field that is used.  A NaN is a missing
/// value.
void L_READ_BINARY_FILE(ERROR_HANDLER& eh, RECORD_INTAKE& intake);

}  // namespace tolvan
