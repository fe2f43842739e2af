// The cubic smoothing spline in mixed-model form, and bisquare functions.  Routines: AIXSPL, BISQUBASISFUN.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "model/design_basis.h"

namespace tolvan {

/// The design of a natural cubic spline with knots t_1 < ... < t_K, K at least 3, at the knots: basis.table becomes Z,
/// K x (K-2), with Z Z' the generalised inverse of the roughness matrix Q R^-1 Q' but for one factor that makes the mean of
/// its diagonal 1; basis.curvature the second derivatives (Green and Silverman, 1994, section 2.1).
///
/// Z = Q (Q'Q)^-1 L with R = L L': column j is the solution of Q'g = L e_j with no linear part.  It is found by summing
/// L e_j up twice and taking the line off.
void spline_basis(DESIGN_BASIS& basis);
/// AIXSPL: the K-2 values of a spline's design at x, linear outside the knots.
void AIXSPL(const DESIGN_BASIS& basis, double x, std::span<double> z);

/// Equally spaced points from the least to the most.
std::vector<double> equally_spaced(double least, double most, std::int64_t count);

/// BISQUBASISFUN: the value (1 - (d / r)^2)^2, 0 for d from r on, of each knot's function at x: d is the distance to the
/// knot and r 1.5 times the spacing (Cressie and Johannesson, 2008, J. R. Statist. Soc. B 70).
void BISQUBASISFUN(const DESIGN_BASIS& basis, double x, std::span<double> z);

}  // namespace tolvan
