// Whole files in and file names.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "app/problem.h"

namespace tolvan::driver {

/// Reads a whole file; "-" is the standard input.
Problem read_file(const std::string& path, std::vector<char>& out);
/// A file name taken from a document in a folder: a relative one is meant from that folder.
std::string beside(const std::string& document, const std::string& name);

}  // namespace tolvan::driver
