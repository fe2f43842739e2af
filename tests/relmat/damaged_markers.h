// Files of markers of every kind, whole and damaged: what must hold of reading whatever bytes.  Free of the test
// framework, so that other programs can hand their own bytes in.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace tolvan {

/// A file of markers that reads well.
struct MARKER_CASE {
  std::string name;     // of the file, which tells its kind
  std::string keys;     // of the entry besides its name
  std::string whole;    // the bytes
  long genotypes = 0, regressors = 0;
};
/// A case for each form of text, and one for each of the three files bed, bim, fam.
std::span<const MARKER_CASE> marker_cases();
const MARKER_CASE& marker_case(std::string_view name);

/// Reads bytes as the file of a case in a folder and forms the matrix.  Gives what does not hold, empty where all does:
/// the outcome is a finite matrix, or a message that names the file and, for what a line holds, the line.
///   good   whether it was a matrix
std::string read_marker_bytes(const MARKER_CASE& as, const std::string& folder, std::string_view bytes,
                              bool* good = nullptr);

}  // namespace tolvan
