// Inverses of dense symmetric matrices that may be singular or indefinite, in place and by blocks.
// Routines: SMILM, SMIDENSE, K4MSMISG, K4MSMI, K4MSMIGE, K4MSMIGE1.
#pragma once

#include <cstdint>
#include <vector>

#include "api/error_handler.h"

namespace tolvan {

// Matrices are n x n, by columns.  Only their lower triangle is read; inverses fill both.

/// The criterion of singularity of the key `precision`: a pivot below it times its diagonal is singular.
double singularity_criterion(std::int64_t precision);

/// What the pivots of a matrix tell.
struct PIVOTS {
  std::vector<std::int64_t>
      mark;  // of each row: 0 a positive pivot, -k a negative one, +k a singular one, k being the row from 1
  std::vector<bool> empty;    // rows whose elements are all 0; marked as singular
  std::int64_t singular = 0;  // the empty rows not among them
  std::int64_t negative = 0;
  std::int64_t zero_rows = 0;  // the empty rows
  double criterion = 0.0;
  double log_determinant = 0.0;  // the sum of ln|pivot|
};

/// SMILM: inverts a positive definite matrix with LAPACK.  Where it is not, the failing step and its number
/// are the message, or the row whose pivot is smaller than its diagonal times the criterion of singularity, which
/// rounding alone may keep above 0; the matrix is lost.
void SMILM(ERROR_HANDLER& eh, std::int64_t n, double* a, std::int64_t precision, double& log_determinant);

/// L_SWEEP: what sweeping a symmetric matrix on all of its rows that have a pivot, from the last to the first
/// (Goodnight 1979, The American Statistician 33, 149-158), leaves below the diagonal:
///     - G11^-1 between rows with a pivot,   G21 G11^-1 between one without and one with,   0 between two
///     without.
/// A row whose reduced diagonal is smaller in size than criterion times its diagonal plus floor has none.
void L_SWEEP(ERROR_HANDLER& eh, std::int64_t n, double* a, double criterion, double floor, PIVOTS& pivots);

/// SMIDENSE: a generalized inverse: that of the rows with a pivot, and 0 in all others.
void SMIDENSE(ERROR_HANDLER& eh, std::int64_t n, double* a, std::int64_t precision, PIVOTS& pivots);

/// K4MSMISG: the inverse of a singular matrix, kept whole by Lagrangian rows.
///
/// With G11 the rows that have a pivot and B = G21 G11^-1 for the m singular ones it is, of order n + m,
///     [ G11^-1  0  -B' ]
///     [   0     0   I  ]     and log_determinant = log|G11|.  Zero rows stay 0 and get no further row.
///     [  -B     I   0  ]
///   a           n x n, on return (n + m) x (n + m)
///   bind_empty  zero rows are singular like others: their effects are bound to 0
///   bound       the m singular rows, from 0, in the order of their Lagrangian rows
void K4MSMISG(ERROR_HANDLER& eh, std::int64_t n, std::vector<double>& a, std::int64_t precision,
              bool bind_empty, PIVOTS& pivots, std::vector<std::int64_t>& bound);

/// K4MSMI: inverts a small matrix, with the criterion 1e-07; a singular row is an error.
void K4MSMI(ERROR_HANDLER& eh, std::int64_t n, double* a, double& log_determinant);
/// K4MSMIGE: a generalized inverse of a small matrix, with the criterion 1e-10.
void K4MSMIGE(ERROR_HANDLER& eh, std::int64_t n, double* a, PIVOTS& pivots);
/// K4MSMIGE1: a generalized inverse of a small matrix, with the criterion 1e-12.
void K4MSMIGE1(ERROR_HANDLER& eh, std::int64_t n, double* a, PIVOTS& pivots);

}  // namespace tolvan
