// Dates as day numbers: 1900-01-01 is day 1, in the Gregorian calendar carried back before its time.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace tolvan {

/// The full year of a short one: up to 32 of this century, up to 199 years since 1900; others as they are.
constexpr std::int64_t full_year(std::int64_t year)
{
  return year < 0 || year > 199 ? year : year < 33 ? year + 2000 : year + 1900;
}

/// The number of a day; nothing where there is no such day.
inline std::optional<std::int64_t> day_number(std::int64_t year, std::int64_t month, std::int64_t day)
{
  using namespace std::chrono;
  if (year < 1 || year > 9999 || month < 1 || month > 12 || day < 1 || day > 31) return std::nullopt;
  const year_month_day date{std::chrono::year{static_cast<int>(year)},
                            std::chrono::month{static_cast<unsigned>(month)},
                            std::chrono::day{static_cast<unsigned>(day)}};
  if (!date.ok()) return std::nullopt;
  constexpr sys_days first = std::chrono::year{1900} / January / 1;
  return (sys_days{date} - first).count() + 1;
}

}  // namespace tolvan
