// Columns of a marker table, centred and scaled.  Routines: L_FILL_COLUMNS, L_FILL_COVARIATES.
#pragma once

#include <cstdint>
#include <vector>

#include "api/error_handler.h"
#include "relmat/marker_files.h"

namespace tolvan {

/// What a column is, and how it enters Z: z = scale (w - centre), w being the regressor, or the dominance of a
/// genotype.  A missing value takes the mean of w.
struct MARKER_COLUMN {
  std::int64_t missing = 0;
  double low = 0.0, high = 0.0;  // of the values that are there
  double mean = 0.0;             // of the regressor where it is there; twice the frequency of a counted allele
  double expected = 0.0;         // 2p(1 - p) of a counted allele, else the variance over all genotypes
  double centre = 0.0;
  double scale = 0.0;            // 0: the column is left out
};

/// L_FILL_COLUMNS: forms columns of Z.
///   first     of the regressors in use, from 0
///   columns   of how many, and what they are
///   z         genotypes x columns, by columns
///   bytes     workspace
void L_FILL_COLUMNS(ERROR_HANDLER& eh, const MARKER_KEYS& keys, const MARKER_DATA& data, std::int64_t first,
                    std::vector<MARKER_COLUMN>& columns, double* z, std::vector<std::uint8_t>& bytes);

/// How many columns to take at a time: enough for BLAS, within some ten megabytes.
std::int64_t columns_of_block(const MARKER_DATA& data);

/// L_FILL_COVARIATES: the regressors as they are, missing ones replaced, by rows.
void L_FILL_COVARIATES(ERROR_HANDLER& eh, const MARKER_DATA& data, std::vector<double>& values);

}  // namespace tolvan
