// Covariance and correlation matrices whose elements are parameters, kept positive definite by the step.  Routines: list_definite,
// placed_parameters, keep_rows_inside.
#pragma once

#include <cstdint>
#include <vector>

#include "estimation/update_parameters.h"

namespace tolvan {

/// The rows of the structure table that are such matrices: us() of random terms unless it is left to EM, corg() in all its forms,
/// and chol() and ante() with all of their elements.
void list_definite(const VARIANCE_MODEL& model, bool unstructured, std::vector<DEFINITE_ROW>& rows);

/// One an active parameter: whether it belongs to a row all of whose elements are open, so that the row is placed as a whole.
std::vector<std::uint8_t> placed_parameters(const INFORMATION& information, const std::vector<DEFINITE_ROW>& rows,
                                            const std::vector<std::uint8_t>& open);

/// Places the rows that the joint step would take out of their space at the nearest matrix inside, closes their parameters, and
/// solves for the others again: the quadratic model is maximised under that restraint, one matrix after the other.  Correlations
/// with variances take the step of their covariance matrix, which is the same to first order and far better behaved.
void keep_rows_inside(const INFORMATION& information, const VARIANCE_MODEL& model, const std::vector<DEFINITE_ROW>& rows,
                      std::vector<std::uint8_t>& open, std::vector<double>& taken, std::vector<double>& delta);

}  // namespace tolvan
