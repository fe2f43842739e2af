// The Fortran edits I, F, E, D, ES and G (Fortran 2003, section 10.6; rounding to nearest, no scale factor).
#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>

#include "base/text.h"

namespace tolvan {

namespace {

struct Format {
  std::string letter;  // upper case
  int width = 0;
  int digits = 0;
};

std::string stars(int width)
{
  return std::string(static_cast<std::size_t>(std::max(width, 0)), '*');
}

// Right-aligned in the width, or asterisks.
std::string place(std::string digits, int width)
{
  if (width <= 0) return digits;
  const auto room = static_cast<std::size_t>(width);
  if (digits.size() > room) return stars(width);
  return std::string(room - digits.size(), ' ') + digits;
}

// The zero before the point is written only where there is room for it.
std::string place_with_zero(bool negative, std::string_view digits, int width)
{
  std::string out = negative ? "-" : "";
  const std::size_t length = out.size() + digits.size();
  if (digits.starts_with("0.") && digits.size() > 2 &&
      (width <= 0 || length > static_cast<std::size_t>(width))) {
    digits.remove_prefix(1);
  }
  out += digits;
  return place(std::move(out), width);
}

std::string not_finite(double x, int width)
{
  if (std::isnan(x)) return place("NaN", width);
  const std::string whole = x < 0.0 ? "-Infinity" : "Infinity";
  if (static_cast<std::int64_t>(whole.size()) <= width) return place(whole, width);
  return place(x < 0.0 ? "-Inf" : "Inf", width);
}

std::string fixed_digits(double x, int decimals)
{
  char buffer[512 + 32];
  decimals = std::clamp(decimals, 0, 200);
  const auto end =
      std::to_chars(buffer, buffer + sizeof buffer, std::abs(x), std::chars_format::fixed, decimals).ptr;
  std::string out(buffer, end);
  if (decimals == 0) out += '.';
  return out;
}

// |x| = 0.d1 d2 ... dn x 10^exponent, rounded to n digits; all zeros and exponent 0 for zero.
struct Scientific {
  std::string digits;
  int exponent = 0;
};

Scientific scientific(double x, int n)
{
  Scientific out;
  n = std::clamp(n, 1, 200);
  if (x == 0.0) {
    out.digits.assign(static_cast<std::size_t>(n), '0');
    return out;
  }
  char buffer[256];
  const auto end =
      std::to_chars(buffer, buffer + sizeof buffer, std::abs(x), std::chars_format::scientific, n - 1).ptr;
  const std::string_view whole(buffer, static_cast<std::size_t>(end - buffer));
  const std::size_t mark = whole.find('e');
  for (char c : whole.substr(0, mark)) {
    if (c != '.') out.digits += c;
  }
  std::int64_t exponent = 0;
  read_integer(whole.substr(mark + 1), exponent);
  out.exponent = static_cast<int>(exponent) + 1;
  return out;
}

// E+05; three digits of exponent push the letter out: +105.
std::string exponent_text(int exponent, char letter)
{
  const int size = std::abs(exponent);
  std::string out;
  if (size <= 99) out += letter;
  out += exponent < 0 ? '-' : '+';
  if (size <= 9) out += '0';
  append(out, size);
  return out;
}

std::string edit_exponent(double x, int width, int digits, char letter)
{
  if (!std::isfinite(x)) return not_finite(x, width);
  const Scientific s = scientific(x, digits);
  return place_with_zero(std::signbit(x), text("0.", s.digits, exponent_text(s.exponent, letter)), width);
}

std::optional<Format> read_format(std::string_view format)
{
  Format out;
  format = trim(format);
  const std::size_t number = std::min(format.find_first_of("0123456789"), format.size());
  out.letter = upper(format.substr(0, number));
  const std::string_view sizes = format.substr(number);
  const std::size_t point = sizes.find('.');
  std::int64_t width = 0;
  std::int64_t digits = 0;
  if (!read_integer(sizes.substr(0, point), width)) return {};
  if (point != sizes.npos && !read_integer(sizes.substr(point + 1), digits)) return {};
  constexpr std::int64_t widest = 200;
  if (width < 0 || width > widest || digits < 0 || digits > widest) return {};
  out.width = static_cast<int>(width);
  out.digits = static_cast<int>(digits);
  return out;
}

}  // namespace

std::string edit_i(std::int64_t value, int width)
{
  return place(text(value), width);
}

std::string edit_f(double x, int width, int decimals)
{
  if (!std::isfinite(x)) return not_finite(x, width);
  return place_with_zero(std::signbit(x), fixed_digits(x, decimals), width);
}

std::string edit_e(double x, int width, int digits)
{
  return edit_exponent(x, width, digits, 'E');
}

std::string edit_d(double x, int width, int digits)
{
  return edit_exponent(x, width, digits, 'D');
}

std::string edit_es(double x, int width, int digits)
{
  if (!std::isfinite(x)) return not_finite(x, width);
  const Scientific s = scientific(x, digits + 1);
  std::string out = std::signbit(x) ? "-" : "";
  out += s.digits.substr(0, 1);
  out += '.';
  out += s.digits.substr(1);
  out += exponent_text(x == 0.0 ? 0 : s.exponent - 1, 'E');
  return place(std::move(out), width);
}

// F with the point so placed that d significant digits show, then four blanks where E has its exponent.
std::string edit_g(double x, int width, int digits)
{
  if (width <= 0) return text(x);
  if (!std::isfinite(x)) return not_finite(x, width);
  const Scientific s = scientific(x, digits);
  const int exponent = x == 0.0 ? 1 : s.exponent;
  if (exponent < 0 || exponent > digits) return edit_e(x, width, digits);
  if (width <= 4) return stars(width);
  return edit_f(x, width - 4, digits - exponent) + "    ";
}

std::string edit(double x, std::string_view format)
{
  const auto f = read_format(format);
  if (!f) return text(x);
  if (f->letter == "F") return edit_f(x, f->width, f->digits);
  if (f->letter == "E") return edit_e(x, f->width, f->digits);
  if (f->letter == "D") return edit_d(x, f->width, f->digits);
  if (f->letter == "ES") return edit_es(x, f->width, f->digits);
  if (f->letter == "G") return edit_g(x, f->width, f->digits);
  if (f->letter == "I") {
    if (!std::isfinite(x)) return not_finite(x, f->width);
    if (std::abs(x) >= 9.2e18) return f->width > 0 ? stars(f->width) : text(x);
    return edit_i(std::llround(x), f->width);
  }
  return text(x);
}

std::string edit(std::int64_t value, std::string_view format)
{
  const auto f = read_format(format);
  if (!f) return text(value);
  if (f->letter == "I" || f->letter == "G") return edit_i(value, f->width);
  return edit(static_cast<double>(value), format);
}

int edit_width(std::string_view format)
{
  const auto f = read_format(format);
  return f ? f->width : 0;
}

}  // namespace tolvan
