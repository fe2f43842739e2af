// Characters as UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace tolvan::driver {

void append_utf8(std::string& out, unsigned code);
bool is_utf8(std::string_view s);
/// A text of Windows-1252, which holds Latin-1 but for control characters, as UTF-8.
std::string utf8_from_windows(std::string_view s);

}  // namespace tolvan::driver
