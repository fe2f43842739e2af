#include "data/text_lines.h"

#include "base/open_file.h"
#include "base/text.h"
#include "data/line_directives.h"

namespace tolvan {

namespace {

constexpr std::size_t longest_joined = 10000;
constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

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

/// L_READ_FAILED: tells why no line came; nothing at the plain end of a file.
void L_READ_FAILED(ERROR_HANDLER& eh, const DATA_LINES& lines)
{
  const FileReader& file = lines.sources.back().file;
  if (file.error().empty()) return;
  const Frame here{eh, __func__};
  if (file.line_too_long()) {
    eh.error(
        text("maximum record length [", longest_data_line, " exceeded when reading ", lines.name()));  // sic
    eh.continuation(text("at record ", lines.record, ", line ", file.line_number(), " of ", lines.name()));
    return;
  }
  eh.error(text("unable to read file ", lines.name(), " behind line ", file.line_number()), Ecode::io_error);
  eh.continuation(file.error());
}

/// L_REFUSE_NUL: complains of a character that no text holds.
void L_REFUSE_NUL(ERROR_HANDLER& eh, const DATA_LINES& lines, std::size_t at)
{
  const Frame here{eh, __func__};
  eh.error(text("unexpected NUL character at character ", at + 1, " of record ", lines.record, ", line ",
                lines.sources.back().file.line_number(), " of ", lines.name()));
  eh.continuation("the file is no plain text, it may be a binary file or in some two-byte coding");
}

/// The mark that says that the next line goes on: '&', in free format also a comma at the end.
bool is_continued(const DATA_LINES& lines, std::string_view line)
{
  if (lines.layout == Layout::fixed_columns || line.empty()) return false;
  return line.back() == '&' || (lines.layout == Layout::free_format && line.back() == ',');
}

/// L_JOIN_LINES: joins the lines that follow while they end in a continuation mark.  An ampersand goes, a
/// comma stays to separate.
void L_JOIN_LINES(ERROR_HANDLER& eh, DATA_LINES& lines)
{
  const Frame here{eh, __func__};
  lines.joined.clear();
  std::string_view line = rtrim(lines.line);
  while (true) {
    const bool continued = is_continued(lines, line);
    if (continued && line.back() == '&') line.remove_suffix(1);
    if (lines.joined.size() + line.size() > longest_joined) {
      eh.error(text("joined lines limited to ", longest_joined, " characters"));
      eh.continuation(text("at ", lines.place()));
      return;
    }
    lines.joined += line;
    if (!continued || !L_NEXT_LINE(eh, lines, line)) break;
    line = rtrim(line);
  }
  lines.line = lines.joined;
}

/// L_SKIP_LINES: skips lines by their number, then up to an instance of a text.
void L_SKIP_LINES(ERROR_HANDLER& eh, const DATA_FILE_KEYS& keys, FileReader& file, DATA_LINES& lines)
{
  const Frame here{eh, __func__};
  std::string_view line;
  for (std::int64_t k = 0; k < keys.skip_lines; ++k) {
    if (file.next_line(line)) continue;
    L_READ_FAILED(eh, lines);
    if (!eh.terminate()) {
      eh.error(text("unable to skip ", keys.skip_lines, " lines in ", keys.name));
      eh.continuation(text("it has ", file.line_number(), " lines"));
    }
    return;
  }
  for (std::int64_t wanted = keys.skip_text.empty() ? 0 : keys.skip_instance; wanted > 0;) {
    if (!file.next_line(line)) {
      L_READ_FAILED(eh, lines);
      if (!eh.terminate()) {
        eh.error(text("failed to find  ", keys.skip_text));  // sic
        const std::int64_t found = keys.skip_instance - wanted;
        eh.continuation(text("in the ", file.line_number(), " lines of ", keys.name,
                             found > 0 ? text(", instance ", keys.skip_instance, " of ", found) : std::string()));
      }
      return;
    }
    if (line.find(keys.skip_text) != std::string_view::npos) --wanted;
  }
}

}  // namespace

std::string DATA_LINES::place() const
{
  return text("record ", record, ", line ", number, " of ", name());
}

bool L_NEXT_LINE(ERROR_HANDLER& eh, DATA_LINES& lines, std::string_view& line)
{
  LINE_SOURCE* source = &lines.sources.back();
  while (!source->file.next_line(line)) {
    L_READ_FAILED(eh, lines);
    if (eh.terminate() || lines.sources.size() == 1) return false;
    lines.sources.pop_back();  // back to the line behind !INCLUDE
    source = &lines.sources.back();
  }
  if (const std::int64_t converted = source->file.first_converted(); converted > 0 && !lines.encoding_told) {
    const Frame here{eh, __func__};
    eh.note(text("line ", converted, " of ", source->name, " is not UTF-8, it is taken as Windows-1252"));
    eh.continuation("and so are others that are not");
    lines.encoding_told = true;
  }
  if (source->file.line_number() == 1 && line.starts_with(byte_order_mark))
    line.remove_prefix(byte_order_mark.size());
  if (const std::size_t at = line.find('\0'); at != std::string_view::npos) {
    L_REFUSE_NUL(eh, lines, at);
    return false;
  }
  L_CUT_REMARK(eh, lines, line);
  return true;
}

void L_OPEN_DATA_FILE(ERROR_HANDLER& eh, const DATA_FILE_KEYS& keys, DATA_LINES& lines)
{
  const Frame here{eh, __func__};
  lines.layout = !keys.format.empty()         ? Layout::fixed_columns
                 : keys.kind == FileKind::csv ? Layout::comma_separated
                                              : Layout::free_format;
  LINE_SOURCE& source = lines.sources.emplace_back();
  source.name = keys.name;
  source.file.limit_lines(longest_data_line);
  if (lines.layout == Layout::fixed_columns) source.file.keep_bytes();  // its columns are bytes
  if (!OPEN_AND_CHECK_FILE(eh, keys.name, source.file)) return;
  L_SKIP_LINES(eh, keys, source.file, lines);
  if (eh.terminate()) return;
  const std::string form = keys.format.empty() ? " as FREE FORMAT" : text(" by the format ", keys.format);
  eh.note(text("reading ", keys.name, form, " skipping ", keys.skip_lines, " lines"));
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
    lines.number = lines.sources.back().file.line_number();
    lines.line = line;
    const std::size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) continue;
    if (may_be_directive(lines, line[first])) {
      const bool obeyed = L_OBEY_DIRECTIVE(eh, lines);
      if (eh.terminate()) return false;
      if (obeyed) continue;
    }
    if (!lines.assigned.empty()) {
      L_REFUSE_MACRO(eh, lines);
      if (eh.terminate()) return false;
    }
    if (is_continued(lines, rtrim(line))) {
      L_JOIN_LINES(eh, lines);
      if (eh.terminate()) return false;
      if (is_blank(lines.line)) continue;
    }
    return true;
  }
  return false;
}

}  // namespace tolvan
