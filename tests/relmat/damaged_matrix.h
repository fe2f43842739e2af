// Files of matrices of every kind, whole and damaged: what must hold of reading whatever bytes.  Free of the test
// framework, so that other programs can hand their own bytes in.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "relmat/matrix_keys.h"

namespace tolvan {

/// A file of a matrix that reads well.
struct MATRIX_CASE {
  std::string name;  // of the file
  bool inverse = true;
  Coding_of_file coding = Coding_of_file::text;
  bool psd = false;
  std::string whole;       // the bytes
  std::int64_t order = 0;  // of what comes of it
};
std::span<const MATRIX_CASE> matrix_cases();

/// Reads bytes as the file of a case at a path and completes the matrix.  Gives what does not hold, empty where all
/// does: the outcome is a finite inverse, or a message that names the file, with the line or the element where there
/// is one, or the pivot that failed.
///   good   whether it was a matrix
std::string read_matrix_bytes(const MATRIX_CASE& as, const std::string& path, std::string_view bytes, bool* good = nullptr);

}  // namespace tolvan
