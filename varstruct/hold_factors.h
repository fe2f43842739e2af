// Bounds of triangular factors near a singular covariance matrix.  Plain functions.
//
// A level that the others explain all but wholly makes V nearly singular: what its equations then hold are small differences of
// large numbers, which look like no information at all.  Its own variance is therefore held at a share of its whole variance.
#pragma once

#include <cstdint>
#include <vector>

#include "base/packed.h"
#include "varstruct/component_matrix.h"

namespace tolvan {

using FACTOR_TRIANGLE = PackedLower<VARIANCE_PARAMETER>;

/// V = L D L': no D_j below 1e-5 of V_jj; elements of L below such a D, of which the data say next to nothing, no larger than the
/// standard deviations allow.  A D that comes back to its bound for the third time in a row is fixed there (code B), with its
/// column of L.
///   times  of each level, kept by the caller
void hold_cholesky_factors(const FACTOR_TRIANGLE& theta, std::int64_t n, std::vector<int>& times);

/// V^-1 = U D U': no 1 / D_j below 1e-5 of V_jj, and no D_j above a million times the smallest one.
void hold_precision_factors(const FACTOR_TRIANGLE& theta, std::int64_t n, std::vector<int>& times);

}  // namespace tolvan
