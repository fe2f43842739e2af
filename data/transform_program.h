// Transformations of the data: compiled once into steps over the columns of the working row.
// Routines: PROCESS_DATA_TRANSFORMATIONS_FROM_JPTR.
//
// The lists of the variables run first, in the order of the variables, then the list at the top of the
// request.  A step takes the value of the variable that carries the list and puts its result into TARGET, the
// variable itself where there is none; a step of the top list takes the value of its TARGET.  A variable with
// the user_column_number 0 is no column of the data and starts at 0 in every record; a variable beyond the
// columns of the data is none either where transformations write it before they read it.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "api/error_handler.h"
#include "base/json.h"
#include "data/transform_functions.h"

namespace tolvan {

struct VARIABLE_TABLE;

/// All steps in the order in which they run, with the state that they carry from record to record.  Empty
/// where a request asks for no transformation.
struct TRANSFORM_PROGRAM {
  std::vector<TRANSFORM_STEP> steps;
  std::vector<double> values;     // the lists of arguments one after another
  std::vector<std::size_t> made;  // columns of variables that are none of the source
  std::mt19937_64 random{5489};   // one generator, so that equal requests give equal data
  std::int64_t dropped = 0;       // records
  bool drop_forms_told = false;

  bool empty() const { return steps.empty(); }
  // Of n columns those that any step writes, those that are written before any step reads them, and those
  // that any step reads or writes.
  std::vector<bool> written(std::size_t n) const;
  std::vector<bool> written_first(std::size_t n) const;
  std::vector<bool> touched(std::size_t n) const;
};

/// PROCESS_DATA_TRANSFORMATIONS_FROM_JPTR: compiles a list of transformations behind those compiled already.
///   list      an array of objects or one object; null for none
///   variable  row (from 1) of the variable that carries the list, 0 for the list at the top of a request
void PROCESS_DATA_TRANSFORMATIONS_FROM_JPTR(ERROR_HANDLER& eh, JsonNode* list, std::int64_t variable,
                                            VARIABLE_TABLE& table);

/// The name under TARGET of a transformation; null where it has none.
const JsonNode* transformation_target(const JsonNode& item);

}  // namespace tolvan
