// Distributing the operators of a formula over its bracketed groups: expand_formula, expand_formula_term.
//
// Calls and groups are lifted out of the text one after another: a placeholder "_B<n>_" takes their place, and the
// bracket map holds the list of terms that it stands for.  What is left is a plain row of operands and operators, in
// which each operator next to a placeholder is replaced by the list of the products.

#include <charconv>

#include "base/text.h"
#include "model/formula_text.h"

namespace tolvan {

namespace {

constexpr std::int64_t map_capacity = 1000;
constexpr int rounds = 100;

bool is_drop(std::string_view term, const SYMBOLS& symbols) { return !term.empty() && term[0] == symbols.drop; }

std::string_view without_sign(std::string_view term, const SYMBOLS& symbols)
{
  return !term.empty() && symbols.is_sign(term[0]) ? term.substr(1) : term;
}

/// Appends as long as the joined list stays within what one expanded term may hold; the rest would be cut anyway.
class ListBuilder {
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

/// The terms as one sum; the first loses a leading add symbol.
std::string joined(const TERMLIST& terms, const SYMBOLS& symbols)
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

/// One term on its way, with the lists that its placeholders stand for.
class Expansion {
 public:
  explicit Expansion(const SYMBOLS& symbols) : s_(symbols) {}

  void lift_calls(std::string& text);
  void lift_groups(std::string& text);
  void sign_placeholders(std::string& text);
  void distribute(std::string& text);
  void substitute(std::string& text) const;

 private:
  std::string store(TERMLIST terms);
  const TERMLIST* find(std::string_view placeholder) const;
  TERMLIST group_terms(std::string_view contents);
  void flatten(std::string term, ListBuilder& out);
  TERMLIST operand(std::string_view text, char op) const;
  bool distribute_once(std::string& text);
  std::size_t placeholder_end(std::string_view text, std::size_t from) const;

  const SYMBOLS& s_;
  std::vector<TERMLIST> map_;
  std::int64_t next_ = 0;
};

/// Beyond the capacity of the map a placeholder stays in the text, and no variable has its name.
std::string Expansion::store(TERMLIST terms)
{
  if (static_cast<std::int64_t>(map_.size()) < map_capacity) map_.push_back(std::move(terms));
  return text("_B", next_++, "_");
}

/// One past the placeholder that starts here, or npos.
std::size_t Expansion::placeholder_end(std::string_view text, std::size_t from) const
{
  if (text.substr(from, 2) != "_B") return std::string_view::npos;
  std::size_t i = from + 2;
  while (i < text.size() && is_digit(text[i])) ++i;
  return i > from + 2 && i < text.size() && text[i] == '_' ? i + 1 : std::string_view::npos;
}

const TERMLIST* Expansion::find(std::string_view placeholder) const
{
  if (placeholder.size() < 4 || placeholder_end(placeholder, 0) != placeholder.size()) return nullptr;
  std::size_t number = 0;
  const char* first = placeholder.data() + 2;
  const char* last = placeholder.data() + placeholder.size() - 1;
  if (std::from_chars(first, last, number).ec != std::errc()) return nullptr;
  if (number >= map_.size() || (last - first > 1 && *first == '0')) return nullptr;
  return &map_[number];
}

/// Each call becomes an opaque list of one term: name(arguments), the arguments without blanks.
void Expansion::lift_calls(std::string& text)
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
    const std::string_view name = cut(std::string_view(text).substr(start, open - start), function_name_capacity);
    const std::string call =
        tolvan::text(name, "(", remove_blanks(std::string_view(text).substr(open + 1, close - open - 1)), ")");
    text.replace(start, close - start + 1, store({call}));
    from = start;
  }
}

/// The innermost groups first, each parsed into the list of its terms.
void Expansion::lift_groups(std::string& text)
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
    const std::string placeholder = store(group_terms(std::string_view(text).substr(open + 1, close - open - 1)));
    text.replace(open, close - open + 1, placeholder);
  }
}

