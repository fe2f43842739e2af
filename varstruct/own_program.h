// Structures that a user's own program forms: what a request says of them, and the exchange of files with the program.
// Routines: K4MOWN, AIDOWN, SETUP_OWN_PROGRAMS.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "api/error_handler.h"
#include "base/json.h"
#include "model/term_table.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// What the program gave: the matrix first, then its derivative by each parameter; packed lower triangles by
/// rows.
struct OWN_MATRICES {
  std::vector<std::vector<double>> matrices;
};

/// The names of the two files: "mine.data" with control 3 gives "mineA3.own" and "mine.gdg".
struct OWN_FILES {
  std::string own, gdg;
};
OWN_FILES own_files(std::string_view file, std::int64_t control);

/// AIDOWN: writes the parameters, runs the program through the shell, waits, and reads what it wrote.
///   n       order of the matrices
///   values  the parameters
/// False, with a terminating error: the exchange failed.
///
/// A matrix in the program's file is n(n + 1)/2 numbers in (6D14.7), or, known by a first line of four fields
/// of which two are integers, one cell a line: row, column, value, and 0 where more cells follow, 1 at the
/// last one of the matrix, -1 at the last one of the file, after which the remaining matrices are zero.
bool AIDOWN(ERROR_HANDLER& eh, const OWN_PROGRAM& program, std::int64_t n, std::span<const double> values,
            OWN_MATRICES& out);

/// The forms in which a row takes what its program gives.
enum class OwnForm { plain, diagonal, inverse };

/// K4MOWN: gets the matrices of a row at the present parameters from its program; a diagonal row takes only
/// the diagonals, n numbers each.
bool K4MOWN(ERROR_HANDLER& eh, const STRUCTURE_ROW& row, const VARIANCE_MODEL& model, OwnForm& form,
            OWN_MATRICES& out);

/// SETUP_OWN_PROGRAMS: gives components of the model to programs: the request's list `own` of entries with
///   term       a random term, or the residual
///   component  the factor whose row it is, where the term has several; the model says id() of it, or nothing
///   program    the command; blank: the user runs it by hand before the fit
///   file       what the exchange files are named after; "own" when absent
///   control    a number handed through;  form  "plain", "diagonal" or "inverse"
///   values     starting values, one a parameter; or `parameters`, their count, to start at the default
/// Called behind SETSTR, before parameters get their labels.
void SETUP_OWN_PROGRAMS(ERROR_HANDLER& eh, const JsonNode& request, const FACTOR_TABLE& factors, const TERM_TABLE& terms,
                        VARIANCE_MODEL& model);

}  // namespace tolvan
