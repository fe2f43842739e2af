#include "data/field_values.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "base/text.h"
#include "data/label_text.h"

namespace tolvan {

namespace {

using Fault = READ_FAULT::Kind;

constexpr double largest_code = 9007199254740992.0;  // 2^53: whole numbers are exact up to here
constexpr std::size_t most_cut_labels_told = 50;

/// Whether a number too large or too small for a double is too large: its first digit stands left of the
/// point.
bool overflows(std::string_view number)
{
  const std::size_t e = number.find_first_of("eE");
  const std::string_view digits = number.substr(0, e);
  const std::int64_t point = static_cast<std::int64_t>(std::min(digits.find('.'), digits.size()));
  const std::size_t first = digits.find_first_of("123456789");
  if (first == std::string_view::npos) return false;
  const bool negative = e != std::string_view::npos && e + 1 < number.size() && number[e + 1] == '-';
  std::int64_t exponent = 0;
  if (e != std::string_view::npos) {
    const auto power = whole_number(number.substr(e + 1));
    if (!power) return !negative;
    exponent = *power;
  }
  return point - static_cast<std::int64_t>(first) + exponent > 0;
}

/// Spells a number as the parser wants it: a point for the comma, the letter e, implied decimals as a power
/// of ten. The parser then finds what is no number at all.
void respell(const FIELD_VALUES& values, std::string_view field, int decimals, std::string& number)
{
  number = field;
  for (char& c : number) {
    if (c == 'd' || c == 'D' || c == 'E') c = 'e';
    if (c == ',' && values.decimal_comma) c = '.';
  }
  if (decimals == 0 || number.find_first_not_of("0123456789e+-") != std::string::npos) return;
  const std::size_t e = std::min(number.find('e'), number.size());
  std::int64_t power = 0;
  if (e < number.size()) {
    const auto given = whole_number(std::string_view(number).substr(e + 1));
    if (!given || std::abs(*given) > 99999) return;
    power = *given;
  }
  number = text(std::string_view(number).substr(0, e), 'e', power - decimals);
}

/// The level that a field of a coded factor stands for.
Fault level_of_field(FIELD_VALUES& values, std::size_t v, std::string_view field, std::int64_t& level)
{
  const Coding coding = values.coding.variables[v].coding;
  const VARIABLE& owner = values.variables.row(values.coding.variables[v].owner);
  auto number = whole_number(field);
  if (double x = 0.0; !number && read_number(values, field, 0, x) == Fault::none) {
    if (x == std::floor(x) && std::abs(x) <= largest_code) number = static_cast<std::int64_t>(x);
  }
  if (coding != Coding::level_number && owner.labels_fixed && (!number || coding == Coding::label_number)) {
    level = owner.labels.find(field);
    if (level > 0) return Fault::none;
  }
  if (!number)
    return coding != Coding::level_number && owner.labels_fixed ? Fault::no_label : Fault::no_level;
  level = level_of_number(values.variables, values.coding, v, *number);
  if (level > 0) return Fault::none;
  return *number > 0 ? Fault::level_too_large : Fault::no_level;
}

/// L_LABEL_LEVEL: the level of a label; blanks inside become underscores and long labels are cut, both with a
/// note.
std::int64_t L_LABEL_LEVEL(ERROR_HANDLER& eh, FIELD_VALUES& values, std::size_t v, std::string_view field)
{
  const VARIABLE& variable = values.variables.rows[v];
  const bool embedded = field.find_first_of(" \t") != std::string_view::npos;
  const bool too_long =
      variable.label_length > 0 && static_cast<std::int64_t>(field.size()) > variable.label_length;
  if (!embedded && !too_long) return level_of_text(values.variables, values.coding, v, field);

  const Frame here{eh, __func__};
  std::string label(field);
  const VARIABLE& owner = values.variables.row(values.coding.variables[v].owner);
  if (embedded && owner.labels.find(field) == 0) {  // a declared label may hold blanks
    std::replace_if(
        label.begin(), label.end(), [](char c) { return c == ' ' || c == '\t'; }, '_');
    if (!values.blanks_told) {
      eh.note("Embedded blanks in data fields are converted to UNDERSCORE");
      eh.continuation(text("the first is \"", excerpt(field), "\" of variable ", variable.name));
    }
    values.blanks_told = true;
  }
  if (too_long && values.cut_labels.size() < most_cut_labels_told && values.cut_labels.insert(label).second) {
    eh.note(text("Truncating label \"", label, ". Reset label length with !LL"));  // sic
    eh.continuation(text("of variable ", variable.name, ", its label_length is ", variable.label_length));
    if (values.cut_labels.size() == most_cut_labels_told)
      eh.continuation("further labels are cut without a note");
  }
  return level_of_text(values.variables, values.coding, v, cut_label(label, variable.label_length));
}

/// L_TAKE_DATE: the day of a date; the form of a variable's first one is told and kept.
Fault L_TAKE_DATE(ERROR_HANDLER& eh, FIELD_VALUES& values, std::size_t v, std::string_view field, double& x)
{
  const Frame here{eh, __func__};
  if (values.date_forms.empty()) values.date_forms.resize(values.variables.rows.size());
  DateForm& form = values.date_forms[v];
  const bool first = form == DateForm::unknown;
  if (!read_date(field, form, x)) return Fault::no_date;
  if (first) {
    eh.note(text("Using DATE format ", date_form_letters(form), "..."));
    eh.continuation(text("for ", values.variables.rows[v].name, ", found from ", field));
  }
  return Fault::none;
}

Fault take_variate(ERROR_HANDLER& eh, FIELD_VALUES& values, std::size_t v, std::string_view field,
                   int decimals, double& x)
{
  switch (values.variables.rows[v].content) {
    case FieldContent::date:
      return L_TAKE_DATE(eh, values, v, field, x);
    case FieldContent::time:
      return read_time(field, x) ? Fault::none : Fault::no_time;
    case FieldContent::number:
      break;
  }
  return read_number(values, field, decimals, x);
}

}  // namespace

bool is_missing_text(std::string_view field)
{
  return field.empty() || field == "NA" || field == "na" || field == "*" || field == ".";
}

READ_FAULT::Kind read_number(FIELD_VALUES& values, std::string_view field, int decimals, double& x)
{
  if (field.size() > 1 && field[0] == '+' && field[1] != '-') field.remove_prefix(1);
  if (decimals != 0 || field.find_first_of(values.decimal_comma ? "dD," : "dD") != std::string_view::npos) {
    respell(values, field, decimals, values.number);
    field = values.number;
  }
  const char* end = field.data() + field.size();
  const auto [stop, failed] = std::from_chars(field.data(), end, x);
  if (failed == std::errc::invalid_argument || stop != end) return Fault::no_number;
  if (failed == std::errc::result_out_of_range) {
    if (overflows(field)) return Fault::not_finite;
    x = 0.0;
  }
  return std::isfinite(x) ? Fault::none : Fault::not_finite;
}

READ_FAULT::Kind L_TAKE_FIELD(ERROR_HANDLER& eh, FIELD_VALUES& values, std::size_t v, std::string_view field,
                              int decimals, double& x)
{
  x = no_value;
  if (is_missing_text(field)) return Fault::none;
  Fault fault = Fault::none;
  std::int64_t level = 0;
  switch (values.coding.variables[v].coding) {
    case Coding::variate:
      fault = take_variate(eh, values, v, field, decimals, x);
      if (fault != Fault::none) x = no_value;
      return fault;
    case Coding::by_text:
      level = L_LABEL_LEVEL(eh, values, v, field);
      break;
    case Coding::by_identity: {
      level = values.variables.row(values.coding.variables[v].owner).labels.find(field);
      const auto number = whole_number(field);  // 007 is the identity 7
      if (level == 0 && number) level = level_of_number(values.variables, values.coding, v, *number);
      if (level == 0) fault = Fault::no_identity;
      break;
    }
    default:
      fault = level_of_field(values, v, field, level);
      break;
  }
  if (level > 0) x = static_cast<double>(level);
  return fault;
}

}  // namespace tolvan
