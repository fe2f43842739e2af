// Long steps of the variances and covariance matrices of the residual.  Plain routines without frame.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "estimation/update_parameters.h"

namespace tolvan {

/// Which active parameters are variances of the residual that stand by themselves (of a section, or of its levels), or elements of
/// its unstructured matrices.
std::vector<std::uint8_t> sizes_of_residual(const VARIANCE_MODEL& model, const INFORMATION& information);

/// Where those of them go whose step is long: active positions, and values in units.
///
/// For the variances of a residual the average information is exact on the scale of their inverse: where the residual is all there
/// is, a step delta from v that is taken there, to v^2 / (v - delta), leads to the mean square, and a step D of a matrix V, to
/// V (V - D)^-1 V, to the matrix of mean products.
///   open, delta   the parameters that may move, and their joint step in units
std::vector<std::pair<std::size_t, double>> long_residual_steps(const VARIANCE_MODEL& model, const INFORMATION& information,
                                                                const std::vector<std::uint8_t>& open, const std::vector<double>& delta);

}  // namespace tolvan
