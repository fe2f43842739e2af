// Small text files read whole, and rectangles of reals in them.  Routines: TB_READ_FROM_FILE,
// READ_REAL_ARRAY_.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "api/error_handler.h"
#include "base/files.h"

namespace tolvan {

struct TEXT_LINE {
  std::string text;         // without its end
  std::int64_t number = 0;  // in the file, from 1
};

/// A file as the list of its lines.
struct TEXT_BUFFER {
  std::string name;
  std::vector<TEXT_LINE> lines;
};

/// TB_READ_FROM_FILE: reads all lines of a file, blank ones too.
void TB_READ_FROM_FILE(ERROR_HANDLER& eh, const std::string& name, TEXT_BUFFER& buffer);

/// A rectangle of reals by rows, with labels of the rows where they were asked for.
struct REAL_ARRAY {
  std::int64_t rows = 0, columns = 0;
  std::vector<double> values;  // value of row i and column j, both from 0, at i * columns + j
  std::vector<std::string> labels;
};

/// READ_REAL_ARRAY_FROM_FILE: reads a rectangle of reals, words between blanks, tabs or commas, a row a line.
/// Blank lines do not count; NA, na, *, . are missing; as many words in each line.
void READ_REAL_ARRAY_FROM_FILE(ERROR_HANDLER& eh, const std::string& name, REAL_ARRAY& array);
/// READ_REAL_ARRAY_WITH_ROW_LABELS_FROM_FILE: the same with a label as the first word of each line.
void READ_REAL_ARRAY_WITH_ROW_LABELS_FROM_FILE(ERROR_HANDLER& eh, const std::string& name, REAL_ARRAY& array);
/// READ_REAL_ARRAY_FROM_UNITNO: the same from a file that is open, from its next line on.
///   name   of the file, for messages
void READ_REAL_ARRAY_FROM_UNITNO(ERROR_HANDLER& eh, FileReader& unit, const std::string& name,
                                 REAL_ARRAY& array);
/// READ_REAL_ARRAY_WITH_ROW_LABELS_FROM_UNITNO: the same with row labels.
void READ_REAL_ARRAY_WITH_ROW_LABELS_FROM_UNITNO(ERROR_HANDLER& eh, FileReader& unit, const std::string& name,
                                                 REAL_ARRAY& array);

}  // namespace tolvan
