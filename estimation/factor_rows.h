// Triangular factors seen as the covariance matrix that they make, for its step.  Routines: as_covariances, as_factors.
#pragma once

#include <cstdint>
#include <vector>

namespace tolvan {

/// Factors with all of their elements, packed by rows with the diagonal D in its places: V = L D L', or V^-1 = U D U' with U_ij at
/// (j, i).  The step in V is the same to first order and far better behaved where levels nearly explain each other.
///   value, step       the parameters and their step; s: the information on them, both triangles, by columns
///   present, target   V and V + dV, packed by rows
///   information       on the elements of V
/// False where V is not positive definite or the change of parameters is singular.
bool as_covariances(bool of_precision, std::int64_t levels, const std::vector<double>& value, const std::vector<double>& step,
                    const std::vector<double>& s, std::vector<double>& present, std::vector<double>& target,
                    std::vector<double>& information);

/// The factors of a packed V; empty where it is not positive definite.
std::vector<double> as_factors(bool of_precision, std::int64_t levels, const std::vector<double>& packed);

}  // namespace tolvan
