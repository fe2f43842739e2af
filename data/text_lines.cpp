#include "data/text_lines.h"

#include <array>
#include <filesystem>
#include <system_error>

#include "base/text.h"

namespace tolvan {

namespace {

constexpr std::size_t longest_joined = 10000;
constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

/// The words of directives and what becomes of them.  Words match as the start of the line, in any case.
struct Directive {
  enum class Does { complain, not_built, end, special_char };
  std::string_view word;
  Does does;
  std::string_view complaint;
};
// clang-format off
constexpr std::array directives = {
    Directive{"!CALL",        Directive::Does::complain,     "no longer supporting the !CALL directive"},
    Directive{"!IF",          Directive::Does::complain,     "do not expect to be processing the !IF directive in gtline"},
    Directive{"!VPREDICT",    Directive::Does::complain,     "not expecting to have to handle VPREDICT in gtline"},
    Directive{"!?",           Directive::Does::complain,     "not expecting to hit the !? directive in GTLINE"},
    Directive{"!CYCLE",       Directive::Does::complain,     "was not expecting to get to the !CYCLE code in GTLINE anymore"},
    Directive{"!INC",         Directive::Does::not_built,    "the directive !INCLUDE in a data file is not implemented"},
    Directive{"!ASS",         Directive::Does::not_built,    "the directive !ASSIGN in a data file is not implemented"},
    Directive{"!STOP",        Directive::Does::end,          ""},
    Directive{"!JOB",         Directive::Does::end,          ""},
    Directive{"!SPECIALCHAR", Directive::Does::special_char, ""},
};
// clang-format on

/// L_OBEY_DIRECTIVE: a line that begins with '!'.
void L_OBEY_DIRECTIVE(ERROR_HANDLER& eh, DATA_LINES& lines)
{
  const Frame here{eh, __func__};
  const std::string_view words = trim(lines.line);
  for (const Directive& directive : directives) {
    if (!starts_with_nocase(words, directive.word)) continue;
    switch (directive.does) {
      case Directive::Does::complain:
        eh.error(std::string(directive.complaint));
        break;
      case Directive::Does::not_built:
        eh.not_implemented(std::string(directive.complaint));
        break;
      case Directive::Does::end:
        lines.ended = true;
        return;
      case Directive::Does::special_char:
        if (lines.special_hash) eh.note("# is treated as a normal alpha character in data file");
        lines.special_hash = false;
        return;
    }
    eh.continuation(text("at line ", lines.number, " of ", lines.name));
    return;
  }
  eh.error(text("unrecognised qualifier at character ", lines.line.find('!') + 1));
  eh.continuation(text("at line ", lines.number, " of ", lines.name));
}

/// Where a remark starts: the first '#' outside quotes; npos without one.
std::size_t remark_start(std::string_view line)
{
  std::size_t at = line.find('#');
  if (at == std::string_view::npos || line.substr(0, at).find('"') == std::string_view::npos) return at;
  bool quoted = false;
  for (at = 0; at < line.size(); ++at) {
    if (line[at] == '"') quoted = !quoted;
    if (line[at] == '#' && !quoted) return at;
  }
  return std::string_view::npos;
}

/// L_CUT_REMARK: drops the rest of the line from '#' on.
void L_CUT_REMARK(ERROR_HANDLER& eh, DATA_LINES& lines, std::string_view& line)
{
  if (!lines.special_hash) return;
  const std::size_t at = remark_start(line);
  if (at == std::string_view::npos) return;
  line = line.substr(0, at);
  if (lines.hash_told) return;
  lines.hash_told = true;
  const Frame here{eh, __func__};
  eh.note("# is honoured as a special white-out character in data file");
  eh.continuation("Use !SPECIALCHAR to treat # as normal character in data file");
}

/// L_NEXT_LINE: the next physical line; a failure to read it is reported.
bool L_NEXT_LINE(ERROR_HANDLER& eh, DATA_LINES& lines, std::string_view& line)
{
  if (lines.file.next_line(line)) {
    if (lines.file.line_number() == 1 && line.starts_with(byte_order_mark))
      line.remove_prefix(byte_order_mark.size());
    return true;
  }
  if (lines.file.error().empty()) return false;
  const Frame here{eh, __func__};
  eh.error(text("unable to read file ", lines.name, " behind line ", lines.file.line_number()),
           Ecode::io_error);
  eh.continuation(lines.file.error());
  return false;
}

/// L_JOIN_LINES: joins the lines that follow while they end in the continuation mark '&'.
void L_JOIN_LINES(ERROR_HANDLER& eh, DATA_LINES& lines)
{
  const Frame here{eh, __func__};
  lines.joined.clear();
  std::string_view line = rtrim(lines.line);
  while (true) {
    const bool continued = line.ends_with('&');
    if (continued) line.remove_suffix(1);
    if (lines.joined.size() + line.size() > longest_joined) {
      eh.error(text("joined lines limited to ", longest_joined, " characters"));
      eh.continuation(text("at line ", lines.number, " of ", lines.name));
      return;
    }
    lines.joined += line;
    if (!continued || !L_NEXT_LINE(eh, lines, line)) break;
    L_CUT_REMARK(eh, lines, line);
    line = rtrim(line);
  }
  lines.line = lines.joined;
}

}  // namespace

void L_OPEN_DATA_FILE(ERROR_HANDLER& eh, const DATA_FILE_KEYS& keys, DATA_LINES& lines)
{
  const Frame here{eh, __func__};
  lines.name = keys.name;
  std::error_code ignored;
  const bool folder = std::filesystem::is_directory(keys.name, ignored);  // would open, but holds no lines
  if (folder || !lines.file.open(keys.name)) {
    eh.error(text("unable to open file ", keys.name), Ecode::io_error);
    eh.continuation(folder ? "it is a folder" : lines.file.error());
    return;
  }
  std::string_view line;
  for (std::int64_t k = 0; k < keys.skip_lines; ++k) {
    if (L_NEXT_LINE(eh, lines, line)) continue;
    if (!eh.terminate()) eh.error(text("unable to skip ", keys.skip_lines, " lines in ", keys.name));
    return;
  }
  std::int64_t wanted = keys.skip_text.empty() ? 0 : keys.skip_instance;
  while (wanted > 0) {
    if (!L_NEXT_LINE(eh, lines, line)) {
      if (!eh.terminate()) eh.error(text("failed to find  ", keys.skip_text));
      return;
    }
    if (line.find(keys.skip_text) != std::string_view::npos) --wanted;
  }
  eh.note(text("reading ", keys.name, " as FREE FORMAT skipping ", keys.skip_lines, " lines"));
  if (!keys.skip_text.empty()) {
    eh.continuation(text("and all lines up to and including ", keys.skip_instance, " instance of \"",  // sic
                         keys.skip_text));
  }
}

bool GTLINE(ERROR_HANDLER& eh, DATA_LINES& lines)
{
  const Frame here{eh, __func__};
  std::string_view line;
  while (!lines.ended && L_NEXT_LINE(eh, lines, line)) {
    lines.number = lines.file.line_number();
    L_CUT_REMARK(eh, lines, line);
    lines.line = line;
    const std::size_t first = line.find_first_not_of(" \t");
    if (first == std::string_view::npos) continue;
    if (line[first] == '!') {
      L_OBEY_DIRECTIVE(eh, lines);
      if (eh.terminate()) return false;
      continue;
    }
    if (rtrim(line).ends_with('&')) {
      L_JOIN_LINES(eh, lines);
      if (eh.terminate()) return false;
      if (is_blank(lines.line)) continue;
    }
    return true;
  }
  return false;
}

}  // namespace tolvan
