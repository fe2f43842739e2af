// The step of an unstructured matrix that would leave its space, taken to the edge instead.  Routines: leaves_space,
// nearest_inside, at_edge.
#pragma once

#include <cstdint>
#include <vector>

namespace tolvan {

/// What the parameters of a matrix are.
enum class DefiniteForm {
  covariances,         // its packed elements by rows
  correlations,        // those below the diagonal of ones; a common variance, if there is one, stands apart
  scaled_correlations, // the same, with the variances of the levels behind them
  factors,             // L and D of V = L D L', packed
  precision_factors    // U and D of V^-1 = U D U', U_ij at (j, i)
};

/// A covariance or correlation matrix whose elements are parameters, from `first` on.
struct DEFINITE_ROW {
  std::int64_t first = 0;
  std::int64_t levels = 0;
  DefiniteForm form = DefiniteForm::covariances;

  std::int64_t parameters() const;
};

/// Whether a step would shrink the variance of some combination of levels to less than a tenth or so (which is how far the rules let
/// a single variance fall), or below what the structure takes for positive definite.
///   present, target   the packed elements by rows; present is positive definite
bool leaves_space(std::int64_t levels, const std::vector<double>& present, const std::vector<double>& target);

/// The matrix that maximises the quadratic model of the LogL, -(v - target)' S (v - target)/2 over its free elements v, among those
/// that keep the variance of every combination of levels above that limit.  A convex problem: the alternating direction method of
/// multipliers on it (Boyd, Parikh, Chu, Peleato & Eckstein 2011, sections 3 and 4.4.1), in coordinates in which `present` is the
/// identity.  What it gives is inside the limit even where the rounds run out.
///   present, target  packed elements by rows, the same where they are not free
///   elements  packed positions of the free ones, rising
///   s         information on these, both triangles, by columns, the other parameters having followed
///   next      packed elements; untouched where false comes back (present or s not positive definite)
bool nearest_inside(std::int64_t levels, const std::vector<double>& present, const std::vector<double>& target,
                    const std::vector<std::size_t>& elements, const std::vector<double>& s, std::vector<double>& next);

/// Whether some combination of levels has next to no variance left.
bool at_edge(std::int64_t levels, const std::vector<double>& packed);

}  // namespace tolvan
