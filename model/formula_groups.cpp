#include "model/formula_groups.h"

#include <algorithm>
#include <charconv>

#include "base/text.h"

namespace tolvan {

namespace {

constexpr std::int64_t map_capacity = 1000;
constexpr int rounds = 100;

bool is_drop(std::string_view term, const SYMBOLS& symbols)
{
  return !term.empty() && term[0] == symbols.drop;
}

std::string_view without_sign(std::string_view term, const SYMBOLS& symbols)
{
  return !term.empty() && symbols.is_sign(term[0]) ? term.substr(1) : term;
}

}  // namespace

/// Appends as long as the joined list stays within what one expanded term may hold; the rest would be cut
/// anyway.
class TermListBuilder {
 public:
  bool add(std::string term)
  {
    if (size_ > formula_capacity) return false;
    size_ += term.size() + 1;
    list_.push_back(std::move(term));
    return true;
  }
  TERMLIST take() { return std::move(list_); }

 private:
  TERMLIST list_;
  std::size_t size_ = 0;
};

std::string joined_terms(const TERMLIST& terms, const SYMBOLS& symbols)
{
  std::string out;
  for (std::size_t k = 0; k < terms.size(); ++k) {
    const std::string& term = terms[k];
    if (k == 0) {
      out += !term.empty() && term[0] == symbols.add ? term.substr(1) : term;
    } else {
      if (term.empty() || !symbols.is_sign(term[0])) out += symbols.add;
      out += term;
    }
  }
  return out;
}

FormulaExpansion::FormulaExpansion(const SYMBOLS& symbols, std::string_view text) : s_(symbols)
{
  constexpr std::int64_t largest = 1000000;  // far beyond what a text of any length makes
  for (std::size_t i = text.find("_B"); i != std::string_view::npos; i = text.find("_B", i + 1)) {
    std::int64_t number = 0;
    const std::size_t end = placeholder_end(text, i);
    if (end == std::string_view::npos || !read_integer(text.substr(i + 2, end - i - 3), number)) continue;
    if (number < largest) first_ = std::max(first_, number + 1);
  }
  next_ = first_;
}

/// Beyond the capacity of the map a placeholder stays in the text, and no variable has its name.
std::string FormulaExpansion::store(TERMLIST terms)
{
  if (static_cast<std::int64_t>(map_.size()) < map_capacity) map_.push_back(std::move(terms));
  return text("_B", next_++, "_");
}

/// One past the placeholder that starts here, or npos.
std::size_t FormulaExpansion::placeholder_end(std::string_view text, std::size_t from) const
{
  if (text.substr(from, 2) != "_B") return std::string_view::npos;
  std::size_t i = from + 2;
  while (i < text.size() && is_digit(text[i])) ++i;
  return i > from + 2 && i < text.size() && text[i] == '_' ? i + 1 : std::string_view::npos;
}

const TERMLIST* FormulaExpansion::find(std::string_view placeholder) const
{
  if (placeholder.size() < 4 || placeholder_end(placeholder, 0) != placeholder.size()) return nullptr;
  std::int64_t number = 0;
  const char* first = placeholder.data() + 2;
  const char* last = placeholder.data() + placeholder.size() - 1;
  if (std::from_chars(first, last, number).ec != std::errc()) return nullptr;
  if (number < first_ || number - first_ >= std::ssize(map_) || (last - first > 1 && *first == '0')) return nullptr;
  return &map_[static_cast<std::size_t>(number - first_)];
}

/// Each call becomes an opaque list of one term: name(arguments), the arguments without blanks.
void FormulaExpansion::lift_calls(std::string& text)
{
  std::size_t from = 0;
  while (true) {
    const std::vector<bool> quoted = quote_marks(text);
    std::size_t open = std::string::npos;
    for (std::size_t i = std::max<std::size_t>(from, 1); i < text.size(); ++i) {
      if (text[i] == '(' && !quoted[i] && !quoted[i - 1] && is_name_character(text[i - 1])) {
        open = i;
        break;
      }
    }
    if (open == std::string::npos) return;
    const std::size_t close = find_partner(text, open);
    if (close == std::string::npos) {
      from = open + 1;
      continue;
    }
    std::size_t start = open;
    while (start > 0 && is_name_character(text[start - 1])) --start;
    const std::string_view name =
        cut(std::string_view(text).substr(start, open - start), function_name_capacity);
    const std::string call = tolvan::text(
        name, "(", remove_blanks(std::string_view(text).substr(open + 1, close - open - 1)), ")");
    text.replace(start, close - start + 1, store({call}));
    from = start;
  }
}

/// The innermost groups first, each parsed into the list of its terms.
void FormulaExpansion::lift_groups(std::string& text)
{
  while (true) {
    const std::vector<bool> quoted = quote_marks(text);
    std::size_t open = std::string::npos, close = std::string::npos;
    for (std::size_t i = 0; i < text.size(); ++i) {
      if (quoted[i]) continue;
      if (text[i] == '(' && (i == 0 || !is_name_character(text[i - 1]))) open = i;
      if (text[i] == ')') {
        close = i;
        break;
      }
    }
    if (open == std::string::npos || close == std::string::npos) return;
    const std::string placeholder =
        store(group_terms(std::string_view(text).substr(open + 1, close - open - 1)));
    text.replace(open, close - open + 1, placeholder);
  }
}

/// The terms of a group.  A comma and all behind it is a suffix of every term; a sign before a digit or a
/// point, or at the end, belongs to the term that it stands in.
TERMLIST FormulaExpansion::group_terms(std::string_view contents)
{
  std::string sum = remove_blanks(contents);
  if (!s_.blank_adds()) sum = blank_to_plus(sum);
  std::string suffix;
  if (const std::size_t comma = find_protected(sum, ','); comma != std::string::npos) {
    suffix = sum.substr(comma);
    sum.resize(comma);
  }
  sum = collapse_signs(sum, s_);
  TERMLIST terms(1);
  QuoteScan quotes;
  for (std::size_t i = 0; i < sum.size(); ++i) {
    const char c = sum[i];
    const bool splits = !quotes.quoted(c) && s_.is_sign(c) && i + 1 < sum.size() && !is_digit(sum[i + 1]) &&
                        sum[i + 1] != '.';
    if (splits) terms.emplace_back();
    terms.back() += c;
  }
  TermListBuilder list;
  for (std::string& term : terms) {
    if (without_sign(term, s_).empty()) continue;  // before a leading sign, between two signs
    if (suffix.empty()) {
      flatten(std::move(term), list);
    } else {
      list.add(term + suffix);
    }
  }
  return list.take();
}

/// A term of a group with its own inner groups distributed.
void FormulaExpansion::flatten(std::string term, TermListBuilder& out)
{
  sign_placeholders(term);
  distribute(term);
  const bool added = !term.empty() && term[0] == s_.add;
  if (const TERMLIST* inner = find(added ? std::string_view(term).substr(1) : term)) {
    for (const std::string& t : *inner)
      if (!out.add(t)) return;
  } else {
    out.add(std::move(term));
  }
}

/// A sign before a placeholder goes to the terms of its list: a drop makes every term a drop, since dropping
/// what is dropped still drops it.
void FormulaExpansion::sign_placeholders(std::string& text)
{
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (!s_.is_sign(text[i]) || (i > 0 && !s_.is_operator(text[i - 1]))) continue;
    const std::size_t end = placeholder_end(text, i + 1);
    if (end == std::string::npos) continue;
    const TERMLIST* list = find(std::string_view(text).substr(i + 1, end - i - 1));
    if (list == nullptr) continue;
    TERMLIST changed;
    for (const std::string& term : *list) {
      const bool drop = text[i] == s_.drop || is_drop(term, s_);
      changed.push_back(tolvan::text(drop ? s_.drop : s_.add, without_sign(term, s_)));
    }
    text.replace(i, end - i, store(std::move(changed)));
  }
}

