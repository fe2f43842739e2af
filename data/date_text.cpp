#include "data/date_text.h"

#include <array>
#include <charconv>

#include "base/text.h"
#include "data/day_number.h"

namespace tolvan {

namespace {

constexpr std::array<std::string_view, 12> months = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

/// One part of a date or time.
struct Part {
  std::int64_t value = 0;
  bool is_month_name = false;
};

/// A part of digits alone, at most so many.
bool read_digits(std::string_view s, std::size_t most, std::int64_t& value)
{
  if (s.empty() || s.size() > most || s.find_first_not_of("0123456789") != std::string_view::npos)
    return false;
  std::from_chars(s.data(), s.data() + s.size(), value);
  return true;
}

bool read_part(std::string_view s, Part& part)
{
  for (std::size_t m = 0; m < months.size(); ++m) {
    if (!equal_nocase(s, months[m])) continue;
    part = {static_cast<std::int64_t>(m) + 1, true};
    return true;
  }
  return read_digits(s, 4, part.value);
}

/// Cuts a text at any of the separators into exactly N parts; false for another number of them.
template <std::size_t N>
bool cut(std::string_view s, std::string_view separators, std::array<std::string_view, N>& parts)
{
  for (std::size_t k = 0; k + 1 < N; ++k) {
    const std::size_t at = s.find_first_of(separators);
    if (at == std::string_view::npos) return false;
    parts[k] = s.substr(0, at);
    s.remove_prefix(at + 1);
  }
  parts[N - 1] = s;
  return s.find_first_of(separators) == std::string_view::npos;
}

DateForm form_of(const std::array<Part, 3>& parts)
{
  if (parts[0].is_month_name) return DateForm::month_first;
  if (parts[0].value >= 1000) return DateForm::year_first;
  if (parts[0].value > 12) return DateForm::day_first;
  return !parts[1].is_month_name && parts[1].value > 12 ? DateForm::month_first : DateForm::day_first;
}

/// Where day, month and year stand in each form.
struct Places {
  std::size_t day, month, year;
};
constexpr std::array places = {Places{0, 1, 2}, Places{0, 1, 2}, Places{1, 0, 2}, Places{2, 1, 0}};

}  // namespace

std::string_view date_form_letters(DateForm form)
{
  constexpr std::array<std::string_view, 4> letters = {"", "DD", "MM", "CCYY"};
  return letters[static_cast<std::size_t>(form)];
}

bool read_date(std::string_view s, DateForm& form, double& day)
{
  std::array<std::string_view, 3> texts;
  std::array<Part, 3> parts;
  if (!cut(s, "-/", texts)) return false;
  for (std::size_t k = 0; k < parts.size(); ++k) {
    if (!read_part(texts[k], parts[k])) return false;
  }
  const DateForm meant = form == DateForm::unknown ? form_of(parts) : form;
  const Places at = places[static_cast<std::size_t>(meant)];
  if (parts[at.day].is_month_name || parts[at.year].is_month_name) return false;
  // A year of two digits in front would be a day to the eye.
  if (meant == DateForm::year_first && parts[0].value < 1000) return false;
  const std::int64_t year = full_year(parts[at.year].value);
  const auto number = day_number(year, parts[at.month].value, parts[at.day].value);
  if (year < 1900 || !number) return false;
  day = static_cast<double>(*number);
  form = meant;
  return true;
}

bool read_time(std::string_view s, double& seconds)
{
  std::array<std::string_view, 3> texts;
  if (!cut(s, ":", texts)) {
    std::array<std::string_view, 2> two;
    if (!cut(s, ":", two)) return false;
    texts = {two[0], two[1], "0"};
  }
  std::array<std::int64_t, 3> parts{};
  for (std::size_t k = 0; k < parts.size(); ++k) {
    if (!read_digits(texts[k], 2, parts[k])) return false;
  }
  if (parts[0] > 23 || parts[1] > 59 || parts[2] > 59) return false;
  seconds = static_cast<double>(3600 * parts[0] + 60 * parts[1] + parts[2]);
  return true;
}

}  // namespace tolvan
