// What a matrix looks like ahead of its use: odd diagonals, covariances that are too large, a line of its
// means. Routines: L_EXAMINE, L_SUMMARY.
#pragma once

#include <cstdint>
#include <string_view>

#include "api/error_handler.h"
#include "relmat/matrix_input.h"

namespace tolvan {

/// Counts of the diagonal and of the rows.
struct DIAGONAL_COUNTS {
  std::int64_t zero = 0, near_zero = 0, negative = 0;
  std::int64_t zero_rows = 0;                   // of the zero ones: rows without any element
  double lowest = 0.0, highest_negative = 0.0;  // of the negative ones
};

/// What counts as 0 on a diagonal.
inline constexpr double zero_diagonal = 1e-20;
/// How many rows or elements at most are told one by one.
inline constexpr std::int64_t most_lines = 100;

/// L_EXAMINE: tells rows and elements of a matrix that no covariance matrix can have, and counts its
/// diagonal.
///   criterion   a diagonal of smaller size is near zero
DIAGONAL_COUNTS L_EXAMINE(ERROR_HANDLER& eh, const MATRIX_INPUT& matrix, double criterion);

/// L_SUMMARY: one note with the range of the diagonal and the mean covariance of the first n rows of a dense
/// matrix.
///   a       order lda, by columns
void L_SUMMARY(ERROR_HANDLER& eh, std::string_view name, const double* a, std::int64_t n, std::int64_t lda);

}  // namespace tolvan
