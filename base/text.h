// Text: joining, the Fortran edits of numbers (the only place that knows what G13.6 prints), ASCII helpers.
// Blanks, where a helper trims or compares them, are space, tab, carriage return and line feed.
#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tolvan {

// ---- joining

inline void append(std::string& out, std::string_view s)
{
  out += s;
}
inline void append(std::string& out, char c)
{
  out += c;
}
template <std::integral Integer>
requires(!std::same_as<Integer, bool>)  // say which words you mean
    void append(std::string& out, Integer value)
{
  char buffer[24];
  out.append(buffer, std::to_chars(buffer, buffer + sizeof buffer, value).ptr);
}
/// The shortest digits that read back to the same double: 3, 0.1, 1e+20, NaN, -Infinity.
void append(std::string& out, double x);

/// Joins strings, characters, integers and doubles (shortest digits) into one text.
template <class... Parts>
std::string text(const Parts&... parts)
{
  std::string out;
  (append(out, parts), ...);
  return out;
}

// ---- Fortran edits.  What does not fit its width becomes asterisks; width 0 takes the room it needs.

std::string edit_i(std::int64_t value, int width);      // Iw
std::string edit_f(double x, int width, int decimals);  // Fw.d
std::string edit_e(double x, int width, int digits);    // Ew.d
std::string edit_d(double x, int width, int digits);    // Dw.d
std::string edit_es(double x, int width, int digits);   // ESw.d
std::string edit_g(double x, int width, int digits);    // Gw.d
/// By a format text in either case: "I9", "F12.4", "E12.4", "D12.4", "ES12.4", "G13.6", also "I0" and "F0.2".
/// A real under I is rounded to the nearest integer.  A text that is no format gives the shortest digits.
std::string edit(double x, std::string_view format);
std::string edit(std::int64_t value, std::string_view format);
/// The width of a format text; 0 for width 0 and for a text that is no format.
int edit_width(std::string_view format);

// ---- ASCII helpers

std::string upper(std::string_view s);  // a to z only
std::string lower(std::string_view s);  // A to Z only
/// Without the blanks at both ends, or at the right end.  A view of the argument: don't keep it longer.
std::string_view trim(std::string_view s);
std::string_view rtrim(std::string_view s);
bool is_blank(std::string_view s);  // empty counts
bool equal_nocase(std::string_view a, std::string_view b);
bool starts_with_nocase(std::string_view s, std::string_view start);
/// The pieces between separators, empty ones included: one more than there are separators.
std::vector<std::string> split(std::string_view s, char separator);
std::string join(const std::vector<std::string>& list, std::string_view separator);
/// The whole text as a number: an optional sign, then digits (or a decimal number); no blanks.  False leaves
/// out as it is.
bool read_integer(std::string_view s, std::int64_t& out);
bool read_real(std::string_view s, double& out);

}  // namespace tolvan
