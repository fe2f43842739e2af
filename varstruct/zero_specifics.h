// Factor models with specific variances of zero: the form of their products, and the equations that bind such levels to the
// factors.  Routines: CHECK_FACTOR_PRODUCTS, BIND_ZERO_SPECIFICS.
#pragma once

#include "api/error_handler.h"
#include "data/design_matrix.h"
#include "model/term_table.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// BIND_ZERO_SPECIFICS: gives every level of fa() whose specific variance is fixed at zero the equation that binds it to the
/// factors, behind all others of its component, and numbers the equations of the model anew; those of rr() are there already.  Terms
/// that share fa() or rr() get the equations of factors and bindings here, behind those of the last of them.
///   factors, terms  level counts, first equations and counts of equations are brought up to date
///   design          equations get their new numbers
/// Called once, when starting values and constraints are final.
void BIND_ZERO_SPECIFICS(ERROR_HANDLER& eh, FACTOR_TABLE& factors, TERM_TABLE& terms, DESIGN_MTX& design, VARIANCE_MODEL& model);

/// CHECK_FACTOR_PRODUCTS: the place of a factor model in a product of three and more components, and of a known matrix beside it.
void CHECK_FACTOR_PRODUCTS(ERROR_HANDLER& eh, const TERM_TABLE& terms, const VARIANCE_MODEL& model);

}  // namespace tolvan
