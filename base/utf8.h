// Text of files in other encodings as UTF-8.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tolvan {

/// The number of bytes of the UTF-8 character that a text starts with, 0 if it is not one (RFC 3629, section 4).
std::size_t utf8_length(std::string_view s);
/// Whether a text is UTF-8 throughout.
bool is_utf8(std::string_view s);
/// Whether any byte is above 127: text without any is the same in all encodings that hold ASCII.
bool has_high_bytes(std::string_view s);
/// A text of Windows-1252, which holds Latin-1 but for control characters, as UTF-8.
std::string utf8_from_windows(std::string_view s);

}  // namespace tolvan
