// Products of a symmetric matrix with the vectors of a block, outer x n x inner as in component_matrix.h.  Plain functions.
#pragma once

#include <cstdint>

#include "base/symmetric.h"

namespace tolvan {

/// y = alpha A x, A banded with bands laid out as SYMMETRIC says.  Here and below x and y do not overlap.
void banded_times(const double* bands, std::int64_t n, std::int64_t bandwidth, double alpha, const double* x,
                  double* y, std::int64_t outer, std::int64_t inner);
/// y = alpha A x, A dense with both triangles.
void dense_times(const double* a, std::int64_t n, double alpha, const double* x, double* y,
                 std::int64_t outer, std::int64_t inner);
/// y = A x by the shape of A.
void symmetric_times(const SYMMETRIC& a, const double* x, double* y, std::int64_t outer, std::int64_t inner);

/// z(o, k) = sum over j of A(i, j) x(o, j, k), z being outer x inner: one row of A, level i from 0.  Not for a sparse A.
void row_times(const SYMMETRIC& a, std::int64_t i, const double* x, double* z, std::int64_t outer,
               std::int64_t inner);

/// The sum over all a, b of S(a, b) A(a, b), s laid out as the values of A.
double sum_of_products(const SYMMETRIC& a, const double* s);

/// The outer slices that a pass may take at once so that a copy of them stays small: at least 1.
std::int64_t slices_at_once(std::int64_t n, std::int64_t outer, std::int64_t inner);

}  // namespace tolvan
