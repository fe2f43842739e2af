// What the text of a field is worth: a number of the working row.  Routine: L_TAKE_FIELD.
#pragma once

#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "api/error_handler.h"
#include "data/date_text.h"
#include "data/level_coding.h"
#include "data/read_errors.h"
#include "data/variable_table.h"

namespace tolvan {

/// What the fields of one file need, and what was told of them.
struct FIELD_VALUES {
  VARIABLE_TABLE& variables;
  LEVEL_CODING& coding;
  bool decimal_comma = false;
  std::vector<DateForm> date_forms{};  // by variable, empty where none is a date
  bool blanks_told = false;
  std::unordered_set<std::string> cut_labels{};  // told of
  std::string number{};                          // holds a number whose spelling is changed
};

/// The texts of a missing value; an empty field is missing, too.
bool is_missing_text(std::string_view field);

/// The number that a text spells: point or comma, exponent letters e and d.  None, or why it is no number.
///   decimals   that are implied where the text has no point, as in the edits F, E and G
READ_FAULT::Kind read_number(FIELD_VALUES& values, std::string_view field, int decimals, double& x);

/// L_TAKE_FIELD: the number of the working row for one field, without blanks around, and one variable, from
/// 0. None, or why there is none.
READ_FAULT::Kind L_TAKE_FIELD(ERROR_HANDLER& eh, FIELD_VALUES& values, std::size_t v, std::string_view field,
                              int decimals, double& x);

}  // namespace tolvan