/// The terms of a group.  A comma and all behind it is a suffix of every term; a sign before a digit or a point, or
/// at the end, belongs to the term that it stands in.
TERMLIST Expansion::group_terms(std::string_view contents)
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
    const bool splits = !quotes.quoted(c) && s_.is_sign(c) && i + 1 < sum.size() && !is_digit(sum[i + 1]) && sum[i + 1] != '.';
    if (splits) terms.emplace_back();
    terms.back() += c;
  }
  ListBuilder list;
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
void Expansion::flatten(std::string term, ListBuilder& out)
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

/// A sign before a placeholder goes to the terms of its list: a drop makes every term a drop, since dropping what
/// is dropped still drops it.
void Expansion::sign_placeholders(std::string& text)
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

/// The terms that an operand stands for.  Within a product the shorthands of a group must be written out first: the
/// text "a*b:c" could no longer say that (a*b):c was meant.  A factor of "*" may keep its own "*".
TERMLIST Expansion::operand(std::string_view text, char op) const
{
  const TERMLIST* list = find(text);
  if (list == nullptr) return {std::string(text)};
  ListBuilder out;
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

/// Replaces one operator next to a placeholder, the tightest operator and its first such place, by the products.
/// An operand runs to the next operator that binds no tighter, as it will when the shorthands are written out.
bool Expansion::distribute_once(std::string& text)
{
  const std::vector<bool> quoted = quote_marks(text);
  const std::string tightness{s_.interaction, s_.nested, s_.factorial, '|'};
  for (std::size_t level = 0; level < tightness.size(); ++level) {
    const char op = tightness[level];
    const auto bounds = [&](std::size_t i) { return !quoted[i] && tightness.find(text[i], level) != std::string::npos; };
    for (std::size_t at = 0; at < text.size(); ++at) {
      if (text[at] != op || quoted[at]) continue;
      std::size_t from = at, to = at + 1;
      while (from > 0 && !bounds(from - 1)) --from;
      while (to < text.size() && !bounds(to)) ++to;
      // A chain of nestings is no term; it is told once the sum is standardised.
      if (op == s_.nested && ((from > 0 && text[from - 1] == op) || (to < text.size() && text[to] == op))) continue;
      const std::string_view left = std::string_view(text).substr(from, at - from);
      const std::string_view right = std::string_view(text).substr(at + 1, to - at - 1);
      if (find(left) == nullptr && find(right) == nullptr) continue;

      const TERMLIST outer = operand(left, op), inner = operand(right, op);
      ListBuilder products;
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

void Expansion::distribute(std::string& text)
{
  for (int round = 0; round < rounds; ++round)
    if (!distribute_once(text)) return;
}

/// Puts the terms in the place of their placeholders, until none is left.
void Expansion::substitute(std::string& text) const
{
  for (int pass = 0; pass < rounds; ++pass) {
    std::string out;
    bool any = false;
    for (std::size_t i = 0; i < text.size() && out.size() < formula_capacity;) {
      const std::size_t end = placeholder_end(text, i);
      const TERMLIST* list = end == std::string::npos ? nullptr : find(std::string_view(text).substr(i, end - i));
      if (list == nullptr) {
        out += text[i++];
        continue;
      }
      out += joined(*list, s_);
      i = end;
      any = true;
    }
    if (!any || out == text) return;
    text = cut(out, formula_capacity);
  }
}

/// One side of dsum() or str() holds a sum.
std::string expand_sum(ERROR_HANDLER& eh, const SYMBOLS& symbols, std::string_view text)
{
  TERMLIST done;
  for (const std::string& term : split_formula_terms(text, symbols)) {
    done.push_back(expand_formula_term(eh, symbols, term));
    if (eh.terminate()) return std::string(formula_error);
  }
  return joined(done, symbols);
}

/// dsum(model | condition, ...) and str(form, structure): the sides are expanded apart.
std::string expand_two_sides(ERROR_HANDLER& eh, const SYMBOLS& symbols, std::string_view term, bool dsum)
{
  const std::size_t open = term.find('(');
  const std::string_view contents = term.substr(open + 1, term.size() - open - 2);
  char separator = dsum ? '|' : ',';
  std::size_t at = find_protected(contents, separator);
  if (dsum && at == std::string_view::npos) at = find_protected(contents, separator = ',');
  if (at == std::string_view::npos) {
    if (!dsum && symbols.blank_adds()) return text("str(", expand_sum(eh, symbols, contents), ")");
    eh.error(text("Invalid formula: ", term, "."));
    eh.error(dsum ? "Error: missing second component indsum term."  // sic
                  : "Error: missing comma in str term.");
    return std::string(formula_error);
  }
  const std::string left = expand_sum(eh, symbols, contents.substr(0, at));
  if (eh.terminate()) return std::string(formula_error);
  const std::string right = expand_sum(eh, symbols, contents.substr(at + 1));
  if (eh.terminate()) return std::string(formula_error);
  return text(dsum ? "dsum(" : "str(", left, separator, right, ")");
}

}  // namespace

TERMLIST split_formula_terms(std::string_view text, const SYMBOLS& symbols)
{
  TERMLIST terms(1);
  std::int64_t depth = 0;
  std::size_t begin = 0;
  if (!text.empty() && symbols.is_sign(text[0])) {
    if (text[0] == symbols.drop) terms.back() += text[0];
    begin = 1;
  }
  std::size_t start = begin;
  for (std::size_t i = begin; i < text.size(); ++i) {
    const char c = text[i];
    if (depth == 0 && symbols.is_sign(c) && i > start) {
      terms.emplace_back();
      if (c == symbols.drop) terms.back() += c;
      start = i + 1;
      continue;
    }
    if (is_opener(c)) ++depth;
    if (is_closer(c)) --depth;
    terms.back() += c;
  }
  return terms;
}

std::string expand_formula_term(ERROR_HANDLER& eh, const SYMBOLS& symbols, std::string_view term)
{
  std::string text = collapse_signs(cut(trim(term), formula_capacity), symbols);
  if (const std::string fault = bracket_fault(text); !fault.empty()) {
    eh.error(tolvan::text("Invalid formula term: ", text, "."));
    eh.error(tolvan::text("Error: ", fault, "."));
    return std::string(formula_error);
  }
  text = remove_redundant_brackets(text, symbols);
  Expansion expansion(symbols);
  expansion.lift_calls(text);
  expansion.lift_groups(text);
  expansion.sign_placeholders(text);
  expansion.distribute(text);
  expansion.substitute(text);
  if (!text.empty() && text[0] == symbols.add) text.erase(0, 1);
  return std::string(cut(collapse_signs(text, symbols), formula_capacity));
}

std::string expand_formula(ERROR_HANDLER& eh, const COMMUNICATION& communication, std::string_view formula)
{
  const SYMBOLS symbols(communication);
  std::string text(cut(formula, formula_capacity));
  text = symbols.blank_adds() ? single_blanks(text, symbols) : rewrite(blank_to_plus(text), "  ", " ");
  text = collapse_signs(text, symbols);

  TERMLIST done;
  for (const std::string& whole : split_formula_terms(text, symbols)) {
    const std::string_view term = trim(cut(whole, term_capacity));
    if (term == ",") continue;
    const bool dsum = term.size() >= 7 && term.starts_with("dsum(") && find_partner(term, 4) == term.size() - 1;
    const bool linked = term.size() >= 6 && term.starts_with("str(") && find_partner(term, 3) == term.size() - 1;
    if (dsum || linked) {
      if (const std::string fault = bracket_fault(term); fault.empty()) {
        done.push_back(expand_two_sides(eh, symbols, term, dsum));
        if (eh.terminate()) return std::string(formula_error);
        continue;
      }
    }
    done.push_back(expand_formula_term(eh, symbols, term));
    if (eh.terminate()) return std::string(formula_error);
  }
  text = joined(done, symbols);

  text = mark_drops(collapse_signs(text, symbols), symbols);
  constexpr std::pair<std::string_view, std::string_view> clean_up[] = {
      {"  ", " "}, {", ", ","}, {"( ", "("}, {"+ ", "+"}, {" +", "+"}, {",+ ", ","}, {"(+", "("}};
  for (const auto& [from, to] : clean_up) text = rewrite(text, from, to);
  if (!text.empty() && (text[0] == ' ' || text[0] == '+')) text.erase(0, 1);
  return std::string(cut(text, formula_capacity));
}

}  // namespace tolvan
