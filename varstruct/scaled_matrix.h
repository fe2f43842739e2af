// A correlation component with one variance, or with one a level.  Plain functions.
#pragma once

#include <memory>

#include "varstruct/component_matrix.h"

namespace tolvan {

/// R = g C, C the core's matrix and g the parameter behind the core's own ones.
std::unique_ptr<COMPONENT_MATRIX> with_one_variance(std::unique_ptr<COMPONENT_MATRIX> core,
                                                    std::int64_t own_parameters);
/// R = D C D, D the square roots of the n variances behind the core's own parameters.  The inverse of C is
/// banded or dense.
std::unique_ptr<COMPONENT_MATRIX> with_level_variances(std::unique_ptr<COMPONENT_MATRIX> core,
                                                       std::int64_t own_parameters);

}  // namespace tolvan
