// The joint Newton step of the variance parameters that are not held.  Routines: solve_step, reduced_information.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "estimation/update_parameters.h"

namespace tolvan {

constexpr std::size_t many_parameters = 48;  // from which the work is done by blocks

/// The step of the open parameters, the held ones having moved by `taken`: delta_o = AI_oo^-1 (score_o - AI_oh delta_h), all of it
/// in units.  A parameter whose pivot is lost stays where it is.
void solve_step(const INFORMATION& information, const std::vector<std::uint8_t>& open, const std::vector<double>& taken,
                std::vector<double>& delta);

/// The information on `inside` (positions, rising) that is left when the other open parameters have followed:
/// A_ii - A_io A_oo^-1 A_oi, both triangles, by columns.  False where A_oo is not positive definite.
bool reduced_information(const INFORMATION& information, const std::vector<std::uint8_t>& open, const std::vector<std::size_t>& inside,
                         std::vector<double>& s);

}  // namespace tolvan
