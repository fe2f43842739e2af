// Imputation of missing responses, in rounds that follow a converged fit.  Routine: K4MIMPT.
#pragma once

#include "api/error_handler.h"
#include "estimation/evaluation.h"
#include "estimation/fit_driver.h"
#include "estimation/fit_state.h"

namespace tolvan {

/// K4MIMPT: replaces what a converged fit reports by averages over rounds of imputation, as many as the option asks for, and
/// registers TABLE_VPARSUM.
///
/// Data augmentation (Tanner & Wong 1987): a round draws the missing responses from their distribution given the known ones and
/// the parameters, evaluates the data so completed, and takes one step of the parameters from there.  A first round goes before
/// those that count.  Effects are averages; the square of their standard error is the mean prediction error variance plus the
/// variance between rounds, which together are the prediction error variance given the known responses.
///   fit   changed: parameters, solutions, standard errors, fitted values, residuals, status
/// A model without missing responses, or without a factor that can be drawn from, is left as it is with a warning.
void K4MIMPT(ERROR_HANDLER& eh, FIT_CALL& call, const FIT_MODEL& in, const FIT_WORK& work, FIT_STATE& fit);

}  // namespace tolvan
