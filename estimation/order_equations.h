// The order in which the sparse equations are eliminated: greedy minimum degree on a quotient graph.
// Routines: REORDER_MATRIX, K4MEORB, K4MEAB.
#pragma once

#include <cstdint>
#include <vector>

#include "api/error_handler.h"
#include "estimation/coefficients.h"

namespace tolvan {

/// REORDER_MATRIX: decides whether to reorder and gives the order: order[p] is the inner equation at position
/// p.
///   isort   negative keeps the inner order; 7 or above is refused
void REORDER_MATRIX(ERROR_HANDLER& eh, const PATTERN& pattern, std::int64_t isort,
                    std::vector<std::int32_t>& order);

/// K4MEAB: ends an ordering for want of memory.
void K4MEAB(ERROR_HANDLER& eh);

/// K4MEORB: orders the sparse equations of a pattern; the dense ones follow in place.
void K4MEORB(ERROR_HANDLER& eh, const PATTERN& pattern, std::vector<std::int32_t>& order);

}  // namespace tolvan
