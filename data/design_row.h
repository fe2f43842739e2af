// One row of the design: the pairs of equation and value that a plan gives for a record.  Routine: L_FORM_ROW.
#pragma once

#include <cstdint>
#include <vector>

#include "api/error_handler.h"
#include "data/design_plan.h"

namespace tolvan {

/// A row on its way into the design, with the room that forming it needs; kept over the records.
struct DESIGN_ROW {
  std::vector<std::int32_t> equation;  // rising
  std::vector<double> value;
  RECORD_STATE state;
  std::int64_t unknown_keys = 0;  // cases of a key that the file of an mbf() term doesn't have

  struct Pair {
    std::int64_t place;
    double value;
  };
  std::vector<Pair> pairs, spread, part;
  std::vector<double> basis;
};

/// Prepares for the records of a plan; the first next_record() follows.
void start_rows(const DESIGN_PLAN& plan, DESIGN_ROW& row);

/// L_FORM_ROW: the row of the record and trait in row.state.
///   records   of the data store, for messages
///
/// A term whose components have n1, n2, ... levels, the first the slowest, puts pairs (l1, v1), (l2, v2), ... at equation
/// first + (..((l1) n2 + l2) n3 + l3..), levels from 0, with the product of the values.  What is missing has no pair;
/// values of 0 are left out.
void L_FORM_ROW(ERROR_HANDLER& eh, const DESIGN_PLAN& plan, std::int64_t records, DESIGN_ROW& row);

}  // namespace tolvan
