// ASCII helpers and the shortest digits; the edits are in text_edit.cpp.
#include "base/text.h"

#include <algorithm>
#include <cmath>

namespace tolvan {

namespace {

constexpr std::string_view blanks = " \t\r\n";

char upper(char c)
{
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

char lower(char c)
{
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

template <class Number>
bool read_whole(std::string_view s, Number& out)
{
  if (s.starts_with('+') && !s.starts_with("+-")) s.remove_prefix(1);
  Number value{};
  const auto read = std::from_chars(s.data(), s.data() + s.size(), value);
  if (read.ec != std::errc() || read.ptr != s.data() + s.size()) return false;
  out = value;
  return true;
}

}  // namespace

void append(std::string& out, double x)
{
  if (std::isnan(x)) {
    out += "NaN";
  } else if (std::isinf(x)) {
    out += x < 0.0 ? "-Infinity" : "Infinity";
  } else {
    char buffer[40];
    out.append(buffer, std::to_chars(buffer, buffer + sizeof buffer, x).ptr);
  }
}

std::string upper(std::string_view s)
{
  std::string out(s);
  std::transform(out.begin(), out.end(), out.begin(), [](char c) { return upper(c); });
  return out;
}

std::string lower(std::string_view s)
{
  std::string out(s);
  std::transform(out.begin(), out.end(), out.begin(), [](char c) { return lower(c); });
  return out;
}

std::string_view rtrim(std::string_view s)
{
  const std::size_t last = s.find_last_not_of(blanks);
  return last == s.npos ? s.substr(0, 0) : s.substr(0, last + 1);
}

std::string_view trim(std::string_view s)
{
  const std::size_t first = s.find_first_not_of(blanks);
  return first == s.npos ? s.substr(0, 0) : rtrim(s.substr(first));
}

bool is_blank(std::string_view s)
{
  return s.find_first_not_of(blanks) == s.npos;
}

bool equal_nocase(std::string_view a, std::string_view b)
{
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return lower(x) == lower(y); });
}

bool starts_with_nocase(std::string_view s, std::string_view start)
{
  return s.size() >= start.size() && equal_nocase(s.substr(0, start.size()), start);
}

std::vector<std::string> split(std::string_view s, char separator)
{
  std::vector<std::string> parts;
  while (true) {
    const std::size_t at = s.find(separator);
    parts.emplace_back(s.substr(0, at));
    if (at == s.npos) return parts;
    s.remove_prefix(at + 1);
  }
}

std::string join(const std::vector<std::string>& list, std::string_view separator)
{
  std::string out;
  for (std::size_t k = 0; k < list.size(); ++k) {
    if (k > 0) out += separator;
    out += list[k];
  }
  return out;
}

bool read_integer(std::string_view s, std::int64_t& out)
{
  return read_whole(s, out);
}

bool read_real(std::string_view s, double& out)
{
  return read_whole(s, out);
}

}  // namespace tolvan
