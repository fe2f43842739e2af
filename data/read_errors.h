// What a reader knows about a field that it could not use.  Routine: REPORT_DATA_READING_ERRORS_AND_WARNINGS.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "api/error_handler.h"
#include "data/field_map.h"
#include "data/text_lines.h"
#include "data/variable_table.h"

namespace tolvan {

struct READ_FAULT {
  enum class Kind {
    none,
    no_number,
    not_finite,
    no_level,
    level_too_large,
    no_label,
    no_identity,
    no_date,
    no_time,
    too_few_fields,
    open_quote
  };
  Kind kind = Kind::none;
  std::int64_t field = 0;     // its number in the record, from 1
  std::size_t variable = 0;   // the variable read from it, from 0; no_variable: the filter
  std::string content;        // of the field
  std::size_t character = 0;  // of the line, from 1, for an open quote
};

/// REPORT_DATA_READING_ERRORS_AND_WARNINGS: says where and why reading stopped, with the values and the line
/// around it.
///   row   the working row, good for the fields before that of the fault
void REPORT_DATA_READING_ERRORS_AND_WARNINGS(ERROR_HANDLER& eh, const READ_FAULT& fault,
                                             const VARIABLE_TABLE& variables, const FIELD_MAP& fields,
                                             std::span<const double> row, DATA_LINES& lines);

/// What is wrong with the field, as a line of a message.
std::string fault_words(const READ_FAULT& fault, const VARIABLE_TABLE& variables);

/// A piece of a line fit for a message: cut short, control characters replaced.
std::string excerpt(std::string_view line);

}  // namespace tolvan
