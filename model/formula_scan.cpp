#include "model/formula_scan.h"

#include <algorithm>

#include "base/text.h"

namespace tolvan {

namespace {

char first_of(const std::string& s, char otherwise)
{
  return s.empty() ? otherwise : s[0];
}

bool is_space(char c)
{
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool among(char c, std::string_view set)
{
  return set.find(c) != std::string_view::npos;
}

/// Walks a text and hands each run of blanks outside quotes to `keep(left, right, depth)`, which gives what
/// stands for the run; left and right are its neighbours ('\0' at an end), depth counts open function
/// brackets.
template <class Keep>
std::string replace_blanks(std::string_view s, Keep keep)
{
  std::string out;
  out.reserve(s.size());
  QuoteScan quotes;
  std::int64_t depth = 0;
  for (std::size_t i = 0; i < s.size(); ++i) {
    const char c = s[i];
    if (quotes.quoted(c)) {
      out += c;
      continue;
    }
    if (is_space(c)) {
      while (i + 1 < s.size() && is_space(s[i + 1])) ++i;
      out += keep(out.empty() ? '\0' : out.back(), i + 1 < s.size() ? s[i + 1] : '\0', depth);
      continue;
    }
    if (c == '(' && !out.empty() && is_name_character(out.back())) {
      ++depth;
    } else if (c == '(' && depth > 0) {
      ++depth;  // a group inside a function's brackets
    } else if (c == ')' && depth > 0) {
      --depth;
    }
    out += c;
  }
  return out;
}

}  // namespace

SYMBOLS::SYMBOLS(const COMMUNICATION& communication)
    : add(first_of(communication.ADD_TERM_SYMBOL, '+')),
      drop(first_of(communication.DROP_TERM_SYMBOL, '-')),
      interaction(first_of(communication.INTERACTION_SYMBOL, ':')),
      factorial(first_of(communication.FACTORIAL_SYMBOL, '*')),
      nested(first_of(communication.NESTED_SYMBOL, '/'))
{
}

bool is_digit(char c)
{
  return c >= '0' && c <= '9';
}

bool is_name_character(char c)
{
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || is_digit(c) || c == '_' ||
         static_cast<unsigned char>(c) >= 0x80;
}

bool is_plain_text(const SYMBOLS& symbols, std::string_view s)
{
  return std::none_of(s.begin(), s.end(), [&](char c) {
    return symbols.is_sign(c) || symbols.is_operator(c) || is_opener(c) || is_closer(c) || c == ' ' || c == '"' ||
           c == '\'';
  });
}

bool is_opener(char c)
{
  return c == '(' || c == '[' || c == '{';
}
bool is_closer(char c)
{
  return c == ')' || c == ']' || c == '}';
}

std::string_view cut(std::string_view s, std::size_t capacity)
{
  if (s.size() <= capacity) return s;
  std::size_t n = capacity;
  while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80) --n;
  return s.substr(0, n);
}

std::vector<bool> quote_marks(std::string_view s)
{
  std::vector<bool> marks(s.size());
  QuoteScan quotes;
  for (std::size_t i = 0; i < s.size(); ++i) marks[i] = quotes.quoted(s[i]);
  return marks;
}

std::vector<std::string> split_protected(std::string_view s, char separator)
{
  std::vector<std::string> pieces(1);
  QuoteScan quotes;
  std::int64_t depth = 0;
  for (char c : s) {
    if (!quotes.quoted(c)) {
      if (depth == 0 && c == separator) {
        pieces.emplace_back();
        continue;
      }
      if (is_opener(c)) ++depth;
      if (is_closer(c) && depth > 0) --depth;
    }
    pieces.back() += c;
  }
  return pieces;
}

std::size_t find_protected(std::string_view s, char wanted)
{
  QuoteScan quotes;
  std::int64_t depth = 0;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (quotes.quoted(s[i])) continue;
    if (depth == 0 && s[i] == wanted) return i;
    if (is_opener(s[i])) ++depth;
    if (is_closer(s[i]) && depth > 0) --depth;
  }
  return std::string_view::npos;
}

std::size_t find_last_protected(std::string_view s, char wanted)
{
  std::size_t last = std::string_view::npos;
  QuoteScan quotes;
  std::int64_t depth = 0;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (quotes.quoted(s[i])) continue;
    if (depth == 0 && s[i] == wanted) last = i;
    if (is_opener(s[i])) ++depth;
    if (is_closer(s[i]) && depth > 0) --depth;
  }
  return last;
}

