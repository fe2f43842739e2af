// Explicit formats: where the fields of a record stand in its lines.  Routine: AIDFMT.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "api/error_handler.h"

namespace tolvan {

/// The place of one field.
struct FORMAT_FIELD {
  std::size_t line = 0;   // of the record, from 0
  std::size_t start = 0;  // byte of the line, from 0
  std::size_t width = 0;
  char edit = 'A';   // I F E G or A
  int decimals = 0;  // implied where the field has no point
};

/// The fields of a record in their order, and how many lines they stand in.
struct FORMAT_LIST {
  std::vector<FORMAT_FIELD> fields;
  std::size_t lines = 1;
};

/// AIDFMT: reads a format list.
///
///     list  [(] item {, item} [)]        item  [r]Iw  [r]Fw[.d]  [r]Ew.d  [r]Gw.d  [r]Aw  nX  Tn  /
///     [r](list)
///
/// in either case, blanks ignored: r times a field of width w, n bytes to be skipped, byte n of the line, the
/// next line.  Where the list ends before the fields do, reading goes on in the next line with the last
/// list in brackets (the whole list where there is none), as Fortran does (ISO/IEC 1539-1, format control).
///   wanted   number of fields
void AIDFMT(ERROR_HANDLER& eh, std::string_view format, std::size_t wanted, FORMAT_LIST& list);

}  // namespace tolvan