/// The terms that an operand stands for.  Within a product the shorthands of a group must be written out
/// first: the text "a*b:c" could no longer say that (a*b):c was meant.  A factor of "*" may keep its own "*".
TERMLIST FormulaExpansion::operand(std::string_view text, char op) const
{
  const TERMLIST* list = find(text);
  if (list == nullptr) return {std::string(text)};
  TermListBuilder out;
  for (const std::string& term : *list) {
    const bool nested = find_protected(term, s_.nested) != std::string::npos;
    const bool factorial = find_protected(term, s_.factorial) != std::string::npos;
    std::string fault;
    if (op == '|' || !(nested || (factorial && op != s_.factorial))) {
      out.add(term);
      continue;
    }
    const TERMLIST parts = expand_shorthands(term, s_, fault);
    if (!fault.empty()) return *list;  // found again, and told, once the sum is standardised
    for (const std::string& part : parts)
      if (!out.add(part)) break;
  }
  return out.take();
}

/// Replaces one operator next to a placeholder, the tightest operator and its first such place, by the
/// products. An operand runs to the next operator that binds no tighter, as it will when the shorthands are
/// written out.
bool FormulaExpansion::distribute_once(std::string& text)
{
  const std::vector<bool> quoted = quote_marks(text);
  const std::string tightness{s_.interaction, s_.nested, s_.factorial, '|'};
  for (std::size_t level = 0; level < tightness.size(); ++level) {
    const char op = tightness[level];
    const auto bounds = [&](std::size_t i) {
      return !quoted[i] && tightness.find(text[i], level) != std::string::npos;
    };
    for (std::size_t at = 0; at < text.size(); ++at) {
      if (text[at] != op || quoted[at]) continue;
      std::size_t from = at, to = at + 1;
      while (from > 0 && !bounds(from - 1)) --from;
      while (to < text.size() && !bounds(to)) ++to;
      // A chain of nestings is no term; it is told once the sum is standardised.
      if (op == s_.nested && ((from > 0 && text[from - 1] == op) || (to < text.size() && text[to] == op)))
        continue;
      const std::string_view left = std::string_view(text).substr(from, at - from);
      const std::string_view right = std::string_view(text).substr(at + 1, to - at - 1);
      if (find(left) == nullptr && find(right) == nullptr) continue;

      const TERMLIST outer = operand(left, op), inner = operand(right, op);
      TermListBuilder products;
      bool room = true;
      for (const std::string& l : outer) {
        for (const std::string& r : inner) {
          const char sign = is_drop(l, s_) || is_drop(r, s_) ? s_.drop : s_.add;
          room = products.add(tolvan::text(sign, without_sign(l, s_), op, without_sign(r, s_)));
          if (!room) break;
        }
        if (!room) break;
      }
      text.replace(from, to - from, store(products.take()));
      return true;
    }
  }
  return false;
}

void FormulaExpansion::distribute(std::string& text)
{
  for (int round = 0; round < rounds; ++round)
    if (!distribute_once(text)) return;
}

/// Puts the terms in the place of their placeholders, until none is left.
void FormulaExpansion::substitute(std::string& text) const
{
  for (int pass = 0; pass < rounds; ++pass) {
    std::string out;
    bool any = false;
    for (std::size_t i = 0; i < text.size() && out.size() < formula_capacity;) {
      const std::size_t end = placeholder_end(text, i);
      const TERMLIST* list =
          end == std::string::npos ? nullptr : find(std::string_view(text).substr(i, end - i));
      if (list == nullptr) {
        out += text[i++];
        continue;
      }
      out += joined_terms(*list, s_);
      i = end;
      any = true;
    }
    if (!any || out == text) return;
    text = cut(out, formula_capacity);
  }
}

}  // namespace tolvan
