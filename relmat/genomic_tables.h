// The relationship matrix of markers by itself, handed out as tables.  Routine: FORM_GENOMIC_TABLES.
#pragma once

#include "api/error_handler.h"
#include "api/table_store.h"
#include "base/json.h"

namespace tolvan {

/// FORM_GENOMIC_TABLES: forms the matrix of the last entry of marker_file and hands it out, not inverted.
///   TABLE_GRM       VALUES: the lower triangle by rows
///   TABLE_GRM_UID   UID: the labels of the rows
///   SCALAR_GRM_GENOTYPES, SCALAR_GRM_MARKERS, SCALAR_GRM_USED (markers that vary), SCALAR_GRM_MISSING (values),
///   SCALAR_GRM_SCALE (what Z Z' was divided by)
void FORM_GENOMIC_TABLES(ERROR_HANDLER& eh, const JsonNode& request, OUTPUT_TABLE_STORE& tables);

}  // namespace tolvan
