// CORE_DATA: everything that one run works on, made anew for each process call.  Routine: CDT_INITIALISE.
#pragma once

#include <cstdint>
#include <string>

#include "api/api_options.h"
#include "api/communication.h"
#include "api/error_handler.h"
#include "api/fit_options.h"
#include "api/table_store.h"
#include "base/json.h"
#include "data/data_store.h"
#include "data/dataset.h"
#include "data/design_matrix.h"
#include "data/file_covariates.h"
#include "data/read_data.h"
#include "data/variable_table.h"
#include "estimation/cross_validation.h"
#include "estimation/fit_state.h"
#include "model/factor_table.h"
#include "model/term_table.h"
#include "relmat/genomic_matrix.h"
#include "reports/report_files.h"
#include "reports/timing.h"
#include "varstruct/parameter_files.h"
#include "varstruct/parameter_table.h"
#include "varstruct/residual_sections.h"

namespace tolvan {

struct CORE_DATA {
  // What the run is given; all of it outlives the run.
  JsonNode& request;  // standardised
  const TLV_OPTIONS& api_options;
  COMMUNICATION& communication;  // the words and symbols of the model language, the monitor
  const USER_DATASET_STORE& datasets;
  OUTPUT_TABLE_STORE& tables;

  // The run's own.
  std::string title, part_id;
  std::vector<std::string> comments;  // a line each
  std::vector<std::string> responses;  // their names, one a trait
  std::string file_root;
  FIT_OPTIONS options;
  PRIMARY_DATA primary;
  VARIABLE_TABLE variables;
  DATA_STORE data;
  DATA_SUMMARY summary;
  FACTOR_TABLE factors;
  TERM_TABLE terms;
  MODEL_INFO model_info;
  DESIGN_MTX design;
  AINV_MTXS matrices;  // known matrices: structures point into them
  GENOMIC_MODELS genomic;       // markers that are looked at again after the fit
  COVARIATE_TABLES covariates;  // read ahead of the design
  RESIDUAL_MODEL residual;
  VARIANCE_MODEL variances;
  FIT_STATE fit;
  KCV_REQUEST cross_validation;
  TIMING_STORE timing;
  REPORT_FILES report_files;
  PARAMETER_FILES parameter_files;

  CORE_DATA(JsonNode& request_, const TLV_OPTIONS& api_options_, COMMUNICATION& communication_,
            const USER_DATASET_STORE& datasets_, OUTPUT_TABLE_STORE& tables_)
      : request(request_),
        api_options(api_options_),
        communication(communication_),
        datasets(datasets_),
        tables(tables_)
  {
  }
  CORE_DATA(const CORE_DATA&) = delete;
  CORE_DATA& operator=(const CORE_DATA&) = delete;

  bool prints(DebugPrint bit) const { return api_options.prints(bit); }
  /// What the report files tell of; messages are those of the run.
  RUN_REPORT report(const ERROR_HANDLER& messages) const
  {
    return {title, comments, responses, messages, options, variables, summary, terms, design, variances, fit, tables, timing, parameter_files.order};
  }
  /// Whether the request asks for no more than the set-up.
  bool preprocess_only() const { return options(Slot::process_stage) == 1; }
};

/// CDT_INITIALISE: puts the run's mode, its language and its way of reporting in place.
void CDT_INITIALISE(ERROR_HANDLER& eh, CORE_DATA& core);
/// The words for a run mode: "API", "<UNKNOWN>", ...
std::string run_mode_name(std::int64_t mode);
/// The options that need report files, where the request sets one: the key that asks for files, else empty.
std::string key_that_asks_for_files(const CORE_DATA& core);

}  // namespace tolvan
