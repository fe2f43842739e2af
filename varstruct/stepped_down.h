// A component whose row has parameters in front that no longer belong to its model.  Plain functions.
#pragma once

#include <cstdint>
#include <memory>

#include "varstruct/component_matrix.h"

namespace tolvan {

/// The row without the parameters that step-downs took from its model.
STRUCTURE_ROW live_row(const STRUCTURE_ROW& row);
/// Takes over what a step-down made of the live row; the parameters taken stay in the row, in front.
void take_step_down(const STRUCTURE_ROW& live, STRUCTURE_ROW& row);

/// The core with `count` parameters in front on which it does not depend.
std::unique_ptr<COMPONENT_MATRIX> behind_stepped(std::unique_ptr<COMPONENT_MATRIX> core, std::int64_t count);

}  // namespace tolvan
