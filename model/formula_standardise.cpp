// The canonical form of a formula: STANDARDISE_FORMULA_STRING and the shorthands "*" and "/".

#include <algorithm>

#include "base/text.h"
#include "model/formula_text.h"

namespace tolvan {

namespace {

/// Blanks of every kind as plain ones, outside quotes.
std::string plain_blanks(std::string_view s)
{
  std::string out(s);
  QuoteScan quotes;
  for (char& c : out)
    if (!quotes.quoted(c) && (c == '\t' || c == '\n' || c == '\r')) c = ' ';
  return out;
}

/// True when, outside the brackets of functions, an operator lacks an operand or two operands lack an
/// operator.
bool is_incomplete(std::string_view s, const SYMBOLS& symbols)
{
  enum class Last { nothing, operand, closer, sign, binary } last = Last::nothing;
  QuoteScan quotes;
  for (std::size_t i = 0; i < s.size(); ++i) {
    const char c = s[i];
    if (quotes.quoted(c)) {
      if (last == Last::closer) return true;
      last = Last::operand;
      continue;
    }
    if (c == '(' && last == Last::operand && is_name_character(s[i - 1])) {
      const std::size_t close = find_partner(s, i);
      if (close == std::string_view::npos)
        return false;  // the brackets don't balance; that is told elsewhere
      i = close;
      last = Last::closer;
    } else if (c == '(') {
      if (last == Last::operand || last == Last::closer) return true;
      last = Last::nothing;
    } else if (c == ')') {
      if (last == Last::sign || last == Last::binary) return true;
      last = Last::closer;
    } else if (symbols.is_sign(c)) {
      if (last == Last::binary) return true;
      last = Last::sign;
    } else if (symbols.is_operator(c)) {
      if (last != Last::operand && last != Last::closer) return true;
      last = Last::binary;
    } else if (c == ',') {
      last = Last::nothing;
    } else {
      if (last == Last::closer) return true;
      last = Last::operand;
    }
  }
  return last == Last::sign || last == Last::binary;
}

/// The parts of a term with the nested shorthand: a/b is a and a:b.
TERMLIST expand_nested(const std::string& term, const SYMBOLS& symbols, std::string& fault)
{
  const std::vector<std::string> parts = split_protected(term, symbols.nested);
  if (parts.size() == 1) return {term};
  if (parts.size() != 2) {
    fault = "invalid nested term in the model";
    return {};
  }
  return {parts[0], text(parts[0], symbols.interaction, parts[1])};
}

/// All interactions of `order` factors, the factors in their order, appended until the list is full.
///   factors   the terms that each factor stands for
void add_subsets(const std::vector<TERMLIST>& factors, std::size_t order, char interaction, std::size_t& room,
                 TERMLIST& out)
{
  const std::size_t n = factors.size();
  std::vector<std::size_t> chosen(order);
  for (std::size_t k = 0; k < order; ++k) chosen[k] = k;
  while (room > 0) {
    TERMLIST products{""};
    for (std::size_t f : chosen) {
      TERMLIST longer;
      for (const std::string& product : products)
        for (const std::string& term : factors[f])
          longer.push_back(product.empty() ? term : text(product, interaction, term));
      products = std::move(longer);
      if (products.size() > formula_capacity) break;
    }
    for (std::string& product : products) {
      if (room == 0) return;
      room -= std::min(room, product.size() + 1);
      out.push_back(std::move(product));
    }
    // The next choice in lexical order.
    std::size_t k = order;
    while (k > 0 && chosen[k - 1] == n - order + k - 1) --k;
    if (k == 0) return;
    ++chosen[k - 1];
    for (std::size_t j = k; j < order; ++j) chosen[j] = chosen[j - 1] + 1;
  }
}

}  // namespace

TERMLIST expand_shorthands(std::string_view term, const SYMBOLS& symbols, std::string& fault)
{
  const bool drop = !term.empty() && term[0] == symbols.drop;
  if (!term.empty() && symbols.is_sign(term[0])) term.remove_prefix(1);
  std::vector<TERMLIST> factors;
  for (const std::string& factor : split_protected(term, symbols.factorial)) {
    factors.push_back(expand_nested(factor, symbols, fault));
    if (!fault.empty()) return {};
  }
  TERMLIST parts;
  std::size_t room = formula_capacity;
  for (std::size_t order = 1; order <= factors.size() && room > 0; ++order)
    add_subsets(factors, order, symbols.interaction, room, parts);
  if (drop)
    for (std::string& part : parts) part.insert(0, 1, symbols.drop);
  return parts;
}

std::string STANDARDISE_FORMULA_STRING(ERROR_HANDLER& eh, const COMMUNICATION& communication,
                                       std::string_view given)
{
  const Frame here{eh, __func__};
  const SYMBOLS symbols(communication);
  const std::string formula = plain_blanks(cut(trim(given), formula_capacity));
  if (formula.empty()) return {};
  const std::string joined_blanks =
      symbols.blank_adds() ? single_blanks(formula, symbols) : blank_to_plus(formula);
  // Brackets that don't balance are told by the expansion.
  if (bracket_fault(joined_blanks).empty() && is_incomplete(joined_blanks, symbols)) {
    eh.error("incomplete term in the model statement");
    return {};
  }
  const std::string expanded = expand_formula(eh, communication, joined_blanks);
  if (eh.terminate()) return {};

  std::string out;
  for (const std::string& term : split_protected(expanded, symbols.add)) {
    if (trim(term).empty()) continue;
    std::string fault;
    const TERMLIST parts = is_numeric(term) ? TERMLIST{term} : expand_shorthands(term, symbols, fault);
    if (!fault.empty()) {
      eh.error(fault);
      return {};
    }
    for (const std::string& part : parts) {
      if (out.size() > formula_capacity) break;
      if (!out.empty()) out += symbols.add;
      out += part;
    }
  }
  return std::string(cut(out, formula_capacity));
}

}  // namespace tolvan
