// Setting the parameter table up: starting variances, one structure a random term, the user's initial values,
// checks. Routines: STARTE, SETSTR, NEWSTR, VARIABLE_TABLE_GUTS, FORCE_GAMMA_INITIAL_VALUES, FIX_NULL_STRUCTURES,
// STRUCTURECHECK.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "api/communication.h"
#include "api/error_handler.h"
#include "api/fit_options.h"
#include "base/json.h"
#include "data/design_matrix.h"
#include "model/factor_table.h"
#include "model/term_table.h"
#include "varstruct/parameter_table.h"
#include "varstruct/residual_sections.h"

namespace tolvan {

/// STARTE: starting variances and covariances of the traits: lower triangle by rows, the last element a mark.
///   residual_fraction, term_fraction   0 for the defaults; traits: responses with missing marks, one a trait
void STARTE(ERROR_HANDLER& eh, double residual_fraction, double term_fraction,
            const std::vector<std::vector<double>>& traits, const std::vector<std::string>& names,
            std::vector<double>& starting);

/// SETSTR: loops over the random terms and the residual sections and appends their structures and parameters.
///   matrices  the known matrices of the run; rows point into them
///   residual  with the sizes of its components, as SORTRCOV leaves it
void SETSTR(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const FACTOR_TABLE& factors,
            const TERM_TABLE& terms, const AINV_MTXS& matrices, const std::vector<double>& starting,
            const RESIDUAL_MODEL& residual, VARIANCE_MODEL& model);

/// The equations of a term and of those that share its structure.
std::int64_t structure_equations(const TERM_TABLE& terms, std::int64_t head);

/// VARIABLE_TABLE_GUTS: names every parameter: "<term>;<component.><MODEL>_<letter><_index>", unique.
void VARIABLE_TABLE_GUTS(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const TERM_TABLE& terms,
                         VARIANCE_MODEL& model);

/// FORCE_GAMMA_INITIAL_VALUES: lays initial_values of the request and of its terms over the table.
///   store, design  for `subsection`; the design is sorted to the residual
void FORCE_GAMMA_INITIAL_VALUES(ERROR_HANDLER& eh, const JsonNode& request, const FACTOR_TABLE& factors,
                                const TERM_TABLE& terms, const DATA_STORE& store, const DESIGN_MTX& design,
                                VARIANCE_MODEL& model);

/// FIX_NULL_STRUCTURES: holds the parameters (code S) on which the likelihood does not depend since no record has the levels that
/// they are of: all of a term such as zero(), some of diag() over a factor with an empty level.
void FIX_NULL_STRUCTURES(ERROR_HANDLER& eh, const TERM_TABLE& terms, const DESIGN_MTX& design, VARIANCE_MODEL& model);

/// STRUCTURECHECK: the last check of the table before the fit.  Where the information matrix is not damped,
/// the loadings of several factors are turned so that some are zero and fixed.
void STRUCTURECHECK(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const TERM_TABLE& terms,
                    const DESIGN_MTX& design, VARIANCE_MODEL& model);

}  // namespace tolvan
