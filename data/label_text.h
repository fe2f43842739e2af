// Texts of labels and levels.
#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

namespace tolvan {

/// A label cut to a number of bytes, never inside a UTF-8 character.  Length 0 cuts nothing.
inline std::string_view cut_label(std::string_view label, std::int64_t length)
{
  if (length <= 0 || static_cast<std::int64_t>(label.size()) <= length) return label;
  auto end = static_cast<std::size_t>(length);
  while (end > 0 && (static_cast<unsigned char>(label[end]) & 0xC0U) == 0x80U) --end;
  return label.substr(0, end > 0 ? end : static_cast<std::size_t>(length));
}

/// The integer that a text spells, an optional sign allowed; nothing where it spells none or one too large.
inline std::optional<std::int64_t> whole_number(std::string_view s)
{
  if (s.size() > 1 && s[0] == '+' && s[1] != '-') s.remove_prefix(1);
  std::int64_t value = 0;
  const auto [end, failed] = std::from_chars(s.data(), s.data() + s.size(), value);
  if (failed != std::errc{} || end != s.data() + s.size()) return std::nullopt;
  return value;
}

}  // namespace tolvan
