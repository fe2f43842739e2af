// The fit driver: the iteration, its judgement, and the reports that follow it.  Routine: AIWORK.
#pragma once

#include "api/communication.h"
#include "api/error_handler.h"
#include "api/fit_options.h"
#include "api/table_store.h"
#include "data/design_matrix.h"
#include "data/variable_table.h"
#include "estimation/fit_state.h"
#include "model/factor_table.h"
#include "model/term_table.h"
#include "reports/result_tables.h"
#include "reports/timing.h"
#include "varstruct/parameter_files.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// What a fit is handed by the set-up.
struct FIT_CALL {
  const FIT_OPTIONS& options;
  COMMUNICATION& communication;
  const VARIABLE_TABLE& variables;
  const FACTOR_TABLE& factors;
  const TERM_TABLE& terms;
  const DESIGN_MTX& design;
  VARIANCE_MODEL& model;        // values and codes change
  TIMING_STORE& timing;
  OUTPUT_TABLE_STORE& tables;   // receives the trace, the result tables and the scalars
  PARAMETER_FILES* files = nullptr;  // kept up to date during the fit; null: none
  GENOMIC_RESULTS genomic = {};      // markers whose effects are told
  FileWriter* report = nullptr;      // receives a line an iteration; null: none
};

/// AIWORK: fits a model by iterated average-information REML and stores its tables and scalars.
///
/// On failure eh holds the reason and whatever could be formed is in the tables.  The status of the fit is stored as
/// SCALAR_CONVERGENCE_FLG and SCALAR_FINAL_MESSAGE in every case but a refusal before the first iteration.
void AIWORK(ERROR_HANDLER& eh, FIT_CALL& call, FIT_STATE& fit);

}  // namespace tolvan
