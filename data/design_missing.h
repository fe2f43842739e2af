// What happens to records with missing responses or missing design values.  Routine: REPORT_MISSING_VALUES.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "api/error_handler.h"
#include "api/fit_options.h"
#include "data/variable_table.h"
#include "model/term_table.h"

namespace tolvan {

/// The option missing_values.
enum class MissingTreatment { fail, include, remove };

struct MISSING_COUNTS {
  MissingTreatment treatment = MissingTreatment::fail;
  std::int64_t responses = 0;         // missing as they came
  std::int64_t dropped = 0;           // analysis records dropped for their response, annulled ones included
  std::int64_t removed = 0;           // analysis records left out for their design values
  std::int64_t design_values = 0;     // missing design values of data records with a response
  std::int64_t design_without_y = 0;  // missing design values of data records without any
  bool uneven = false;                // some data record lost some of its traits and kept others
  std::string variables;              // that lack design values, with how many: "x 2, a 1"
};

/// What becomes of a record: part of the analysis, with its response estimated by mv, or no part of it.
enum class RecordFate { kept, estimated, dropped };

MissingTreatment missing_treatment(const FIT_OPTIONS& options);

/// Decides about one analysis record and counts it.
///   missing   it lacks a design value
RecordFate fate_of_record(bool response_missing, bool missing, bool has_mv, MISSING_COUNTS& counts);

/// Counts each missing design value of a data record once, whichever traits it concerns: with the responses if one of
/// these traits has its response.
class MISSING_VALUES {
 public:
  explicit MISSING_VALUES(std::int64_t columns)
      : met_(static_cast<std::size_t>(columns), Met::no),
        with_y_(static_cast<std::size_t>(columns), 0),
        without_y_(static_cast<std::size_t>(columns), 0)
  {
  }
  void note(std::size_t column, bool response_missing)
  {
    if (met_[column] == Met::no) columns_.push_back(column);
    if (met_[column] != Met::with_y) met_[column] = response_missing ? Met::without_y : Met::with_y;
  }
  void close_record(MISSING_COUNTS& counts);
  /// Names the variables of the values counted: of those with a response, if there are any.
  void name_variables(const VARIABLE_TABLE& variables, MISSING_COUNTS& counts) const;

 private:
  enum class Met : std::uint8_t { no, without_y, with_y };
  std::vector<Met> met_;              // by column, in this record
  std::vector<std::size_t> columns_;  // those met
  std::vector<std::int64_t> with_y_, without_y_;  // by column, in all records
};

/// REPORT_MISSING_VALUES: tells how missing values were treated, and fails where the options or the family
/// say so.
void REPORT_MISSING_VALUES(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const MODEL_INFO& info,
                           const MISSING_COUNTS& counts);

}  // namespace tolvan
