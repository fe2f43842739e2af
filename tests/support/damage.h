// Files that get damaged: written over in place, and changed at random.  Free of the test framework, so that other
// programs can use it.
#pragma once

#include <random>
#include <string>
#include <string_view>

#include "api/error_handler.h"

namespace tolvan {

/// Writes a file over in place, since making one anew can take milliseconds; false where that can not be.
bool write_over(const std::string& path, std::string_view bytes);

/// Bytes after one to five changes, each of them: a letter that means something put over or between others, any byte, a
/// few bytes out, a piece doubled.
///   letters   that mean something
std::string changed_at_random(std::string bytes, std::string_view letters, std::mt19937& random);

/// Whether every message about a line that could not be read tells its number.
bool lines_are_told(const ERROR_HANDLER& eh);

}  // namespace tolvan
