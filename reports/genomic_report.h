// What a fit tells of markers: their effects, and how well genotypes are predicted.  Routines: GBLUPEFFECTS, GBLUPREPORT.
#pragma once

#include "api/error_handler.h"
#include "api/table_store.h"
#include "estimation/fit_state.h"
#include "model/factor_table.h"
#include "model/term_table.h"
#include "relmat/genomic_matrix.h"
#include "relmat/structure_matrices.h"

namespace tolvan {

/// GBLUPEFFECTS: works out the effects of the markers from those of the genotypes, writes them to a .mef file and
/// registers TABLE_MARKER_EFFECTS; a term of several components has none, and a warning says so.
void GBLUPEFFECTS(ERROR_HANDLER& eh, const GENOMIC_MODELS& genomic, const AINV_MTXS& matrices,
                  const FACTOR_TABLE& factors, const TERM_TABLE& terms, const FIT_STATE& fit, OUTPUT_TABLE_STORE& store);

/// GBLUPREPORT: registers TABLE_GBLUP, the genotypes' effects with their prediction error variances.
void GBLUPREPORT(ERROR_HANDLER& eh, const GENOMIC_MODELS& genomic, const AINV_MTXS& matrices,
                 const FACTOR_TABLE& factors, const TERM_TABLE& terms, const FIT_STATE& fit, OUTPUT_TABLE_STORE& store);

}  // namespace tolvan
