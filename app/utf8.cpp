#include "app/utf8.h"

#include <bit>

namespace tolvan::driver {
namespace {

/// The characters 0x80 to 0x9F of Windows-1252; five of them are none.
constexpr std::u32string_view windows_only =
    U"\u20AC\uFFFD\u201A\u0192\u201E\u2026\u2020\u2021\u02C6\u2030\u0160\u2039\u0152\uFFFD\u017D\uFFFD"
    U"\uFFFD\u2018\u2019\u201C\u201D\u2022\u2013\u2014\u02DC\u2122\u0161\u203A\u0153\uFFFD\u017E\u0178";
static_assert(windows_only.size() == 32);

}  // namespace

void append_utf8(std::string& out, unsigned code)
{
  const auto tail = [&](int shift) { out += static_cast<char>(0x80 | ((code >> shift) & 0x3F)); };
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | (code >> 6));
    tail(0);
  } else if (code < 0x10000) {
    out += static_cast<char>(0xE0 | (code >> 12));
    tail(6);
    tail(0);
  } else {
    out += static_cast<char>(0xF0 | (code >> 18));
    tail(12);
    tail(6);
    tail(0);
  }
}

bool is_utf8(std::string_view s)
{
  // Characters of n bytes begin with n ones; the codes that fewer bytes hold, and those of surrogates, are none.
  constexpr unsigned least[] = {0, 0, 0x80, 0x800, 0x10000};
  for (std::size_t k = 0; k < s.size();) {
    const auto lead = static_cast<unsigned char>(s[k]);
    const int n = std::countl_one(lead);
    if (n == 0) {
      ++k;
      continue;
    }
    if (n < 2 || n > 4 || k + static_cast<std::size_t>(n) > s.size()) return false;
    unsigned code = lead & (0x7FU >> n);
    for (int i = 1; i < n; ++i) {
      const auto next = static_cast<unsigned char>(s[k + static_cast<std::size_t>(i)]);
      if (std::countl_one(next) != 1) return false;
      code = (code << 6) | (next & 0x3F);
    }
    if (code < least[n] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
    k += static_cast<std::size_t>(n);
  }
  return true;
}

std::string utf8_from_windows(std::string_view s)
{
  std::string out;
  out.reserve(s.size() + s.size() / 8);
  for (const char c : s) {
    const auto byte = static_cast<unsigned char>(c);
    append_utf8(out, byte >= 0x80 && byte < 0xA0 ? static_cast<unsigned>(windows_only[byte - 0x80U]) : byte);
  }
  return out;
}

}  // namespace tolvan::driver
