// The last resort of models whose parameters are triangular factors.  A helper; no routines.
#pragma once

#include <cstdint>

#include "base/numbers.h"
#include "base/packed.h"
#include "varstruct/component_matrix.h"

namespace tolvan {

namespace rescaling {
inline constexpr std::int64_t last_iteration = 124;  // iterations before this one may rescale
inline constexpr int attempts = 200;
inline constexpr double first_diagonal = wide(1.02F);
inline constexpr double lower_elements = wide(0.95F);
}  // namespace rescaling

/// Raises the first diagonal element and shrinks those below the diagonal, fixed ones apart, until
/// factorise() answers true. False: it never did, or the run is beyond its first iterations.
template <class Factorise>
bool rescale_factors(FORM_CONTEXT& context, const PackedLower<VARIANCE_PARAMETER>& theta, std::int64_t n,
                     Factorise&& factorise)
{
  if (context.iteration >= rescaling::last_iteration) return false;
  context.eh.warning("Rescale initial matrix for ANTE to make it PD");  // sic, whatever the model
  for (int k = 0; k < rescaling::attempts; ++k) {
    if (theta(1, 1).constraint != Constraint::F) theta(1, 1).value *= rescaling::first_diagonal;
    for (std::int64_t i = 2; i <= n; ++i) {
      for (std::int64_t j = 1; j < i; ++j) {
        if (theta(i, j).constraint != Constraint::F) theta(i, j).value *= rescaling::lower_elements;
      }
    }
    if (factorise()) return true;
  }
  return false;
}

}  // namespace tolvan
