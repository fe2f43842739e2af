// Writing the data that were read to a file.  Routine: L_SAVE_DATA.
#pragma once

#include <string>

#include "api/error_handler.h"
#include "data/data_file_keys.h"
#include "data/data_store.h"
#include "data/variable_table.h"

namespace tolvan {

/// The name of the file that a request asks for, in the current folder.
std::string saved_file_name(const DATA_FILE_KEYS& keys);

/// L_SAVE_DATA: writes all rows of the store, one column a variable, to the file that the keys ask for.
/// Binary kinds hold level numbers and the missing value as they are; comma-separated text has a line of
/// names, labels where a factor has them, and NA.  A file that is there already stays as it is, with a
/// warning.
void L_SAVE_DATA(ERROR_HANDLER& eh, const DATA_FILE_KEYS& keys, const VARIABLE_TABLE& variables,
                 const DATA_STORE& store);

}  // namespace tolvan
