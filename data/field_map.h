// Which variables are read from which field of a record.  Routine: L_PREPARE_DATA_REORDER.
#pragma once

#include <cstddef>
#include <vector>

#include "api/error_handler.h"
#include "data/variable_table.h"

namespace tolvan {

inline constexpr std::size_t no_variable = static_cast<std::size_t>(-1);

/// The variables of each field as linked lists; fields and variables from 0.
struct FIELD_MAP {
  std::vector<std::size_t> first_variable;  // by field, no_variable where the field is not used
  std::vector<std::size_t> next_variable;   // by variable: another one that reads the same field

  std::size_t fields() const { return first_variable.size(); }  // up to the last one used
};

/// L_PREPARE_DATA_REORDER: builds the map from the columns of the variables.
void L_PREPARE_DATA_REORDER(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, FIELD_MAP& map);

}  // namespace tolvan
