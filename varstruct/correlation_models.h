// The makers of the correlation models: series, general correlations, distances.  Each gives the plain
// component of a row, without the row's variances; null for an order that the model does not have.
#pragma once

#include <memory>

#include "varstruct/component_matrix.h"

namespace tolvan {

/// The scale of a series model, sub-code of its row: the correlation matrix, or the matrix with unit
/// innovation variance.
inline constexpr std::int64_t correlation_scale = 0, innovation_scale = 1;

using CorrelationMaker = std::unique_ptr<COMPONENT_MATRIX>(const STRUCTURE_ROW&, const VARIANCE_MODEL&);

CorrelationMaker make_autoregressive;  // AR of order 1 to 3, SAR of order 1 and 2
CorrelationMaker make_moving_average;  // MA of order 1 and 2, ARMA
CorrelationMaker make_correlation;     // uniform, banded, general
CorrelationMaker make_metric;          // powers, ranges and Matern, by sub-code

}  // namespace tolvan
