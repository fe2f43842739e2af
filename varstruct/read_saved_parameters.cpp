// Taking values over from an .rsv file.  Routine: AIDCON_RETRIEVE.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>

#include "base/text.h"
#include "varstruct/followers.h"
#include "varstruct/initial_values.h"
#include "varstruct/labels.h"
#include "varstruct/make_component.h"
#include "varstruct/parameter_files.h"
#include "varstruct/parameter_lines.h"

namespace tolvan {

namespace {

constexpr std::size_t preamble_lines = 5;
constexpr std::string_view version_mark = "RSTRUCTURE";
constexpr std::string_view structure_heading = " STRUCTURE        ", variance_heading = " VARIANCE         ";
constexpr std::string_view compared_letters = "PZUF";
constexpr std::int64_t most = 2000000000;  // of any number in a heading
constexpr std::int64_t fa = 10, facv = 13, xfa = 15;

/// One parameter as the file has it.
struct SAVED_PARAMETER {
  std::int64_t number = 0;
  ParamType type = ParamType::G;
  char letter = 'P';
  double value = 0.0;
  std::int64_t link = 0;  // 0: none
  double coefficient = 1.0;
  bool follows_readably = true;
};

/// One row of the structure table, or the variance of a section, as the file has it.
struct SAVED_ROW {
  STRUCTURE_ROW facts;
  std::string name;
  std::vector<SAVED_PARAMETER> parameters;
};

struct SAVED_FILE {
  std::string response;
  bool this_version = false;
  std::vector<SAVED_ROW> rows;
};

/// The next word of a line; empty at its end.
std::string_view next_word(std::string_view& line)
{
  line = line.substr(std::min(line.find_first_not_of(' '), line.size()));
  const std::string_view word = line.substr(0, line.find(' '));
  line.remove_prefix(word.size());
  return word;
}

bool read_heading(std::string_view line, SAVED_ROW& row)
{
  line.remove_prefix(structure_heading.size());
  STRUCTURE_ROW& f = row.facts;
  for (std::int64_t* fact : {&f.size, &f.selector, &f.model, &f.order, &f.parameters}) {
    if (!read_count(next_word(line), *fact) || *fact > most || *fact < -most) return false;
  }
  row.name = std::string(trim(line));
  return f.parameters > 0 && f.size >= 0 && f.order >= 0 && !row.name.empty();
}

/// Number, type letter and constraint letter, each with a comma behind it, then value, link and coefficient.
bool read_parameter(std::string_view line, SAVED_PARAMETER& p)
{
  std::string_view field[3];
  for (std::string_view& each : field) {
    const std::size_t comma = line.find(',');
    if (comma == std::string_view::npos) return false;
    each = trim(line.substr(0, comma));
    line.remove_prefix(comma + 1);
  }
  if (!read_count(field[0], p.number) || field[1].size() != 1 || field[2].size() != 1) return false;
  const std::size_t type = parameter_type_letters.find(field[1].front());
  const std::size_t letter = rsv_letters.find(field[2].front(), parameter_type_letters.size());
  if (type == std::string_view::npos || letter == std::string_view::npos) return false;
  p.type = static_cast<ParamType>(type + 1);
  p.letter = field[2].front();
  if (!read_value(next_word(line), p.value)) return false;
  const std::string_view link = next_word(line), coefficient = next_word(line);
  if (link.empty() || coefficient.empty() || !trim(line).empty()) return false;
  // What a relation says that can not be read is told later: the values are good.
  double c = 1.0;
  p.follows_readably = read_count(link, p.link) && read_value(coefficient, c) && std::abs(p.link) <= most;
  if (!p.follows_readably) p.link = 0;
  p.coefficient = p.link < 0 ? c : 1.0;
  p.link = std::abs(p.link);
  return true;
}

/// The whole file, or nothing: a reason.
std::optional<std::string> read_saved(const std::string& contents, SAVED_FILE& out)
{
  bool whole = false;
  const std::vector<std::string_view> lines = whole_lines(contents, whole);
  constexpr std::string_view response = "Response ";
  if (lines.size() <= preamble_lines || !lines[preamble_lines].starts_with(response)) return "it has no line of the response";
  out.response = std::string(trim(lines[preamble_lines].substr(response.size())));

  std::size_t at = preamble_lines + 1;
  const auto found = std::find_if(lines.begin() + static_cast<std::ptrdiff_t>(at), lines.end(),
                                  [](std::string_view line) { return trim(line) == version_mark; });
  out.this_version = found != lines.end();
  if (!out.this_version) return {};
  if (!whole) return "its last line is not complete";

  std::int64_t count = 0;
  const auto mark = static_cast<std::size_t>(found - lines.begin());
  if (at >= mark || !read_count(lines[at], count) || count < 1) return "it does not tell the number of its values";
  std::int64_t values = 0;
  for (++at; at < mark; ++at) {
    std::string_view line = lines[at];
    for (std::string_view word = next_word(line); !word.empty(); word = next_word(line), ++values) {
      double x = 0.0;
      if (!read_value(word, x)) return text("line ", at + 1, " holds no values");
    }
  }
  if (values != count) return text("it announces ", count, " values and holds ", values);

  std::int64_t listed = 0;
  for (at = mark + 1; at < lines.size();) {
    if (is_blank(lines[at])) {
      ++at;
      continue;
    }
    SAVED_ROW row;
    const bool heading = lines[at].starts_with(structure_heading) || lines[at].starts_with(variance_heading);
    if (!heading || !read_heading(lines[at], row)) return text("line ", at + 1, " is no heading of a section");
    ++at;
    if (row.facts.parameters > static_cast<std::int64_t>(lines.size() - at)) return text("section ", row.name, " is not complete");
    for (std::int64_t k = 0; k < row.facts.parameters; ++k, ++at) {
      if (!read_parameter(lines[at], row.parameters.emplace_back())) return text("line ", at + 1, " is no line of a parameter");
    }
    listed += row.facts.parameters;
    out.rows.push_back(std::move(row));
  }
  if (listed != count) return text("it announces ", count, " parameters and lists ", listed);
  return {};
}

/// A name without the number behind it, which tells factors or bands.
std::string_view without_number(std::string_view name)
{
  while (!name.empty() && name.back() >= '0' && name.back() <= '9') name.remove_suffix(1);
  return name;
}

bool is_factor_model(std::int64_t code)
{
  return code == fa || code == facv || code == xfa;
}

/// The ends of the labels of a row of the file; empty where its facts do not agree with each other.
std::vector<std::string> marks_of(const STRUCTURE_ROW& facts, const std::vector<ParamType>& types)
{
  const ROW_PARAMETERS split = row_parameters(facts);
  if (!split.fit || split.own < 0 || split.own > facts.parameters) return {};
  return row_label_ends(facts, types);
}

/// Whether the values of a saved row can stand in a row of the model.
bool agrees(const SAVED_ROW& saved, const FILE_ROW& present)
{
  if (present.row == nullptr) return saved.facts.selector == 0 && saved.facts.model == 0 && saved.name == present.name;
  const STRUCTURE_ROW& row = *present.row;
  if (saved.facts.model != row.model || saved.facts.selector != row.selector) return false;
  if (is_factor_model(row.model) && without_number(saved.name) == without_number(present.name)) return true;
  return saved.name == present.name && saved.facts.order == row.order;
}

/// What the reading found on its way.
struct READING {
  std::vector<VARIANCE_PARAMETER> parameters = {};  // of the model, with what was taken
  std::vector<std::int64_t> taken_from = {};        // number in the file by parameter of the model; 0: none
  bool fixed_kept = false;
  bool links_differ = false;
  std::string link_text = {};
  std::int64_t taken = 0;
};

/// L_COMPARE_LETTERS: tells where the file has another constraint; that of the model stays.
void L_COMPARE_LETTERS(ERROR_HANDLER& eh, const SAVED_PARAMETER& saved, const VARIANCE_PARAMETER& p)
{
  const Frame here{eh, __func__};
  const char present = file_letter(rsv_letters, p.constraint);
  const auto compared = [](char letter) { return compared_letters.find(letter) != std::string_view::npos; };
  if (saved.letter == present || !compared(saved.letter) || !compared(present)) return;
  // Loadings that the set-up makes zero are fixed by it again.
  if (p.role == ParamRole::loading && saved.letter == 'F' && saved.value == 0.0) return;
  eh.warning(text("Parameter constraint difference in .rsv file: ", saved.letter, " ==> ", present));
  eh.continuation("Use .msv/.tsv to reset parameter constraints.");
}

/// L_TAKE: one value; false when it is implausible.
bool L_TAKE(ERROR_HANDLER& eh, const SAVED_PARAMETER& saved, double value, std::int64_t i, const VARIANCE_MODEL& model,
            READING& reading)
{
  const Frame here{eh, __func__};
  if (std::fabs(value) > implausible) {
    eh.warning(text("Implausible variance parameter value (", edit_e(value, 12, 4), ") in .rsv file"));
    eh.continuation("input from .rsv is aborted. If the value is reasonable, given the scale of the data, rescale the data values and");
    eh.continuation("the initial values");
    return false;
  }
  VARIANCE_PARAMETER& p = reading.parameters[static_cast<std::size_t>(i)];
  L_COMPARE_LETTERS(eh, saved, p);
  reading.taken_from[static_cast<std::size_t>(i)] = saved.number;
  if (p.constraint == Constraint::F || p.constraint == Constraint::Z) {
    reading.fixed_kept = reading.fixed_kept || (p.constraint == Constraint::F && value != p.value);
    return true;
  }
  ++reading.taken;
  if (!(model.profiled && i == model.residual_parameter)) p.value = p.start = value;
  return true;
}

/// The levels of a row, its factors and bound levels left out.
std::int64_t levels_of(const STRUCTURE_ROW& row)
{
  return row.model == xfa ? row.parameters / (std::max<std::int64_t>(row.order, 0) + 1) : row.size;
}

/// The part of a factor model's parameters that sizes its variance: squared loadings, and specific variances where they
/// are variances beside the loadings.
double factor_variance(const STRUCTURE_ROW& row, std::span<const double> values)
{
  if (row.size < 1 || values.empty()) return 0.0;
  const auto n = static_cast<std::int64_t>(values.size());
  const std::int64_t levels = levels_of(row);
  double sum = 0.0;
  for (std::int64_t k = 0; k < n; ++k) {
    const double x = values[static_cast<std::size_t>(k)];
    const bool specific = row.model == xfa ? k < levels : k >= n - levels;
    if (!specific) sum += x * x;
    if (specific && row.model != fa) sum += x;
  }
  return sum;
}

/// L_TAKE_ROW: a row of the file into one of the model, parameter by parameter; false when the reading ends.
bool L_TAKE_ROW(ERROR_HANDLER& eh, const std::string& file, const SAVED_ROW& saved, const FILE_ROW& present,
                const VARIANCE_MODEL& model, READING& reading)
{
  const Frame here{eh, __func__};
  if (present.row == nullptr) {
    if (saved.parameters.front().type != model.parameters[static_cast<std::size_t>(present.first)].type) return true;
    return L_TAKE(eh, saved.parameters.front(), saved.parameters.front().value, present.first, model, reading);
  }
  const STRUCTURE_ROW& row = *present.row;
  // More levels than the model has are other levels; a count that does not depend on them is free.
  if (saved.facts.parameters != row.parameters && levels_of(saved.facts) > levels_of(row)) return true;
  std::vector<ParamType> saved_types, types;
  for (const SAVED_PARAMETER& p : saved.parameters) saved_types.push_back(p.type);
  for (std::int64_t k = 0; k < row.parameters; ++k) types.push_back(model.parameters[static_cast<std::size_t>(row.first + k)].type);
  const std::vector<std::string> from = marks_of(saved.facts, saved_types), to = marks_of(row, types);
  std::vector<std::ptrdiff_t> match(to.size(), -1);
  std::vector<double> old_values, new_values;
  for (std::size_t k = 0; k < to.size(); ++k) {
    const auto at = std::find(from.begin(), from.end(), to[k]);
    if (at != from.end() && saved_types[static_cast<std::size_t>(at - from.begin())] == types[k]) match[k] = at - from.begin();
    const double own = reading.parameters[static_cast<std::size_t>(row.first) + k].value;
    new_values.push_back(match[k] < 0 ? own : saved.parameters[static_cast<std::size_t>(match[k])].value);
  }
  // Another number of factors: all are scaled so that the variance of the row stays what the file has.
  double scale = 1.0;
  if (is_factor_model(row.model) && saved.facts.order != row.order) {
    for (const SAVED_PARAMETER& p : saved.parameters) old_values.push_back(p.value);
    const double was = factor_variance(saved.facts, old_values), is = factor_variance(row, new_values);
    if (was > 0.0 && is > 0.0) scale = std::sqrt(was / is);
    eh.note(text("XFA parameters in ", file, " taken from .rsv file and scaled by ", edit_f(scale, 6, 2)));
  }
  for (std::size_t k = 0; k < to.size(); ++k) {
    const std::int64_t i = row.first + static_cast<std::int64_t>(k);
    const ParamRole role = model.parameters[static_cast<std::size_t>(i)].role;
    const double by = row.model == fa && role == ParamRole::variance ? 1.0 : role == ParamRole::variance ? scale * scale : scale;
    if (match[k] < 0) {
      VARIANCE_PARAMETER& p = reading.parameters[static_cast<std::size_t>(i)];
      if (scale != 1.0 && is_free(p.constraint)) p.value = p.start = p.value * by;
      continue;
    }
    const SAVED_PARAMETER& p = saved.parameters[static_cast<std::size_t>(match[k])];
    if (!L_TAKE(eh, p, p.value * by, i, model, reading)) return false;
  }
  return true;
}

/// Notes whether the relations that the file has are those of the model.
void compare_links(const SAVED_FILE& saved, READING& reading)
{
  const auto differ = [&](const SAVED_PARAMETER& p) {
    reading.links_differ = true;
    if (reading.link_text.empty()) reading.link_text = text("parameter ", p.number);
  };
  for (const SAVED_ROW& row : saved.rows) {
    for (const SAVED_PARAMETER& p : row.parameters) {
      const auto at = std::find(reading.taken_from.begin(), reading.taken_from.end(), p.number);
      if (at == reading.taken_from.end()) continue;
      const VARIANCE_PARAMETER& mine = reading.parameters[static_cast<std::size_t>(at - reading.taken_from.begin())];
      const std::int64_t master = mine.master < 0 ? 0 : reading.taken_from[static_cast<std::size_t>(mine.master)];
      const bool same = p.link == (mine.master < 0 ? 0 : master) &&
                        (p.link == 0 || std::fabs(p.coefficient - mine.coefficient) <= 1e-5 * std::fabs(mine.coefficient) + 1e-6);
      if (!p.follows_readably || !same) differ(p);
    }
  }
}

}  // namespace

void AIDCON_RETRIEVE(ERROR_HANDLER& eh, const TERM_TABLE& terms, const std::string& name, PARAMETER_FILES& files,
                     VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  if (!files.in_use) {
    eh.internal("attempting to read rsv and / or veo file, but we are not using files");
    return;
  }
  std::string contents, error;
  SAVED_FILE saved;
  std::optional<std::string> fault;
  if (!read_file(name, contents, error))
    fault = error;
  else
    fault = read_saved(contents, saved);
  if (fault) {
    eh.warning(text("failed to read .rsv file ", name));
    eh.continuation(*fault);
    eh.continuation("the initial values of the model stay");
    return;
  }
  if (saved.response != files.response) {
    eh.warning(text("ignoring initial parameter values from .rsv file, it pertains to ", saved.response, " rather than ",
                    files.response));
    return;
  }
  if (!saved.this_version) {
    eh.warning("The .rsv file is from an older version of TOLVAN and is not compatible with this version. It is ignored.");
    return;
  }

  READING reading{.parameters = model.parameters};
  reading.taken_from.assign(model.parameters.size(), 0);
  const std::vector<FILE_ROW> present = file_rows(model);
  std::vector<std::uint8_t> filled(present.size(), 0);
  bool aborted = false;
  for (const SAVED_ROW& row : saved.rows) {
    for (std::size_t k = 0; k < present.size() && !aborted; ++k) {
      if (filled[k] != 0 || !agrees(row, present[k])) continue;
      filled[k] = 1;
      aborted = !L_TAKE_ROW(eh, name, row, present[k], model, reading);
      break;
    }
    if (aborted) break;
  }
  if (!aborted) compare_links(saved, reading);
  if (reading.links_differ) {
    eh.warning(text(" Possible VCC/VCM constraint problem parsing .rsv file: ", reading.link_text));
  }
  if (reading.fixed_kept) eh.note("Fixed variance parameters NOT updated from .rsv file");
  model.parameters = std::move(reading.parameters);
  set_followers(model);
  if (aborted) return;
  const auto taken = std::count_if(reading.taken_from.begin(), reading.taken_from.end(), [](std::int64_t n) { return n > 0; });
  if (taken == 0) {
    eh.warning(text("no parameter of the model was found in the file ", name));
    return;
  }
  eh.note(text("restart values taken from ", name));
  if (taken < model.count()) eh.continuation(text("they are those of ", taken, " of the ", model.count(), " parameters of the model"));

  const std::string veo = (lower(name).ends_with(".rsv") ? name.substr(0, name.size() - 4) : name) + ".veo";
  if (read_file(veo, contents, error)) READ_EQUATION_ORDER(contents, terms, files.order);
}

}  // namespace tolvan
