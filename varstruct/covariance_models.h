// The models whose parameters are elements or factors of a covariance matrix: their makers.  Plain functions.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "varstruct/component_matrix.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// One variance a level (DIAG).  A variance of exactly 0 takes its level out: the inverse holds `gone_level`
/// for it, far above anything that data say, so that its effects are 0 and log|C| and log|R| keep their sum;
/// it has no derivative.
std::unique_ptr<COMPONENT_MATRIX> make_diagonal(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model);
inline constexpr double gone_level = 1e30;

/// V by its elements (US), packed lower triangle by rows.  A matrix that is not positive definite is mended
/// in the parameters.
std::unique_ptr<COMPONENT_MATRIX> make_unstructured(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model);

/// Factor models on the correlation scale (FA) and on the covariance scale (FACV): k loadings a level, factor
/// after factor, then one number a level.
///     FA    V = D (L L' + Psi) D,  Psi_i = 1 - sum of l_ij^2,  the last n parameters are D_i^2
///     FACV  V = L L' + Psi,        the last n parameters are Psi_i
std::unique_ptr<COMPONENT_MATRIX> make_factor_analytic(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model);

/// Factors on the variance scale (CHOL): V = L D L', packed lower triangle with D_i at (i, i) and L_ij at (i,
/// j).
std::unique_ptr<COMPONENT_MATRIX> make_cholesky(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model);

/// Factors on the information scale (ANTE): V^-1 = U D U', U unit upper triangular with the row's band;
/// packed lower triangle with D_i at (i, i) and U_ij, i < j, at (j, i).  The inverse is banded.
std::unique_ptr<COMPONENT_MATRIX> make_antedependence(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model);

/// The antedependence of an order that is nearest to a covariance matrix, in its place: every level is
/// regressed on the `order` levels before it; U beyond the band is 0.  False if the matrix is not positive
/// definite; it is as it was then.
bool antedependence_from_covariance(std::int64_t n, std::int64_t order, std::span<double> packed);

/// The model with factor effects (XFA), of any mix of zero and positive specific variances: see
/// extended_factors.h.
std::unique_ptr<COMPONENT_MATRIX> make_extended_factors(const STRUCTURE_ROW& row,
                                                        const VARIANCE_MODEL& model);

/// The user's own (OWN): R, or its inverse, and its derivatives come from the user's own program.
std::unique_ptr<COMPONENT_MATRIX> make_own(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model);

/// The name of the term that owns a row, as its labels give it: "site:gen" of "site:gen;site.US_V_1_1".
std::string_view term_of_row(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model);

}  // namespace tolvan
