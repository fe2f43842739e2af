// The lines of a pedigree file: L_READ_PEDIGREE_LINES.
#include <algorithm>
#include <cmath>

#include "base/files.h"
#include "base/memory.h"
#include "base/text.h"
#include "pedigree/pedigree_file.h"

namespace tolvan {
namespace {

constexpr std::size_t longest_line = std::size_t{1} << 20;
constexpr std::size_t shown_of_a_line = 60;
constexpr std::size_t fields_in_use = 4;
constexpr std::int64_t most_faults = 100;  // lines at fault that are told; then reading ends

/// What the lines are read with, and what was told once.
struct READER {
  const PEDIGREE_KEYS& keys;
  FileReader file;
  MISSING_TEXTS missing;
  std::vector<std::string> fields;  // of the line in hand; only the first `count` are in use
  std::size_t count = 0;
  bool at_fault = false;            // the line in hand is
  bool told_separators = false;
  bool told_blanks = false;
};

bool separates(char c)
{
  return c == ',' || c == '\t';
}

/// Puts one field in order: without blanks around and quotes; a blank within becomes '_'.
void add_field(ERROR_HANDLER& eh, READER& r, std::string_view s)
{
  s = trim(s);
  if (s.size() > 1 && s.front() == s.back() && (s.front() == '"' || s.front() == '\''))
    s = trim(s.substr(1, s.size() - 2));
  if (r.fields.size() == r.count) r.fields.emplace_back();
  std::string& field = r.fields[r.count++];
  field.assign(s);
  if (field.find(' ') != std::string::npos) {
    std::replace(field.begin(), field.end(), ' ', '_');
    if (!r.told_blanks) eh.note("Embedded blank in Pedigree Name changed to _");
    r.told_blanks = true;
  }
  if (r.keys.upper_case) field = upper(field);
}

/// L_READLINE: cuts a line into its fields; false for a line without any.
bool L_READLINE(ERROR_HANDLER& eh, READER& r, std::string_view line)
{
  const Frame here{eh, __func__};
  r.count = 0;
  std::size_t remark = line.find('#');
  while (remark != std::string_view::npos && remark > 0 && line[remark - 1] != ' ' &&
         !separates(line[remark - 1]))
    remark = line.find('#', remark + 1);
  line = line.substr(0, remark);
  if (const std::size_t slashes = line.find("//"); slashes != std::string_view::npos) {
    if (is_blank(line.substr(0, slashes))) return false;
    eh.error(text("problem parsing \"//", line.substr(slashes + 2),
                  "\", move this text onto a seperate line"));  // sic
    r.at_fault = true;
    return false;
  }
  if (is_blank(line)) return false;

  // A comma or a tab ends a field; in free text blanks do so too, but for those beside one.
  bool empty = false;
  std::size_t at = 0;
  while (at <= line.size() && r.count < r.keys.skip_fields + fields_in_use) {
    std::size_t end = at;
    if (!r.keys.comma_separated) {
      while (at < line.size() && line[at] == ' ') ++at;
      end = at;
      while (end < line.size() && !separates(line[end]) && line[end] != ' ') ++end;
      std::size_t next = end;
      while (next < line.size() && line[next] == ' ') ++next;
      const bool last = next == line.size();
      if (last && end == at && r.count > 0) break;  // blanks at the end
      empty = empty || (end == at && !last);
      add_field(eh, r, line.substr(at, end - at));
      if (last) break;
      at = separates(line[next]) ? next + 1 : next;
      continue;
    }
    while (end < line.size() && !separates(line[end])) ++end;
    empty = empty || (is_blank(line.substr(at, end - at)) && end < line.size());
    add_field(eh, r, line.substr(at, end - at));
    at = end + 1;
  }
  if (empty && !r.told_separators) {
    eh.note("Multiple successive COMMAs/TABs imply unknown parent");
    r.told_separators = true;
  }
  return r.count > static_cast<std::size_t>(r.keys.skip_fields);
}

/// The code of a name, -1 where it is missing.
std::int32_t code_of(const READER& r, NAME_CODES& names, std::string_view name)
{
  return name == "*" || r.missing.contains(name) ? -1 : names.add(name);
}

/// L_FIELD_FOUR: the sex or the level of a line; an empty field is a male, a level of 0.
void L_FIELD_FOUR(ERROR_HANDLER& eh, READER& r, std::string_view field, PEDIGREE_LINE& line)
{
  const Frame here{eh, __func__};
  if (r.keys.sex_linked) {
    const std::string word = upper(field);
    line.code = word == "1" || word == "M" ? 0.0 : word == "2" || word == "F" ? 1.0 : -1.0;
    if (line.code >= 0.0) return;
    eh.error("Invalid Sex Code in pedigree field 4.");
  } else if (field.empty() || r.missing.contains(field)) {
    line.code = 0.0;
    return;
  } else if (read_real(field, line.code) && std::isfinite(line.code)) {
    return;  // its range is checked with the lines
  } else {
    eh.error(text("Selfing value ", field, " is no level of selfing"));
  }
  r.at_fault = true;
}

/// L_LOOK_AT_THE_HEAD: warns of two-byte text; a byte order mark of UTF-8 is passed over.
void L_LOOK_AT_THE_HEAD(ERROR_HANDLER& eh, const std::string& path, bool& marked)
{
  const Frame here{eh, __func__};
  FileReader file;
  std::string_view head;
  if (!file.open(path)) {
    eh.error(text("unable to open file ", path), Ecode::io_error);
    eh.continuation(file.error());
    return;
  }
  if (!file.next_chunk(head)) return;
  head = head.substr(0, 4);
  marked = head.starts_with("\xEF\xBB\xBF");
  if (head.find('\0') != std::string_view::npos || head.starts_with("\xFF\xFE") ||
      head.starts_with("\xFE\xFF")) {
    eh.warning(text("Pedigree file appeast to be in some two-byte coding that may not be handled correctly: ",
                    path));  // sic
  }
}

/// Whether a first line is that of a matrix of relationships.
bool looks_like_a_matrix(const READER& r, std::string_view line)
{
  if (line.starts_with("!LDE") || line.starts_with("!lde") || line.starts_with("!GRO") ||
      line.starts_with("!gro"))
    return true;
  double x = 0.0;
  return r.count == 3 && r.fields[0] == "1" && r.fields[1] == "1" && read_real(r.fields[2], x);
}

}  // namespace

void L_READ_PEDIGREE_LINES(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, PEDIGREE_LINES& out)
{
  const Frame here{eh, __func__};
  bool marked = false;
  L_LOOK_AT_THE_HEAD(eh, keys.path, marked);
  if (eh.terminate()) return;
  READER r{.keys = keys, .file = {}, .missing = {}, .fields = {}};
  r.file.limit_lines(longest_line);
  r.file.open(keys.path);
  eh.note(text("reading pedigree file ", keys.path,
               keys.skip > 0 ? text(": skipping ", keys.skip, " lines") : std::string()));
  const bool code = keys.sex_linked || keys.levels();
  const auto skipped = static_cast<std::size_t>(keys.skip_fields);
  std::string_view line;
  const bool room = attempt([&] {
    std::int64_t faults = 0;
    while (faults < most_faults && r.file.next_line(line)) {
      const std::int64_t number = r.file.line_number();
      if (number == 1 && marked) line.remove_prefix(3);
      if (number <= keys.skip) {
        if (number == 1) eh.note(text("pedigree header line: ", trim(line).substr(0, shown_of_a_line)));
        continue;
      }
      r.at_fault = false;
      const bool found = L_READLINE(eh, r, line);
      if (out.lines.empty() && faults == 0 && looks_like_a_matrix(r, line)) {
        eh.error(text("expecting ", keys.path, " to be a pedigree file but found a GRM/GIV file instead"));
        return;
      }
      const auto field = [&](std::size_t k) {
        return skipped + k < r.count ? std::string_view(r.fields[skipped + k]) : std::string_view();
      };
      if (found) {
        PEDIGREE_LINE& added = out.lines.emplace_back();
        added.line = number;
        added.id = code_of(r, out.names, field(0));
        added.male = code_of(r, out.names, field(1));
        added.female = code_of(r, out.names, field(2));
        if (code) L_FIELD_FOUR(eh, r, field(3), added);
      }
      if (!r.at_fault) continue;
      eh.continuation(text("pedigree line ", number));
      if (++faults == most_faults) eh.continuation("further lines were not read");
    }
  });
  if (!room) return eh.out_of_memory();
  if (r.file.error().empty() || eh.terminate()) return;
  eh.error(text("error reading from ", keys.grandsire ? "DamMGS" : keys.path), Ecode::io_error);
  eh.continuation(text(keys.path, ", line ", r.file.line_of_fault(), ": ", r.file.error()));
}

}  // namespace tolvan
