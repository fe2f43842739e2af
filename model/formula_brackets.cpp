// Brackets of formula text: balance, and those that change nothing.

#include "base/text.h"
#include "model/formula_text.h"

namespace tolvan {

namespace {

constexpr std::size_t deepest_bracket = 1000;
constexpr std::string_view binding_characters = "!*+,-/:;=[]^|";

bool fits(char open, char close)
{
  return (open == '(' && close == ')') || (open == '[' && close == ']') || (open == '{' && close == '}');
}

/// One pair of round brackets outside quotes.
struct Pair {
  std::size_t open = 0, close = 0;
  bool function = false;  // directly behind a name, or inside such a pair
  bool binds = false;     // an operator or separator directly within
  bool adds = false;      // a sign directly within
  bool suffix = false;    // a comma directly within: what follows belongs to every term of the group
};

/// The pairs of a text in the order of their openers; brackets without partner are left out.
std::vector<Pair> bracket_pairs(std::string_view s, const SYMBOLS& symbols)
{
  std::vector<Pair> pairs;
  std::vector<std::size_t> open;
  std::vector<bool> closed;
  QuoteScan quotes;
  for (std::size_t i = 0; i < s.size(); ++i) {
    const char c = s[i];
    if (quotes.quoted(c)) continue;
    if (c == '(') {
      const bool call = i > 0 && is_name_character(s[i - 1]);
      const bool inside_call = !open.empty() && pairs[open.back()].function;
      pairs.push_back({.open = i, .function = call || inside_call});
      closed.push_back(false);
      open.push_back(pairs.size() - 1);
    } else if (c == ')') {
      if (open.empty()) continue;
      pairs[open.back()].close = i;
      closed[open.back()] = true;
      open.pop_back();
    } else if (!open.empty()) {
      Pair& pair = pairs[open.back()];
      if (binding_characters.find(c) != std::string_view::npos || symbols.is_sign(c) ||
          symbols.is_operator(c))
        pair.binds = true;
      if (symbols.is_sign(c)) pair.adds = true;
      if (c == ',') pair.suffix = true;
    }
  }
  std::vector<Pair> whole;
  for (std::size_t k = 0; k < pairs.size(); ++k)
    if (closed[k]) whole.push_back(pairs[k]);
  return whole;
}

/// The text without the characters at the marked positions.
std::string without(std::string_view s, const std::vector<bool>& gone)
{
  std::string out;
  out.reserve(s.size());
  for (std::size_t i = 0; i < s.size(); ++i)
    if (!gone[i]) out += s[i];
  return out;
}

/// One pass of the rules; false when nothing was left to remove.
bool remove_once(std::string& s, const SYMBOLS& symbols, bool signed_text)
{
  const std::vector<Pair> pairs = bracket_pairs(s, symbols);
  std::vector<bool> gone(s.size());
  bool any = false;
  // A pair around a single operand, neither first nor last of the text.  An enclosing pair that binds nothing
  // either holds no operator at all, so both may go together.
  for (const Pair& p : pairs) {
    if (p.function || p.binds || p.open == 0 || p.close == s.size() - 1) continue;
    gone[p.open] = gone[p.close] = any = true;
  }
  if (!any) {
    // A doubled pair.
    for (std::size_t k = 0; k + 1 < pairs.size() && !any; ++k) {
      const Pair& outer = pairs[k];
      const Pair& inner = pairs[k + 1];
      if (outer.function || outer.open == 0 || outer.close == s.size() - 1) continue;
      if (inner.open != outer.open + 1 || inner.close + 1 != outer.close) continue;
      gone[outer.open] = gone[outer.close] = any = true;
    }
  }
  if (!any && !pairs.empty()) {
    // A pair around the whole text; behind a sign only if the sign then still means the same.
    const Pair& p = pairs.front();
    if (p.open == 0 && p.close == s.size() - 1 && !p.suffix && !(signed_text && p.adds))
      gone[p.open] = gone[p.close] = any = true;
  }
  if (any) s = without(s, gone);
  return any;
}

/// Every "()" outside quotes and outside the brackets of a function is deleted.
std::string remove_empty_pairs(std::string_view s)
{
  std::string out;
  out.reserve(s.size());
  QuoteScan quotes;
  std::vector<bool> open;  // for each open bracket, whether a function's brackets hold what follows
  for (char c : s) {
    const bool quoted = quotes.quoted(c);
    const bool inside = !open.empty() && open.back();
    if (!quoted && c == ')' && !out.empty() && out.back() == '(' &&
        !(open.size() > 1 && open[open.size() - 2])) {
      out.pop_back();
      if (!open.empty()) open.pop_back();
      continue;
    }
    if (!quoted && c == '(') open.push_back(inside || (!out.empty() && is_name_character(out.back())));
    if (!quoted && c == ')' && !open.empty()) open.pop_back();
    out += c;
  }
  return out;
}

}  // namespace

std::string bracket_fault(std::string_view text)
{
  struct Open {
    char c;
    std::size_t position;
  };
  std::vector<Open> stack;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (is_opener(c)) {
      if (stack.size() == deepest_bracket) return "Stack overflow";
      stack.push_back({c, i + 1});
    } else if (is_closer(c)) {
      if (stack.empty()) return tolvan::text("Unexpected closing bracket \"", c, "\" at position ", i + 1);
      if (!fits(stack.back().c, c))
        return tolvan::text("Mismatched brackets: \"", stack.back().c, "\" at position ",
                            stack.back().position, " closed by \"", c, "\" at position ", i + 1);
      stack.pop_back();
    }
  }
  if (stack.empty()) return {};
  return tolvan::text("Unclosed bracket \"", stack.back().c, "\" at position ", stack.back().position);
}

std::string remove_redundant_brackets(std::string_view text, const SYMBOLS& symbols)
{
  std::string s = remove_empty_pairs(text);
  const bool signed_text = !s.empty() && s[0] == '-';
  if (signed_text) s.erase(0, 1);
  while (remove_once(s, symbols, signed_text)) {
  }
  return signed_text ? "-" + s : s;
}

}  // namespace tolvan