std::size_t find_partner(std::string_view s, std::size_t from)
{
  const char open = s[from];
  const char close = open == '(' ? ')' : open == '[' ? ']' : '}';
  QuoteScan quotes;
  std::int64_t depth = 0;
  for (std::size_t i = from; i < s.size(); ++i) {
    if (quotes.quoted(s[i])) continue;
    if (s[i] == open) ++depth;
    if (s[i] == close && --depth == 0) return i;
  }
  return std::string_view::npos;
}

std::string rewrite(std::string_view s, std::string_view from, std::string_view to)
{
  std::string out;
  out.reserve(s.size());
  QuoteScan quotes;
  for (std::size_t i = 0; i < s.size();) {
    if (!quotes.open() && s.compare(i, from.size(), from) == 0) {
      out += to;
      i += from.size();
      continue;
    }
    quotes.quoted(s[i]);
    out += s[i++];
  }
  return out;
}

std::string collapse_signs(std::string_view s, const SYMBOLS& symbols)
{
  std::string out;
  out.reserve(s.size());
  QuoteScan quotes;
  std::int64_t depth = 0;
  bool last_is_sign = false;
  for (char c : s) {
    const bool quoted = quotes.quoted(c);
    const bool sign = !quoted && depth == 0 && symbols.is_sign(c);
    if (!quoted && is_opener(c)) ++depth;
    if (!quoted && is_closer(c) && depth > 0) --depth;
    if (sign && last_is_sign) {
      if (c == symbols.drop) out.back() = c;
    } else {
      out += c;
    }
    last_is_sign = sign;
  }
  return out;
}

std::string mark_drops(std::string_view s, const SYMBOLS& symbols)
{
  std::string out;
  out.reserve(s.size());
  QuoteScan quotes;
  std::int64_t depth = 0;
  for (char c : s) {
    const bool quoted = quotes.quoted(c);
    if (!quoted && depth == 0 && c == symbols.drop) out += symbols.add;
    if (!quoted && is_opener(c)) ++depth;
    if (!quoted && is_closer(c) && depth > 0) --depth;
    out += c;
  }
  return out;
}

std::string remove_blanks(std::string_view s)
{
  constexpr std::string_view none_after = "(+-*/|:,=[", none_before = "(+-*/|:,=[])";
  return replace_blanks(s, [&](char left, char right, std::int64_t) -> std::string_view {
    if (left == '\0' || right == '\0') return "";
    return among(left, none_after) || among(right, none_before) ? "" : " ";
  });
}

std::string blank_to_plus(std::string_view s)
{
  constexpr std::string_view left_ends = "(*+,-/:=|", right_starts = ")*+,-/:=|";
  return replace_blanks(s, [&](char left, char right, std::int64_t depth) -> std::string_view {
    const bool between =
        left != '\0' && right != '\0' && !among(left, left_ends) && !among(right, right_starts);
    return !between ? "" : depth > 0 ? " " : "+";
  });
}

std::string single_blanks(std::string_view s, const SYMBOLS& symbols)
{
  const std::string operators{symbols.drop, symbols.interaction, symbols.factorial, symbols.nested, ',', '=',
                              '|'};
  return replace_blanks(s, [&](char left, char right, std::int64_t) -> std::string_view {
    const bool ends = left == '\0' || right == '\0' || is_opener(left) || is_closer(right) ||
                      among(left, operators) || among(right, operators);
    return ends ? "" : " ";
  });
}

bool read_number(std::string_view s, double& out)
{
  if (read_real(s, out)) return true;
  const std::size_t letter = s.find_first_of("dD");
  if (letter == std::string_view::npos || letter == 0 || !(is_digit(s[letter - 1]) || s[letter - 1] == '.')) return false;
  std::string with_e(s);
  with_e[letter] = 'e';
  return read_real(with_e, out);
}

bool is_numeric(std::string_view s)
{
  double x = 0.0;
  return read_number(s, x);
}

bool is_call(std::string_view s)
{
  std::size_t i = 0;
  while (i < s.size() && is_name_character(s[i])) ++i;
  return i > 0 && i < s.size() && s[i] == '(' && find_partner(s, i) == s.size() - 1;
}

}  // namespace tolvan
