// The levels of the records of a residual section in the components of its product.  Routine: L_FIND_LEVELS.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "varstruct/residual_sections.h"

namespace tolvan {

/// How the levels of a component are found in the data.
struct LEVEL_PLAN {
  enum class Reads { units, trait, column };
  Reads reads = Reads::units;
  std::size_t column = 0, second = 0;  // of the data store
  bool pair = false;
  bool metric = false;      // a model with distances
  bool coded = false;       // the value is a level of a factor
  bool known = true;        // false: no column of the data tells its levels
  std::int64_t levels = 0;  // of the factor
};

/// Whether a variance function has distances.
bool is_metric(const std::string& function);

/// How the levels of one component are found.
LEVEL_PLAN plan_of(const FACTOR_TABLE& factors, const RESIDUAL_COMPONENT& component);

/// L_FIND_LEVELS: the level of each record of a section in one component, from 0, with the component's size
/// and coordinates.
///   rows         of the design, those of the section
///   points       of a model with distances: the number of points that the other components leave to it, as
///                many as records where it is alone; 0: as many as there are
///   all_levels   the section has all levels of a factor; else those that its records have
/// A record without a level is an error.
void L_FIND_LEVELS(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
                   const DATA_STORE& store, const DESIGN_MTX& design, const std::vector<std::int64_t>& rows,
                   const LEVEL_PLAN& plan, std::int64_t points, bool all_levels,
                   RESIDUAL_COMPONENT& component, std::vector<std::int64_t>& level);

}  // namespace tolvan
