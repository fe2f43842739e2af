// Reading the primary data from a text file.  Routine: L_READ_TEXT_FILE.
#pragma once

#include "data/record_intake.h"

namespace tolvan {

/// L_READ_TEXT_FILE: reads comma-separated text, free-format text or text in fixed columns into rows of the
/// store.
void L_READ_TEXT_FILE(ERROR_HANDLER& eh, RECORD_INTAKE& intake);

}  // namespace tolvan
