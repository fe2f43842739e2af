// What all formed components share: the product with the inverse.
#include "varstruct/component_matrix.h"

#include "varstruct/block_products.h"

namespace tolvan {

void COMPONENT_MATRIX::apply_inverse(const double* x, double* y, std::int64_t outer, std::int64_t inner) const
{
  symmetric_times(inverse_, x, y, outer, inner);
}

}  // namespace tolvan
