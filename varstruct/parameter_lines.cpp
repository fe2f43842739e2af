#include "varstruct/parameter_lines.h"

#include <algorithm>
#include <cmath>

#include "base/text.h"

namespace tolvan {

namespace {

/// Whether a text reads back to a number, but for rounding in the eighth digit.
bool keeps(std::string_view edited, double x)
{
  double back = 0.0;
  return read_value(edited, back) && std::fabs(back - x) <= 1e-7 * std::fabs(x);
}

/// A label without what tells the parameters of a row apart: "gen:site;site.FA2_L_2_1" gives "gen:site;site.FA2".
std::string shared_part(std::string_view label)
{
  if (const std::size_t repeat = label.rfind('#'); repeat != std::string_view::npos) label = label.substr(0, repeat);
  while (!label.empty() && (label.back() == '_' || (label.back() >= '0' && label.back() <= '9'))) label.remove_suffix(1);
  if (label.size() > 2 && label[label.size() - 2] == '_') label.remove_suffix(2);
  return std::string(label);
}

}  // namespace

std::string edit_value(double x)
{
  const std::string fixed = edit_f(x, 16, 8);
  return x == 0.0 || keeps(fixed, x) ? fixed : edit_es(x, 16, 8);
}

bool read_value(std::string_view field, double& x)
{
  // An exponent may have a D, and no letter at all where it has three digits.
  std::string number(trim(field));
  const std::size_t exponent = number.find_last_of("+-");
  if (const std::size_t d = number.find_first_of("Dd"); d != std::string::npos)
    number[d] = 'E';
  else if (exponent != std::string::npos && exponent > 0 && number.find_first_of("Ee") == std::string::npos)
    number.insert(exponent, "E");
  double read = 0.0;
  if (!read_real(number, read) || !std::isfinite(read)) return false;
  x = read;
  return true;
}

bool read_count(std::string_view field, std::int64_t& n)
{
  return read_integer(trim(field), n);
}

std::string edit_number(std::int64_t n)
{
  std::string digits = text(n);
  if (digits.size() < 4) digits.insert(0, 4 - digits.size(), ' ');
  return digits;
}

std::string edit_coefficient(double x)
{
  const std::string fixed = edit_f(x, 8, 4);
  double back = 0.0;
  return read_value(fixed, back) && std::fabs(back - x) <= 1e-4 * std::fabs(x) ? fixed : text(x);
}

std::vector<FILE_ROW> file_rows(const VARIANCE_MODEL& model)
{
  std::vector<FILE_ROW> out;
  const auto add = [&](const STRUCTURE_ROW* row, std::int64_t first, std::int64_t parameters, bool variance) {
    if (parameters < 1 || first < 0 || first + parameters > model.count()) return;
    const std::string& label = model.parameters[static_cast<std::size_t>(first)].label;
    out.push_back({row, shared_part(label), first, parameters, variance});
  };
  for (const STRUCTURE_ROW& row : model.rows) add(&row, row.first, row.parameters, false);
  for (const STRUCTURE_ROW& row : model.residual) add(&row, row.first, row.parameters, row.model == 0);
  for (const RESIDUAL_SECTION& section : model.sections) {
    if (section.scale >= 0) add(nullptr, section.scale, 1, true);
  }
  std::stable_sort(out.begin(), out.end(), [](const FILE_ROW& a, const FILE_ROW& b) { return a.first < b.first; });
  return out;
}

std::vector<std::string_view> whole_lines(std::string_view contents, bool& whole)
{
  std::vector<std::string_view> lines;
  while (true) {
    const std::size_t end = contents.find('\n');
    if (end == std::string_view::npos) break;
    std::string_view line = contents.substr(0, end);
    if (line.ends_with('\r')) line.remove_suffix(1);
    lines.push_back(line);
    contents.remove_prefix(end + 1);
  }
  whole = contents.empty();
  return lines;
}

}  // namespace tolvan
