// Orthogonal and Legendre polynomials of a covariate.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "model/design_basis.h"

namespace tolvan {

/// The first degree and the number of columns that a signed degree t asks for: 0 to t, or 1 to |t| for t below 0.
struct DegreeRange {
  std::int64_t first = 0, columns = 1;
};
DegreeRange degree_range(std::int64_t t);

/// Fills centre and half_range from the range of x; half_range is 0 where all values are equal.
void scale_to_unit_range(double least, double most, DESIGN_BASIS& basis);

/// The recursion of the polynomials p_0, ..., p_degree that are orthonormal on the points: the sum over the points of
/// p_i p_j is 1 for i = j and 0 otherwise; leading coefficients are positive.  There must be more points than the degree.
///
/// In exact arithmetic u p_j needs p_j and p_(j-1) alone to become p_(j+1); with all earlier ones it stays orthogonal in
/// rounded arithmetic too, at the points and, by the same recursion, off them (Brubeck, Nakatsukasa and Trefethen, 2021,
/// "Vandermonde with Arnoldi", SIAM Review 63).  Near the degree of the number of points the recursion multiplies what was
/// rounded, from about degree 20 on: where it misses the points by more than 1e-12, their polynomials are kept beside it.
void orthogonal_recursion(std::span<const double> points, std::int64_t degree, DESIGN_BASIS& basis);
/// p_0(x), ..., p_degree(x) into p, degree being p.size() - 1; at a point as accurate as on all of them together, off the
/// points, where a polynomial of such a degree swings wildly, by the recursion.
void orthogonal_polynomials(const DESIGN_BASIS& basis, double x, std::span<double> p);

/// sqrt((2 j + 1) / 2) P_j(u), j = 0, ..., degree, P_j the Legendre polynomials (Kirkpatrick, Lofsvold and Bulmer, 1990,
/// Genetics 124).  u is x on the scale of the basis.
void legendre_polynomials(const DESIGN_BASIS& basis, double x, std::span<double> p);

}  // namespace tolvan
