// What AIDSGN needs to know of the model before it passes over the records.  Routine: L_PLAN_DESIGN.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "api/error_handler.h"
#include "data/variable_table.h"
#include "model/factor_table.h"
#include "model/term_table.h"

namespace tolvan {

/// One component of a term.
struct DESIGN_COMPONENT {
  enum class Reads { level, value, one, record_number };
  Reads reads = Reads::one;
  std::size_t column = 0;   // of the data store, for level and value
  std::int64_t levels = 1;  // declared
  std::string name;
};

/// One term with equations; components from slow to fast.
struct DESIGN_TERM {
  std::string name;
  std::int64_t first = 0;
  std::vector<DESIGN_COMPONENT> components;
};

struct DESIGN_PLAN {
  std::vector<DESIGN_TERM> terms;           // in rising order of their equations, mv left out
  std::vector<std::size_t> design_columns;  // of the data store, each once: where a value may be missing
  std::size_t response = 0;                 // column of the response
  bool weighted = false;
  std::size_t weight = 0;  // column of the weights
  TERM_ROW* mv = nullptr;  // null without mv
};

/// L_PLAN_DESIGN: resolves the terms to columns of the data store; refuses what has no design yet.
void L_PLAN_DESIGN(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, TERM_TABLE& terms, const MODEL_INFO& info,
                   DESIGN_PLAN& plan);

}  // namespace tolvan
