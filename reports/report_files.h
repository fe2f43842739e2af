// The files that a run leaves beside its tables: which there are, how they are opened and put in their places.
// Routines: AIOPEN, OPENTXTCSV, WRITE_REPORT_FILES, PRTERRTXT, WRITE_RESIDUAL_REPORT.
//
//   .tlv  the primary report          .res  residual statistics      .vvp  variances of variance parameters
//   .sln  the table of solutions      .yht  the fitted values        .aov  Wald tests, added at its end
//   .veo  the equation order          .log  process times            .cii  equations of the terms in C-inverse
//   .tvs  the summary of the data     .kcv  cross-validation         .vrb  a brief dump for programs
//
// Files that a run opens at its start appear under their names when it ends; until then, and when anything fails, the
// earlier ones stay.  The primary report alone is shown while it is written, so that a fit can be followed; the earlier
// one waits beside it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "api/error_handler.h"
#include "api/fit_options.h"
#include "api/table_store.h"
#include "base/files.h"
#include "data/design_matrix.h"
#include "data/read_data.h"
#include "data/variable_table.h"
#include "estimation/fit_state.h"
#include "model/term_table.h"
#include "reports/timing.h"
#include "varstruct/parameter_files.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// The report files of one run.
struct REPORT_FILES {
  bool in_use = false;
  std::string stem;  // folder and root of the names
  FileWriter tlv, vvp, veo, res;
  std::size_t messages_told = 0;  // in the primary report
  bool begun = false;             // the primary report, up to the heading of the iterations
};

/// What the reports tell of.
struct RUN_REPORT {
  const std::string& title;
  const std::vector<std::string>& comments;
  const std::vector<std::string>& responses;  // their names, one a trait
  const ERROR_HANDLER& messages;
  const FIT_OPTIONS& options;
  const VARIABLE_TABLE& variables;
  const DATA_SUMMARY& summary;
  const TERM_TABLE& terms;
  const DESIGN_MTX& design;
  const VARIANCE_MODEL& model;
  const FIT_STATE& fit;
  const OUTPUT_TABLE_STORE& store;
  const TIMING_STORE& timing;
  const SAVED_ORDER& order;
};

/// AIOPEN: opens tlv, vvp, veo and res, in this order, under folder and root.
///   mode    "ASIS": new files; "APPEND": what stands in the text files comes first
///   folder  empty: the root as it is
/// A file that can not be opened ends the run.
void AIOPEN(ERROR_HANDLER& eh, std::string_view mode, const std::string& root, const std::string& folder,
            REPORT_FILES& files);
/// OPENTXTCSV: opens the text form of a table, <stem>.<extension>.
bool OPENTXTCSV(ERROR_HANDLER& eh, const std::string& stem, std::string_view extension, FileWriter& file);
/// WRITE_REPORT_FILES: fills all files of a run that has ended, however it did, and puts them in their places.
void WRITE_REPORT_FILES(ERROR_HANDLER& eh, const RUN_REPORT& run, REPORT_FILES& files);

/// PRTERRTXT: the listing of the model: structures, terms with their first parameters, residual sections.
std::string PRTERRTXT(const TERM_TABLE& terms, const VARIANCE_MODEL& model);
/// The parameters at the end of a fit, five a line.
std::string final_values_text(const VARIANCE_MODEL& model, const FIT_STATE& fit);
/// Starts the primary report of a fit that is about to begin: comments, messages so far, data, model, the heading of the
/// iterations.  From here on it can be followed under its name.
void begin_primary_report(const RUN_REPORT& run, REPORT_FILES& files);
/// The line of one iteration: number, LogL, sigma2, degrees of freedom, step size, restrained updates, which repeat of the
/// iteration it is, at most eight parameters.
std::string iteration_line(const ITERATION_ROW& row);
/// What follows the iterations, down to the timing table; what stands before them, too, where no fit was begun.
std::string rest_of_primary_report(ERROR_HANDLER& eh, const RUN_REPORT& run, const REPORT_FILES& files);
/// WRITE_RESIDUAL_REPORT: statistics of the residuals of each section, by trait, and the records that stand out.
///   responses   their names, one a trait
void WRITE_RESIDUAL_REPORT(const DESIGN_MTX& design, const VARIANCE_MODEL& model, const std::vector<std::string>& responses,
                           const OUTPUT_TABLE_STORE& store, FileWriter& file);

}  // namespace tolvan
