// Data files of every kind, whole and damaged: what must hold of reading whatever bytes.  Free of the test
// framework, so that other programs can hand their own bytes in.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace tolvan {

/// A file that reads well, and the request that reads it.
struct READ_CASE {
  std::string name;       // of the file: tells binary kinds
  std::string keys;       // of data_file besides its name
  std::string variables;  // the list
  std::string whole;      // the bytes
  std::int64_t records = 0;
};
/// One case for each kind: csv, dsv, text, columns, bin, srs, dbl, drs, dpr.
std::span<const READ_CASE> read_cases();
/// The case of a name, told by the start of it.
const READ_CASE& read_case(std::string_view name);

/// Reads bytes as the file of a case.  Gives what does not hold, empty where all does: the outcome is rows of
/// finite numbers and known levels, or a message that names the file, the record and the line or byte.
///   path   a file that is written over in place: making one anew can take milliseconds
std::string read_bytes(const READ_CASE& as, const std::string& path, std::string_view bytes,
                       std::int64_t* records = nullptr);

}  // namespace tolvan
