// What a run that fits nothing tells of its data and its model.
// Routines: STORE_DATA_SUMMARY_TABLES, STORE_TERMS_TABLE.
#pragma once

#include "api/error_handler.h"
#include "api/table_store.h"
#include "data/design_matrix.h"
#include "data/read_data.h"
#include "data/variable_table.h"
#include "model/term_table.h"

namespace tolvan {

/// STORE_DATA_SUMMARY_TABLES: registers TABLE_DATA_SUMMARY, a row a variable, TABLE_LEVEL_COUNTS, a row a
/// level of the factors, and SCALAR_DATA_RECORDS.
void STORE_DATA_SUMMARY_TABLES(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables,
                               const DATA_SUMMARY& summary, std::int64_t records, OUTPUT_TABLE_STORE& store);
/// STORE_TERMS_TABLE: registers TABLE_TERMS, a row a term with its part of the model and its equations, and
/// SCALAR_ANALYSIS_RECORDS.  Residual sections have no equations.
void STORE_TERMS_TABLE(ERROR_HANDLER& eh, const TERM_TABLE& terms, const DESIGN_MTX& design,
                       OUTPUT_TABLE_STORE& store);

}  // namespace tolvan
