// Transformations of the data: compiled once into steps over the columns of the working row.
#pragma once

#include <cstdint>
#include <vector>

namespace tolvan {

/// One operation on a record:  row[target] = operation(row[source], argument).
struct TRANSFORM_STEP {
  std::size_t source = 0;  // columns of the working row, from 0
  std::size_t target = 0;
};

/// All steps in the order in which they run.  Empty where a request asks for no transformation.
struct TRANSFORM_PROGRAM {
  std::vector<TRANSFORM_STEP> steps;
  bool empty() const { return steps.empty(); }
};

}  // namespace tolvan
