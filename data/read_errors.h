// What a reader knows about a field that it could not use.  Routine: REPORT_DATA_READING_ERRORS_AND_WARNINGS.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "api/error_handler.h"
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
    too_few_fields,
    open_quote
  };
  Kind kind = Kind::none;
  std::int64_t field = 0;     // its number in the line, from 1
  std::size_t variable = 0;   // the variable read from it, from 0
  std::string content;        // of the field
  std::size_t character = 0;  // of the line, from 1, for an open quote
};

/// REPORT_DATA_READING_ERRORS_AND_WARNINGS: says where and why reading stopped, with the values and the line
/// around it.
///   values   of the record so far, in the order in which they were read
void REPORT_DATA_READING_ERRORS_AND_WARNINGS(ERROR_HANDLER& eh, const READ_FAULT& fault, std::int64_t record,
                                             const VARIABLE_TABLE& variables, std::span<const double> values,
                                             DATA_LINES& lines);

/// A piece of a line fit for a message: cut short, control characters replaced.
std::string excerpt(std::string_view line);

}  // namespace tolvan
