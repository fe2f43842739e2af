// Mending of covariance matrices that are not positive definite.  Routines: K4MVUS, K4MVPD.
//
// Matrices are packed lower triangles by rows.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "api/error_handler.h"

namespace tolvan {

/// What a mending routine did.
enum class Mended : std::int64_t { as_it_was = 0, yes = 1, refused = -1 };

/// K4MVUS: weakens the covariances of the level that the others explain too well.
///   v       n levels; changed
///   faults  levels marked before this call; the new one is counted.  Negative: the whole matrix goes to
///   K4MVPD marked  levels (from 0) that were at fault before; the new one is added cell    0; or the place
///   of a cell (i, j) in v, from 1: then both rows are taken with `fraction`, and nothing is marked bend the
///   option of that name, for K4MVPD
/// Refused: no level is left, or K4MVPD refuses.
void K4MVUS(ERROR_HANDLER& eh, std::span<double> v, std::int64_t n, std::int64_t& faults,
            std::vector<std::int64_t>& marked, std::int64_t cell, double fraction, double bend,
            Mended& status);

/// K4MVPD: bends a matrix to positive definiteness through the eigenvalues of its correlations; its trace on
/// that scale stays.
///   count   above 1: a matrix that needs bending is only told, by status = count, and left alone
///   status  unchanged: a diagonal element is below 1e-8; 0: good as it stands; 1: bent; below 0: no
///   eigenvalues
void K4MVPD(ERROR_HANDLER& eh, std::span<double> v, std::int64_t n, double bend, std::int64_t count,
            std::int64_t& status);

/// A near matrix of the same variances whose correlations have no eigenvalue below half of `least`:
/// eigenvalues are raised to it and the levels scaled back.  False if a variance is not positive or memory
/// was short.
bool floor_eigenvalues(ERROR_HANDLER& eh, std::span<double> v, std::int64_t n, double least);

}  // namespace tolvan
