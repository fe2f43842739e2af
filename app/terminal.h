// What the two output streams are attached to, and the little decoration that follows from it.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace tolvan::driver {

bool is_terminal(std::FILE* stream);
/// Colour and weight are used on a terminal that can show them, unless NO_COLOR is set.
bool may_decorate(std::FILE* stream);

enum class Style { bold, red, yellow, faint };
std::string styled(std::FILE* stream, Style style, std::string_view text);

}  // namespace tolvan::driver
