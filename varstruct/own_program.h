// Structures that a user's own program forms: the exchange of files with it.  Routines: K4MOWN, AIDOWN.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "api/error_handler.h"
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

}  // namespace tolvan
