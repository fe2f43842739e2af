// How the parameters of series models are kept in their space.  Plain functions; values change in place.
#pragma once

#include "varstruct/component_matrix.h"

namespace tolvan {

/// For AR1, a value at or beyond the limit goes to it, with code B; on the first iteration it starts well inside.
void bound_ar1(const FORM_CONTEXT& context, VARIANCE_PARAMETER& rho);
/// For AR2 and MA2, |a + b| and |b - a| at most 0.99, each by a division of both.
void bound_pair(double& a, double& b);
/// For AR3, |a + b + c| and |b - a - c| likewise, then every partial autocorrelation below 0.99.
void bound_triple(double& a, double& b, double& c);
/// For SAR, a value beyond 0.995 is divided by its size plus 0.01.
void bound_root(double& g);
/// For MA1, a value beyond 0.99 goes back to 0.995.
void bound_ma1(double& theta);
/// For ARMA, both are held within 0.999, then apart from each other: equal ones cancel and leave nothing to
/// estimate.  The gap is 0.001, and 0.1 where the first iteration finds less than that: from so near their
/// derivatives tell the two from each other.
void bound_arma(double& phi, double& theta, bool first_iteration);

}  // namespace tolvan
