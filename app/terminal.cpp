#include "app/terminal.h"

#include <unistd.h>

#include <cstdlib>

namespace tolvan::driver {

bool is_terminal(std::FILE* stream)
{
  return isatty(fileno(stream)) != 0;
}

bool may_decorate(std::FILE* stream)
{
  const char* no_color = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  if (no_color && *no_color) return false;
  return terminal && *terminal && std::string_view(terminal) != "dumb" && is_terminal(stream);
}

std::string styled(std::FILE* stream, Style style, std::string_view text)
{
  if (!may_decorate(stream)) return std::string(text);
  const char* code = style == Style::bold     ? "1"
                     : style == Style::red    ? "31"
                     : style == Style::yellow ? "33"
                                              : "2";
  return "\x1b[" + std::string(code) + "m" + std::string(text) + "\x1b[0m";
}

}  // namespace tolvan::driver
