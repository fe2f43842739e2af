// From the last evaluation to what is reported: effects on the scale of the data, standard errors, criteria.
// Routines: K4MFIN, AIRHAT.
#pragma once

#include "api/error_handler.h"
#include "api/table_store.h"
#include "estimation/evaluation.h"
#include "estimation/fit_state.h"

namespace tolvan {

/// K4MFIN: fills the reported quantities of a fit from an evaluation whose factor still holds the elements of C-inverse.
void K4MFIN(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, FIT_WORK& work, EVALUATION& ev, FIT_STATE& fit);

/// AIRCINV: registers TABLE_CINV, the elements of C-inverse on the pattern of C, lower triangle by rows in the equations of the
/// model, and TABLE_CINV_INFO, the equations of the terms.  The factor holds C-inverse; a warning where there is none.
///   chosen   names of terms whose elements alone are wanted, "random" for all random terms; empty: all elements
///   to_file  the elements chosen go to a file, too, which is told
void AIRCINV(ERROR_HANDLER& eh, const TERM_TABLE& terms, const MIXED_EQUATIONS& equations, int threads,
             const std::vector<std::string>& chosen, bool to_file, OUTPUT_TABLE_STORE& store);

/// AIRHAT: the leverages, diagonal of W C^-1 W'R^-1, one an analysis record.
void AIRHAT(ERROR_HANDLER& eh, const FIT_MODEL& in, const MIXED_EQUATIONS& equations, int threads, std::vector<double>& hat);

}  // namespace tolvan
