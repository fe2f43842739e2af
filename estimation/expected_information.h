// How far the average information is from the expected one.  Plain routines without frame.
#pragma once

#include <vector>

#include "estimation/update_parameters.h"

namespace tolvan {

/// The ratio of what the data say to what the parameters promise, y'P Vdot P y / tr(P Vdot), one an active parameter; 1 where it is
/// not defined.
///
/// At the optimum it is 1.  Where variances start far too large or too small it is far from 1, and the average information
/// 0.5 y'P Vdot P Vdot P y is about as many times the expected information 0.5 tr(P Vdot P Vdot), whose steps are exact for
/// balanced data (Patterson & Thompson 1971; Gilmour, Thompson & Cullis 1995).  A variance that stands by itself has its own ratio,
/// other parameters have that of the whole product which they belong to; those of sizes_of_residual() have 1.
///   information  not in units, with its quadratic parts; values are those of the model
std::vector<double> data_ratios(const VARIANCE_MODEL& model, const INFORMATION& information);

/// Divides the information of two parameters by the root of the product of their ratios.
void make_expected(const std::vector<double>& ratio, INFORMATION& information);

}  // namespace tolvan
