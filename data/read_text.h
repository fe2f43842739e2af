// Reading the primary data from a text file.  Routine: L_READ_TEXT_FILE.
#pragma once

#include "data/level_coding.h"
#include "data/read_data.h"

namespace tolvan {

/// L_READ_TEXT_FILE: reads a comma-separated file into rows of the data store.
///   data_file   the request's description: name, type, skip, ...
void L_READ_TEXT_FILE(ERROR_HANDLER& eh, const JsonNode& data_file, VARIABLE_TABLE& variables,
                      LEVEL_CODING& coding, DATA_STORE& store);

}  // namespace tolvan
