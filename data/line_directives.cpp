#include "data/line_directives.h"

#include <algorithm>
#include <array>

#include "base/open_file.h"
#include "base/text.h"

namespace tolvan {

namespace {

constexpr std::size_t most_sources = 20;
constexpr std::size_t longest_macro_name = 8;

enum class Does { complain, include, assign, end, special_char };

/// The words of directives and what becomes of them.  Words with a mark match in any case as the start of the
/// line, up to the end of the letters; the others as they stand.
struct Directive {
  std::string_view word;
  Does does;
  std::string_view complaint;
};
// clang-format off
constexpr std::array directives = {
    Directive{"!CALL",        Does::complain,     "no longer supporting the !CALL directive"},
    Directive{"!IF",          Does::complain,     "do not expect to be processing the !IF directive in gtline"},
    Directive{"!VPREDICT",    Does::complain,     "not expecting to have to handle VPREDICT in gtline"},
    Directive{"!?",           Does::complain,     "not expecting to hit the !? directive in GTLINE"},
    Directive{"!CYCLE",       Does::complain,     "was not expecting to get to the !CYCLE code in GTLINE anymore"},
    Directive{"!INC",         Does::include,      ""},
    Directive{"INCLUDE ",     Does::include,      ""},
    Directive{"Include ",     Does::include,      ""},
    Directive{"include ",     Does::include,      ""},
    Directive{"!ASS",         Does::assign,       ""},
    Directive{"!STOP",        Does::end,          ""},
    Directive{"!JOB",         Does::end,          ""},
    Directive{"!SPECIALCHAR", Does::special_char, ""},
};
// clang-format on

bool is_letter(char c)
{
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

/// Cuts the first word off a text.
std::string_view take_word(std::string_view& rest)
{
  rest = trim(rest);
  const std::size_t end = std::min(rest.find_first_of(" \t"), rest.size());
  const std::string_view word = rest.substr(0, end);
  rest = trim(rest.substr(end));
  return word;
}

/// L_INCLUDE: goes on with the lines of another file, then comes back.
void L_INCLUDE(ERROR_HANDLER& eh, DATA_LINES& lines, std::string_view rest)
{
  const Frame here{eh, __func__};
  std::string name(trim(rest));
  if (name.size() > 1 && name.front() == '"' && name.back() == '"') name = name.substr(1, name.size() - 2);
  LINE_SOURCE source;
  source.name = name;
  source.file.limit_lines(longest_data_line);
  if (lines.layout == Layout::fixed_columns) source.file.keep_bytes();
  const std::string reason = lines.sources.size() >= most_sources ? text("files include each other ", most_sources, " deep")
                                                                  : why_not_opened(name, source.file);
  if (!reason.empty()) {
    eh.error(text("failed to open !INCLUDE file ", name), Ecode::io_error);
    eh.continuation(text(reason, ", at ", lines.place()));
    return;
  }
  lines.sources.push_back(std::move(source));
}

/// L_ASSIGN: notes the name of a text macro and steps over its text, which may run over lines up to "!>".
void L_ASSIGN(ERROR_HANDLER& eh, DATA_LINES& lines, std::string_view rest)
{
  const Frame here{eh, __func__};
  const std::string name(take_word(rest));
  if (name.size() > longest_macro_name) {
    eh.error("!ASSIGN string names are restricted to 8 characters");
    eh.continuation(text("use \"", name.substr(0, longest_macro_name), "\" rather than \"", name, "\""));
    eh.continuation(text("at ", lines.place()));
    return;
  }
  if (!name.empty()) lines.assigned.insert(name);
  if (!rest.starts_with("!<")) return;
  while (rest.find("!>") == std::string_view::npos) {
    if (L_NEXT_LINE(eh, lines, rest)) continue;
    if (eh.terminate()) return;
    eh.error("in Extended !ASSIGN tag !< ... !>, failed to detect closing !>");
    eh.continuation(text("at ", lines.place()));
    return;
  }
}

}  // namespace

bool L_OBEY_DIRECTIVE(ERROR_HANDLER& eh, DATA_LINES& lines)
{
  const Frame here{eh, __func__};
  const std::string_view words = trim(lines.line);
  for (const Directive& directive : directives) {
    const bool marked = directive.word[0] == '!';
    if (marked ? !starts_with_nocase(words, directive.word) : !words.starts_with(directive.word)) continue;
    std::string_view rest = words.substr(directive.word.size());
    while (marked && !rest.empty() && is_letter(rest[0])) rest.remove_prefix(1);  // of a longer form
    switch (directive.does) {
      case Does::complain:
        eh.error(std::string(directive.complaint));
        eh.continuation(text("at ", lines.place()));
        break;
      case Does::include:
        L_INCLUDE(eh, lines, rest);
        break;
      case Does::assign:
        L_ASSIGN(eh, lines, rest);
        break;
      case Does::end:
        lines.ended = true;
        break;
      case Does::special_char:
        if (lines.special_hash) eh.note("# is treated as a normal alpha character in data file");
        lines.special_hash = false;
        break;
    }
    return true;
  }
  if (words[0] != '!') return false;
  eh.error(text("unrecognised qualifier at character ", lines.line.find('!') + 1));
  eh.continuation(text("at ", lines.place()));
  return true;
}

void L_REFUSE_MACRO(ERROR_HANDLER& eh, const DATA_LINES& lines)
{
  const Frame here{eh, __func__};
  for (std::size_t at = lines.line.find('$'); at != std::string_view::npos;
       at = lines.line.find('$', at + 1)) {
    for (const std::string& name : lines.assigned) {
      if (!lines.line.substr(at + 1).starts_with(name)) continue;
      eh.error("did not expect to be doing macro expansion in gtline");
      eh.continuation(text("$", name, " at ", lines.place()));
      return;
    }
  }
}

}  // namespace tolvan
