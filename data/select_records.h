// Keeping and dropping records by a value.  Routine: L_PREPARE_SELECTION.
#pragma once

#include <cstddef>
#include <string_view>

#include "api/error_handler.h"
#include "data/data_file_keys.h"
#include "data/field_values.h"

namespace tolvan {

/// The selection of a file.  By a variable: its number in the data, after the transformations; by a field:
/// what stands there in the file.
struct SELECTION {
  SELECT_VALUE select, exclude;
  std::size_t variable = no_variable;  // from 0
  std::size_t field = no_variable;     // from 0
  std::int64_t select_level = 0;       // of the variable, 0: not met yet
  std::int64_t exclude_level = 0;
};

/// L_PREPARE_SELECTION: finds the variable of the keys.
void L_PREPARE_SELECTION(ERROR_HANDLER& eh, const DATA_FILE_KEYS& keys, const VARIABLE_TABLE& variables,
                         SELECTION& selection);

/// Whether a record stays by the text of the field of the selection.
bool selected(const SELECTION& selection, FIELD_VALUES& values, std::string_view field);
/// The same by a number; a missing value equals nothing.
bool selected(const SELECTION& selection, double x);
/// Whether a record stays by the working row.
bool selected(SELECTION& selection, const VARIABLE_TABLE& variables, const LEVEL_CODING& coding, double x);

}  // namespace tolvan
