// Distributing the operators of a formula over its bracketed groups: expand_formula, expand_formula_term.
#include "base/text.h"
#include "model/formula_groups.h"
#include "model/formula_text.h"

namespace tolvan {

namespace {

/// One side of dsum() or str() holds a sum.
std::string expand_sum(ERROR_HANDLER& eh, const SYMBOLS& symbols, std::string_view text)
{
  TERMLIST done;
  for (const std::string& term : split_formula_terms(text, symbols)) {
    done.push_back(expand_formula_term(eh, symbols, term));
    if (eh.terminate()) return std::string(formula_error);
  }
  return joined_terms(done, symbols);
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
  FormulaExpansion expansion(symbols, text);
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
    const bool dsum =
        term.size() >= 7 && term.starts_with("dsum(") && find_partner(term, 4) == term.size() - 1;
    const bool linked =
        term.size() >= 6 && term.starts_with("str(") && find_partner(term, 3) == term.size() - 1;
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
  text = joined_terms(done, symbols);

  text = mark_drops(collapse_signs(text, symbols), symbols);
  constexpr std::pair<std::string_view, std::string_view> clean_up[] = {
      {"  ", " "}, {", ", ","}, {"( ", "("}, {"+ ", "+"}, {" +", "+"}, {",+ ", ","}, {"(+", "("}};
  for (const auto& [from, to] : clean_up) text = rewrite(text, from, to);
  if (!text.empty() && (text[0] == ' ' || text[0] == '+')) text.erase(0, 1);
  return std::string(cut(text, formula_capacity));
}

}  // namespace tolvan
