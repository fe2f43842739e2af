// Pedigree files, whole and damaged: what must hold of reading whatever bytes.  Free of the test framework, so that
// other programs can hand their own bytes in.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace tolvan {

/// A pedigree file that reads well.
struct PEDIGREE_CASE {
  std::string name;       // of the case
  std::string keys;       // of the entry besides its name
  std::string whole;      // the bytes
  std::int64_t rows = 0;  // of what comes of it
};
std::span<const PEDIGREE_CASE> pedigree_cases();

/// Reads bytes as the file of a case at a path.  Gives what does not hold, empty where all does: the outcome is a
/// pedigree in order with a finite inverse, or a message that names the file, a line or an individual.
///   good   whether it was a pedigree
std::string read_pedigree_bytes(const PEDIGREE_CASE& as, const std::string& path, std::string_view bytes,
                                bool* good = nullptr);

}  // namespace tolvan
