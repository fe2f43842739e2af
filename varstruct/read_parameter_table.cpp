// Taking values, constraints and relations over from a table of parameters.  Routine: TSVIO_READ.
#include <algorithm>
#include <cmath>
#include <optional>

#include "base/text.h"
#include "varstruct/followers.h"
#include "varstruct/constraints.h"
#include "varstruct/initial_values.h"
#include "varstruct/parameter_files.h"
#include "varstruct/parameter_lines.h"

namespace tolvan {

namespace {

constexpr std::string_view response_head = "Response ";
constexpr std::string_view unchanged_letters = "H";  // as the writer shows codes that a fit has set, beside a blank

/// One row of a table.
struct TABLE_ROW {
  std::int64_t line = 0, number = 0;
  std::string label = {};
  char type = ' ', letter = ' ';
  double value = 0.0;
  std::int64_t related = 0;
  std::vector<double> scale = {};
};

/// Takes the next field, which a comma ends; the last one ends with the line.
std::optional<std::string_view> next_field(std::optional<std::string_view>& rest)
{
  if (!rest) return {};
  const std::size_t comma = rest->find(',');
  const std::string_view field = rest->substr(0, comma);
  rest = comma == std::string_view::npos ? std::nullopt : std::optional(rest->substr(comma + 1));
  return field;
}

/// A text in double quotes, of which two stand for one; the rest of the line behind its comma.
bool take_label(std::optional<std::string_view>& rest, std::string& label)
{
  if (!rest) return false;
  std::string_view s = *rest;
  s = s.substr(std::min(s.find_first_not_of(' '), s.size()));
  if (!s.starts_with('"')) return false;
  std::size_t k = 1;
  for (; k < s.size(); ++k) {
    if (s[k] == '"') {
      if (k + 1 >= s.size() || s[k + 1] != '"') break;
      ++k;
    }
    label += s[k];
  }
  if (k >= s.size()) return false;
  s = trim(s.substr(k + 1));
  if (!s.starts_with(',')) return false;
  label = std::string(rtrim(label));
  rest = s.substr(1);
  return true;
}

char one_letter(std::string_view field)
{
  const std::string_view letter = trim(field);
  return letter.empty() ? ' ' : letter.size() == 1 ? letter.front() : '\0';
}

bool read_row(std::string_view line, TABLE_ROW& row)
{
  std::optional<std::string_view> rest = line;
  const auto number = next_field(rest);
  if (!number || !read_count(*number, row.number) || !take_label(rest, row.label)) return false;
  const auto type = next_field(rest), letter = next_field(rest), value = next_field(rest), related = next_field(rest);
  if (!type || !letter || !value || !related || !rest) return false;
  row.type = one_letter(*type);
  row.letter = one_letter(*letter);
  if (row.type == '\0' || row.letter == '\0') return false;
  constexpr std::int64_t most = 2000000000;
  if (!read_value(*value, row.value) || !read_count(*related, row.related) || std::abs(row.related) > most) return false;
  while (const auto field = next_field(rest)) {
    if (!read_value(*field, row.scale.emplace_back())) return false;
  }
  return true;
}

/// L_FAILED: the complaint about a file that can not be read.
void L_FAILED(ERROR_HANDLER& eh, const std::string& name, std::string_view why)
{
  const Frame here{eh, __func__};
  eh.warning(text("failed to parse .tsv/.msv file ", name));
  eh.continuation(std::string(why));
}

/// L_UNEXPECTED: the complaint about a row that is not the parameter's.
void L_UNEXPECTED(ERROR_HANDLER& eh, std::int64_t n, std::string_view label, std::string_view found)
{
  const Frame here{eh, __func__};
  eh.warning(text("invalid .tsv/.msv file line: expecting parameter ", n, " labelled ", label, ", found ", trim(found)));
}

/// L_READ_ROWS: the rows of a file, checked against the parameters of the model; false when nothing is to be taken.
bool L_READ_ROWS(ERROR_HANDLER& eh, const std::string& name, const PARAMETER_FILES& files, const VARIANCE_MODEL& model,
                 std::vector<TABLE_ROW>& rows)
{
  const Frame here{eh, __func__};
  std::string contents, error;
  if (!read_file(name, contents, error)) {
    L_FAILED(eh, name, error);
    return false;
  }
  bool whole = false, response = false;
  const std::vector<std::string_view> lines = whole_lines(contents, whole);
  const bool subset = table_file_of(name) == TableFile::esv;
  for (std::size_t at = 0; at < lines.size(); ++at) {
    const std::string_view line = lines[at];
    if (is_blank(line) || line.starts_with('#')) continue;
    if (!response) {
      if (!line.starts_with(response_head)) {
        L_FAILED(eh, name, text("line ", at + 1, " should tell the response"));
        return false;
      }
      const std::string found(trim(line.substr(response_head.size())));
      if (found != files.response) {
        eh.warning(text("ignoring initial parameter values from ESV/MSV/TSV file, it pertains to ", found, " rather than ",
                        files.response));
        eh.continuation(text("Response ", found, " cf ", files.response));
        return false;
      }
      response = true;
      continue;
    }
    TABLE_ROW row{.line = static_cast<std::int64_t>(at) + 1};
    if (!read_row(line, row)) {
      L_FAILED(eh, name, text("line ", at + 1, " is no row of a parameter"));
      return false;
    }
    const auto next = static_cast<std::int64_t>(rows.size()) + 1;
    const std::int64_t n = subset ? row.number : next;
    if (n < 1 || n > model.count()) {
      L_FAILED(eh, name, text("line ", at + 1, " is the row of parameter ", row.number, ", the model has ", model.count()));
      return false;
    }
    const VARIANCE_PARAMETER& p = model.parameters[static_cast<std::size_t>(n - 1)];
    if (row.number != n || row.label != p.label || row.type != type_letter(p.type)) {
      L_UNEXPECTED(eh, n, p.label, line);
      return false;
    }
    if (std::abs(row.related) > model.count()) {
      L_FAILED(eh, name, text("line ", at + 1, " is related to parameter ", row.related, ", the model has ", model.count()));
      return false;
    }
    rows.push_back(std::move(row));
  }
  const auto count = static_cast<std::int64_t>(rows.size());
  if (!whole || !response || (!subset && count < model.count())) {
    L_FAILED(eh, name,
             !whole      ? std::string("its last line is not complete")
             : !response ? std::string("it does not tell the response")
                         : text("it ends before parameter ", count + 1));
    return false;
  }
  return true;
}

/// Whether a relation is what the model has, to the digits of the file.
bool same_relation(const TABLE_ROW& row, const VARIANCE_PARAMETER& p)
{
  const std::int64_t master = p.master < 0 ? row.number : p.master + 1;
  if (std::abs(row.related) != master) return false;
  if (row.related < 0 || p.master < 0) return true;
  return std::fabs(row.scale.front() - p.coefficient) <= 1e-4 * std::fabs(p.coefficient) + 5e-5;
}

/// L_TAKE_ROW: one row into its parameter, relations as they are written; false when the file is refused.
bool L_TAKE_ROW(ERROR_HANDLER& eh, const std::string& name, const TABLE_ROW& row, const VARIANCE_PARAMETER& had,
                VARIANCE_PARAMETER& p)
{
  const Frame here{eh, __func__};
  const bool as_written = row.letter == ' ' || unchanged_letters.find(row.letter) != std::string_view::npos;
  if (!as_written && editable_letters.find(row.letter) == std::string_view::npos) {
    L_FAILED(eh, name, text("line ", row.line, " has the constraint ", row.letter, ", it may be one of ", editable_letters));
    return false;
  }
  if (std::fabs(row.value) > implausible) {
    L_FAILED(eh, name, text("line ", row.line, " has an implausible value, ", trim(edit_e(row.value, 12, 4))));
    return false;
  }
  const bool same = same_relation(row, had);
  if (!same && row.related <= 0) {
    L_FAILED(eh, name, text("line ", row.line, " has a relationship that may not be edited"));
    return false;
  }
  if (!same) {
    const bool alone = row.related == row.number;
    p.master = alone ? -1 : row.related - 1;
    p.coefficient = alone ? 1.0 : row.scale.front();
    p.constraint = alone ? Constraint::P : Constraint::C;
  }
  // A follower is constrained whatever its letter; a C without a master is the user's wish to leave a value alone.
  const bool freed = !same && row.letter == 'C';
  if (!as_written && p.master < 0 && !freed) p.constraint = constraint_of(row.letter).value_or(Constraint::P);
  p.value = p.start = p.constraint == Constraint::Z ? 0.0 : row.value;
  return true;
}

/// L_CHECK_RELATIONS: a master must stand before its followers and follow none; false when one does not.
bool L_CHECK_RELATIONS(ERROR_HANDLER& eh, const std::vector<VARIANCE_PARAMETER>& parameters)
{
  const Frame here{eh, __func__};
  const auto count = static_cast<std::int64_t>(parameters.size());
  for (std::int64_t i = 0; i < count; ++i) {
    const std::int64_t master = parameters[static_cast<std::size_t>(i)].master;
    if (master < 0) continue;
    std::int64_t n = i + 1, m = master + 1;
    if (master < i) {
      const std::int64_t above = parameters[static_cast<std::size_t>(master)].master;
      if (above < 0) continue;
      m = above + 1;
    } else {
      std::swap(n, m);  // the later one of the two should follow the earlier
    }
    eh.warning(text("fault in Gamma constraints for parameter ", n, ", relationships must be defined relative to parameter ", m));
    return false;
  }
  return true;
}

/// Whether a file changes more than values, or values against the relations between parameters.
bool touches_constraints(const std::vector<VARIANCE_PARAMETER>& edited, const VARIANCE_MODEL& model)
{
  for (std::size_t i = 0; i < edited.size(); ++i) {
    const VARIANCE_PARAMETER &p = edited[i], &had = model.parameters[i];
    if (p.constraint != had.constraint || p.master != had.master || p.coefficient != had.coefficient) return true;
    if (!tolvan::follows(p)) continue;
    double follows = 0.0;
    for (const PARAMETER_SHARE& share : made_of(model, static_cast<std::int64_t>(i))) follows += share.by * edited[static_cast<std::size_t>(share.of)].value;
    if (std::fabs(p.value - follows) > 1e-6 * std::fabs(follows) + 1e-8) return true;
  }
  return false;
}

}  // namespace

bool TSVIO_READ(ERROR_HANDLER& eh, const std::string& name, const PARAMETER_FILES& files, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  std::vector<TABLE_ROW> rows;
  if (!L_READ_ROWS(eh, name, files, model, rows)) return false;

  std::vector<VARIANCE_PARAMETER> edited = model.parameters;
  bool profiled_edited = false;
  for (const TABLE_ROW& row : rows) {
    const auto i = static_cast<std::size_t>(row.number - 1);
    const VARIANCE_PARAMETER& had = model.parameters[i];
    if (!L_TAKE_ROW(eh, name, row, had, edited[i])) return false;
    if (!model.profiled || row.number - 1 != model.residual_parameter) continue;
    const VARIANCE_PARAMETER& p = edited[i];
    profiled_edited = p.value != had.value || p.constraint != had.constraint || p.master != had.master;
    edited[i] = had;
  }
  if (!model.vcm.empty() && touches_constraints(edited, model)) {
    eh.warning("Illegal modifed .tsv/.rsv file; VCM constraints present.");  // sic
    eh.continuation("the initial values of the model stay");
    return false;
  }
  if (!L_CHECK_RELATIONS(eh, edited)) return false;

  std::int64_t changed = 0;
  for (std::size_t i = 0; i < edited.size(); ++i) changed += edited[i].constraint != model.parameters[i].constraint ? 1 : 0;
  model.parameters = std::move(edited);
  set_followers(model);
  eh.note(text("restart values taken from ", name, " and ", changed, " parameter constraint codes were changed"));
  if (profiled_edited) {
    eh.warning("what the file has of the residual variance is not used: other variances are ratios to it");
    eh.continuation("try using the sigma parameterization by setting varscale to 1.0");
  }
  return true;
}

}  // namespace tolvan
