// The files that hold variance parameters between runs, and what a run takes from them.
// Routines: AIOPENRSV, RSTRUCTURE, AIDCON_RETRIEVE (.rsv), TSVIO_WRITE, TSVIO_READ (.tsv, .msv, .esv),
// SAVE_PARAMETERS, HANDLE_RSV_FILE, HOLD_PARAMETERS.
//
//   .rsv  values between runs, not meant to be edited; rows of the structure table are found by their names
//   .tsv  a table that a user edits: values, constraint letters, relations; rewritten after every iteration
//   .msv  the same table as a file of the user's own: one that stands is never written over
//   .esv  the same, of which rows may be left out; in use only where the request names such a file
//   .veo  the equation order (equation_order_file.h)
//
// A reader takes a file as a whole or not at all: whatever is wrong with it is told and the parameters stay
// as the model has them; only an implausible value in an .rsv file keeps what stood before it.  Files are
// written beside their place and renamed: a fault is told once and leaves the earlier file.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "api/error_handler.h"
#include "api/fit_options.h"
#include "base/files.h"
#include "model/term_table.h"
#include "varstruct/equation_order_file.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// The parameter files of one run.
struct PARAMETER_FILES {
  bool in_use = false;
  std::string base;      // folder and root: "<base>.rsv"
  std::string response;  // as the files name it: "yield"; several with a blank between
  std::string msv, esv;  // names of tables to write where none stands yet; empty for none
  SAVED_ORDER order;     // of the equations, as read, then as in use
  bool fault_told = false;

  /// The folder of the run, with its slash; empty for the working folder.
  std::string folder() const { return base.find('/') == std::string::npos ? std::string() : base.substr(0, base.rfind('/') + 1); }
};

/// What TSVIO_WRITE writes, by its operation code.
enum class TableFile : std::int64_t { tsv = 1, msv = 3, esv = 4 };
/// The form that a file's name asks for: .esv, .msv, anything else .tsv.
TableFile table_file_of(std::string_view name);

/// AIOPENRSV: opens <base>.rsv to be written; false with a message where that fails.
bool AIOPENRSV(ERROR_HANDLER& eh, const std::string& base, FileWriter& file);
/// RSTRUCTURE: writes the .rsv file with the values given for the parameters.
void RSTRUCTURE(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, std::span<const double> values,
                const std::string& base, const std::string& response);
/// TSVIO_WRITE: writes a table of parameters with the values given for them.
void TSVIO_WRITE(ERROR_HANDLER& eh, TableFile form, const VARIANCE_MODEL& model,
                 std::span<const double> values, const std::string& name, const std::string& response);

/// AIDCON_RETRIEVE: takes values over from an .rsv file, row by row of the structure table, and the equation order
/// from the .veo file beside it.
void AIDCON_RETRIEVE(ERROR_HANDLER& eh, const TERM_TABLE& terms, const std::string& name, PARAMETER_FILES& files,
                     VARIANCE_MODEL& model);
/// TSVIO_READ: takes values, constraint letters and relations over from a table; false when nothing was taken.
bool TSVIO_READ(ERROR_HANDLER& eh, const std::string& name, const PARAMETER_FILES& files, VARIANCE_MODEL& model);

/// HANDLE_RSV_FILE: takes up what continue, final, tsv and msv ask for, in this order, each over what the one before it
/// took.  A file that the request names must be there; one of the run's own name may be missing.
void HANDLE_RSV_FILE(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const TERM_TABLE& terms, PARAMETER_FILES& files,
                     VARIANCE_MODEL& model);
/// HOLD_PARAMETERS: fixes the parameters of the option hold, by number, at the values that they have.
void HOLD_PARAMETERS(ERROR_HANDLER& eh, const FIT_OPTIONS& options, VARIANCE_MODEL& model);

/// SAVE_PARAMETERS: brings all parameter files up to the values given; nothing when the run uses none.  A fault is a
/// warning, told once a run.
void SAVE_PARAMETERS(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, std::span<const double> values,
                     PARAMETER_FILES& files);
/// The values that the parameters have now.
std::vector<double> parameter_values(const VARIANCE_MODEL& model);

}  // namespace tolvan
