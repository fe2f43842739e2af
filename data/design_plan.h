// What AIDSGN needs to know of the model before it passes over the records.  Routine: L_PLAN_DESIGN.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "api/error_handler.h"
#include "data/design_source.h"
#include "data/variable_table.h"
#include "model/factor_table.h"
#include "model/term_table.h"

namespace tolvan {

/// One component of a term: what it has in a record is a list of (place, value) pairs, places from 0 and rising.
struct DESIGN_COMPONENT {
  enum class Shape {
    value,       // one pair, the source's number
    level,       // one pair, the source's level with value 1
    contrast,    // con: levels with a sum of zero
    polynomial,  // the bases of one number x
    legendre,
    spline,
    bisquare,
    file_row,    // mbf: a row of the file
    side_by_side,  // members' numbers
    overlaid,      // members' levels
    nothing,       // no pair at all
  };
  Shape shape = Shape::value;
  std::int32_t source = -1;
  std::vector<std::int32_t> members;  // sources
  const DESIGN_BASIS* basis = nullptr;
  std::int64_t levels = 1;   // places that it has in the term
  std::int64_t most = 1;     // pairs that it can have in a record
  double typical = 1.0;      // and has, roughly, on average
  std::int64_t first_degree = 0, degrees = 1;
  bool by_level = false;     // file_row: the source is a level, not a key
  bool condition = false;    // a comparison: where it is 0 the term is not there, whatever else is missing
  double times = 1.0;        // and()
  std::string name;
};

/// One term with equations; components from slow to fast.
struct DESIGN_TERM {
  std::string name;
  std::int64_t first = 0;
  std::vector<DESIGN_COMPONENT> components;
  bool joins = false;  // and(): adds to the equations of the terms before it
};

/// Columns whose missing values count where all of some conditions hold.
struct CONDITIONAL_COLUMNS {
  std::vector<std::int32_t> conditions;  // sources, 0 or 1
  std::vector<std::size_t> columns;
};

struct DESIGN_PLAN {
  DESIGN_SOURCES sources;
  std::vector<DESIGN_TERM> terms;           // in rising order of their equations, mv left out
  std::vector<std::size_t> design_columns;  // of the data store, each once: where a value may be missing
  std::vector<CONDITIONAL_COLUMNS> conditional;
  std::vector<std::int32_t> responses;      // sources of the responses, one a trait
  bool trait_slow = false;                  // all records of a trait together, as the residual's product has it
  bool weighted = false;
  std::size_t weight = 0;        // column of the weights
  bool has_offset = false;
  std::size_t offset = 0;        // column of the offset
  TERM_ROW* mv = nullptr;        // null without mv
  std::int64_t elements = 0;     // that a row has, roughly, for reserving
};

/// L_PLAN_DESIGN: resolves the terms to columns of the data store and functions of them; refuses what has no design.
void L_PLAN_DESIGN(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors, TERM_TABLE& terms,
                   const MODEL_INFO& info, DESIGN_PLAN& plan);

}  // namespace tolvan
