// Functions of one number that make one covariate: pow, sin, cos, ..., and the comparisons.
#pragma once

#include "model/design_kinds.h"

namespace tolvan {

/// f(x; a, b), with a and b the arguments of the factor row; not finite where it is undefined.
using CovariateFunction = double (*)(double x, double a, double b);

/// The function of a kind; null for kinds that make no single covariate.
CovariateFunction covariate_function(DesignKind kind);
/// True for the comparisons, whose value is 1 or 0: a term with one has no design where it is 0.
bool is_comparison(DesignKind kind);

}  // namespace tolvan
