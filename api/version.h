// The version of this build and the day on which it was made.
#pragma once

#include <cstdint>

namespace tolvan {

inline constexpr std::int64_t version_major = 1;
inline constexpr std::int64_t version_minor = 0;
inline constexpr std::int64_t version_patch = 0;
#ifdef TOLVAN_BUILD_NUMBER
inline constexpr std::int64_t version_build = TOLVAN_BUILD_NUMBER;
#else
inline constexpr std::int64_t version_build = 0;
#endif
inline constexpr const char* version_tag = "v1.0.0";

struct build_date {
  std::int64_t year, month, day;
};

/// The build system may give the date as an integer (20260131), for builds that must repeat to the bit; else
/// it is the compiler's own date.
constexpr build_date date_of_build()
{
#ifdef TOLVAN_BUILD_DATE
  return {TOLVAN_BUILD_DATE / 10000, TOLVAN_BUILD_DATE / 100 % 100, TOLVAN_BUILD_DATE % 100};
#else
  constexpr const char* date = __DATE__;  // "Jan 31 2026", the day padded with a blank
  constexpr const char* months = "JanFebMarAprMayJunJulAugSepOctNovDec";
  std::int64_t month = 1;
  for (std::int64_t m = 0; m < 12; ++m) {
    if (months[3 * m] == date[0] && months[3 * m + 1] == date[1] && months[3 * m + 2] == date[2])
      month = m + 1;
  }
  const auto digit = [&](int k) -> std::int64_t { return date[k] == ' ' ? 0 : date[k] - '0'; };
  return {digit(7) * 1000 + digit(8) * 100 + digit(9) * 10 + digit(10), month, digit(4) * 10 + digit(5)};
#endif
}

}  // namespace tolvan
