// The log determinant of an inverse that was handed in.  Routine: K4MLD7.
#pragma once

#include <cstdint>

#include "api/error_handler.h"
#include "base/symmetric.h"
#include "relmat/invert_dense.h"

namespace tolvan {

/// K4MLD7: the log determinant of a known inverse of any shape, with its singular and negative pivots; rows
/// without any element do not count.
///
/// A dense matrix is factorised in its own upper triangle, which is restored; a sparse one by supernodes in
/// an order of minimum degree. Rows with a zero diagonal that are bound to others, Lagrangian ones, and
/// genetic groups are eliminated after all others: what the groups leave is singular where they are fixed.
///   values  those of a, which sees them
///   groups  so many of the first rows
void K4MLD7(ERROR_HANDLER& eh, const SYMMETRIC& a, double* values, std::int64_t precision,
            std::int64_t groups, PIVOTS& pivots);

}  // namespace tolvan
