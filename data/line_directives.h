// Lines of a data file that steer its reading.  Routines: L_OBEY_DIRECTIVE, L_REFUSE_MACRO.
#pragma once

#include "data/text_lines.h"

namespace tolvan {

/// Whether a line with this first character can be a directive.
inline bool may_be_directive(const DATA_LINES& lines, char first)
{
  // The words for !INCLUDE without its mark are plain labels where commas separate.
  return first == '!' || (lines.layout == Layout::free_format && (first == 'I' || first == 'i'));
}

/// L_OBEY_DIRECTIVE: does what a line asks for.  False where it is a line of data.
bool L_OBEY_DIRECTIVE(ERROR_HANDLER& eh, DATA_LINES& lines);

/// L_REFUSE_MACRO: complains where the line in hand uses a text macro.
void L_REFUSE_MACRO(ERROR_HANDLER& eh, const DATA_LINES& lines);

}  // namespace tolvan
