// What happens to records with missing responses or missing design values.  Routine: REPORT_MISSING_VALUES.
#pragma once

#include <cstdint>

#include "api/error_handler.h"
#include "api/fit_options.h"
#include "model/term_table.h"

namespace tolvan {

/// The option missing_values.
enum class MissingTreatment { fail, include, remove };

struct MISSING_COUNTS {
  MissingTreatment treatment = MissingTreatment::fail;
  std::int64_t responses = 0;         // missing as they came
  std::int64_t dropped = 0;           // records dropped for their response, annulled ones included
  std::int64_t removed = 0;           // records left out for their design values
  std::int64_t design_values = 0;     // missing design values of records with a response
  std::int64_t design_without_y = 0;  // missing design values of records without one
};

/// What becomes of a record: part of the analysis, with its response estimated by mv, or no part of it.
enum class RecordFate { kept, estimated, dropped };

MissingTreatment missing_treatment(const FIT_OPTIONS& options);

/// Decides about one record and counts it.
///   missing   design values that the record lacks
RecordFate fate_of_record(bool response_missing, std::int64_t missing, bool has_mv, MISSING_COUNTS& counts);

/// REPORT_MISSING_VALUES: tells how missing values were treated, and fails where the options or the family
/// say so.
void REPORT_MISSING_VALUES(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const MODEL_INFO& info,
                           const MISSING_COUNTS& counts);

}  // namespace tolvan
