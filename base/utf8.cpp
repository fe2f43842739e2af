#include "base/utf8.h"

#include <cstdint>
#include <cstring>

namespace tolvan {

namespace {

// The characters of Windows-1252 from 0x80 to 0x9F; 0 has none.
constexpr std::uint16_t windows_only[32] = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0,      0x017D, 0,      0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178,
};
constexpr unsigned replacement = 0xFFFD;

void append_utf8(unsigned code, std::string& out)
{
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0U | (code >> 6U));
    out += static_cast<char>(0x80U | (code & 0x3FU));
  } else {
    out += static_cast<char>(0xE0U | (code >> 12U));
    out += static_cast<char>(0x80U | ((code >> 6U) & 0x3FU));
    out += static_cast<char>(0x80U | (code & 0x3FU));
  }
}

}  // namespace

std::size_t utf8_length(std::string_view s)
{
  const auto byte = [&s](std::size_t k) { return k < s.size() ? static_cast<unsigned char>(s[k]) : 0U; };
  const auto follows = [&byte](std::size_t k) { return (byte(k) & 0xC0U) == 0x80U; };
  const unsigned a = byte(0);
  const unsigned b = byte(1);
  if (a < 0x80) return s.empty() ? 0 : 1;
  if (a >= 0xC2 && a <= 0xDF && follows(1)) return 2;
  if (a >= 0xE0 && a <= 0xEF && follows(1) && follows(2)) {
    const bool overlong = a == 0xE0 && b < 0xA0;
    const bool surrogate = a == 0xED && b > 0x9F;
    return overlong || surrogate ? 0 : 3;
  }
  if (a >= 0xF0 && a <= 0xF4 && follows(1) && follows(2) && follows(3)) {
    const bool overlong = a == 0xF0 && b < 0x90;
    const bool beyond = a == 0xF4 && b > 0x8F;
    return overlong || beyond ? 0 : 4;
  }
  return 0;
}

bool is_utf8(std::string_view s)
{
  while (!s.empty()) {
    const std::size_t n = utf8_length(s);
    if (n == 0) return false;
    s.remove_prefix(n);
  }
  return true;
}

bool has_high_bytes(std::string_view s)
{
  std::uint64_t seen = 0;
  std::size_t k = 0;
  for (; k + sizeof seen <= s.size(); k += sizeof seen) {
    std::uint64_t eight = 0;
    std::memcpy(&eight, s.data() + k, sizeof eight);
    seen |= eight;
  }
  for (; k < s.size(); ++k) seen |= static_cast<unsigned char>(s[k]);
  return (seen & 0x8080808080808080U) != 0;
}

std::string utf8_from_windows(std::string_view s)
{
  std::string out;
  out.reserve(s.size() + s.size() / 4);
  for (const char c : s) {
    unsigned code = static_cast<unsigned char>(c);
    if (code >= 0x80 && code < 0xA0) code = windows_only[code - 0x80] != 0 ? windows_only[code - 0x80] : replacement;
    append_utf8(code, out);
  }
  return out;
}

}  // namespace tolvan
