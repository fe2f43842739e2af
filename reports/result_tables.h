// The named tables and scalars that a fit leaves.  Routines: HANDLE_TRACE, STORE_INITIAL_VALUES_TABLE,
// CHUNK_OF_AIDRPT, MATPRT, TABLE_SLN, AIDRST, STORE_FIELD_TABLES, AIDRPT, STORE_DESIGN_MTX_TABLE, STORE_FIT_SCALARS, WARNING.
#pragma once

#include <string>
#include <string_view>

#include "api/communication.h"
#include "api/error_handler.h"
#include "api/table_store.h"
#include "base/files.h"
#include "data/design_matrix.h"
#include "data/variable_table.h"
#include "estimation/fit_state.h"
#include "model/factor_table.h"
#include "model/term_table.h"
#include "relmat/genomic_matrix.h"
#include "relmat/structure_matrices.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// HANDLE_TRACE: adds the last row of the trace to TABLE_TRACE, hands it to the monitor and adds its line to the report.
///   report   shown at once, for one who follows it; null: none
void HANDLE_TRACE(ERROR_HANDLER& eh, COMMUNICATION& communication, const FIT_STATE& fit,
                  std::int64_t iteration_limit, FileWriter* report, OUTPUT_TABLE_STORE& store);
/// FINISH_TRACE: sizes TABLE_TRACE to the rows made and adds the columns of the parameters.
void FINISH_TRACE(ERROR_HANDLER& eh, const FIT_STATE& fit, OUTPUT_TABLE_STORE& store);
/// STORE_INITIAL_VALUES_TABLE: registers TABLE_INITVALS; labels must be unique.
void STORE_INITIAL_VALUES_TABLE(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, OUTPUT_TABLE_STORE& store);
/// STORE_FIT_SCALARS: the scalars of the fit: LogL, sigma2, df, criteria.
void STORE_FIT_SCALARS(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, const FIT_STATE& fit,
                       OUTPUT_TABLE_STORE& store);
/// CHUNK_OF_AIDRPT: registers TABLE_VARCOMP with its footnotes, and TABLE_VARVAR.
void CHUNK_OF_AIDRPT(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, const FIT_STATE& fit,
                     OUTPUT_TABLE_STORE& store);
/// TABLE_SLN: registers the table of the same name: the solutions of all terms in model order.
void TABLE_SLN(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
               const TERM_TABLE& terms, const FIT_STATE& fit, OUTPUT_TABLE_STORE& store);
/// AIDRST: registers TABLE_YHT: a row a data record, in the order of the data.
void AIDRST(ERROR_HANDLER& eh, const DESIGN_MTX& design, const FIT_STATE& fit, OUTPUT_TABLE_STORE& store);
/// MATPRT: registers for every structure with a matrix of its own TABLE_FACTOR_COVCOR (covariances below the diagonal,
/// variances on it, correlations above, on the reported scale) and TABLE_FACTOR_EIGEN; from the second on with _2, _3 ...
void MATPRT(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, const FIT_STATE& fit, OUTPUT_TABLE_STORE& store);
/// STORE_FIELD_TABLES: registers for every residual section of two dimensions TABLE_FIELD, the rows and columns of its records,
/// counted from 1; from the second on with _2, _3 ...  Fields of more than 40000 cells have none.
void STORE_FIELD_TABLES(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const DESIGN_MTX& design, const VARIANCE_MODEL& model,
                        OUTPUT_TABLE_STORE& store);
/// STORE_DESIGN_MTX_TABLE: registers TABLE_DESIGN_MTX, the elements of the design by record (a row a trait) and equation.
void STORE_DESIGN_MTX_TABLE(ERROR_HANDLER& eh, const DESIGN_MTX& design, OUTPUT_TABLE_STORE& store);
/// Markers and matrices of a fit whose effects are told; null: none.
struct GENOMIC_RESULTS {
  const GENOMIC_MODELS* models = nullptr;
  const AINV_MTXS* matrices = nullptr;
};

/// AIDRPT: the result tables in their order: components, their variances, matrices of structures, effects of markers, solutions, fitted values, fields.
void AIDRPT(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
            const TERM_TABLE& terms, const DESIGN_MTX& design, const VARIANCE_MODEL& model,
            const FIT_STATE& fit, const GENOMIC_RESULTS& genomic, OUTPUT_TABLE_STORE& store);
/// WARNING: works out the final status of a run from a text and stores SCALAR_CONVERGENCE_FLG and
/// SCALAR_FINAL_MESSAGE.
///   text               the fit's status, or the stage that a stopped run had reached
///   convergence_flag   of a fit that ended normally: 0 converged, 2 not converged; of a stopped run: 1
/// A kind at the head of a fit's status ("Warning: ...") also leaves a message of that kind, which stops
/// nothing.
void WARNING(ERROR_HANDLER& eh, std::string_view text, std::int64_t convergence_flag,
             OUTPUT_TABLE_STORE& store);

/// The document that the monitor receives for one row of the trace.
std::string monitor_json(const ITERATION_ROW& row);

}  // namespace tolvan
