// Equations and level names of the terms: SET_TERM_EQUATIONS, level_name.
#include "model/term_table.h"

#include <limits>

#include "base/text.h"

namespace tolvan {

namespace {

/// True for the structures whose factors are further levels behind those of the data.
bool extends_levels(const FACTOR_ROW& factor)
{
  return factor.structure == "fa" || factor.structure == "rr";
}

/// The product of the level counts of some rows, held at the largest number.
std::int64_t product_of_levels(const FACTOR_TABLE& factors, std::int64_t from, std::int64_t to)
{
  std::int64_t n = 1;
  for (std::int64_t i = from; i <= to; ++i)
    if (__builtin_mul_overflow(n, factors.row(i).levels, &n)) n = std::numeric_limits<std::int64_t>::max();
  return n;
}

/// L_CHECK_LINKED: the structure that terms share must have as many levels as the terms have equations.
void L_CHECK_LINKED(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const TERM_TABLE& terms)
{
  const Frame here{eh, __func__};
  for (std::size_t t = 0; t < terms.rows.size();) {
    const std::int64_t head = terms.rows[t].linked_head;
    if (head < 0) {
      ++t;
      continue;
    }
    const TERM_ROW& first = terms.rows[t];
    std::int64_t equations = 0;
    for (; t < terms.rows.size() && terms.rows[t].linked_head == head; ++t) equations += terms.rows[t].equations;
    const std::int64_t levels = product_of_levels(factors, first.structure_first, first.structure_last);
    if (levels == equations) continue;
    eh.error(text("check definition for model term ", first.name));
    eh.continuation(
        text("the structure has ", levels, " levels, but the terms that share it have ", equations, " equations"));
    return;
  }
}

}  // namespace

void SET_TERM_EQUATIONS(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, std::int64_t records,
                        std::int64_t missing, FACTOR_TABLE& factors, TERM_TABLE& terms)
{
  const Frame here{eh, __func__};
  for (FACTOR_ROW& factor : factors.rows) {
    if (factor.copy) {  // of a row before it
      factor.levels = factors.row(factor.source).levels;
      if (extends_levels(factor) && __builtin_add_overflow(factor.levels, factor.order, &factor.levels))
        factor.levels = std::numeric_limits<std::int64_t>::max();
    } else if (factor.reserved == Reserved::units) {
      factor.levels = records;
    } else if (factor.reserved == Reserved::mv) {
      factor.levels = missing;
    } else if (factor.variable > 0 && factor.is_factor && factor.kind == 0) {
      factor.levels = variables.row(factor.variable).levels;
    }
  }
  constexpr std::int64_t most_equations = std::numeric_limits<std::int32_t>::max();
  terms.equations = terms.fixed_equations = 0;
  for (TERM_ROW& term : terms.rows) {
    term.first = terms.equations;
    term.equations = 0;
    if (!has_equations(term)) continue;
    const auto [from, to] = term.components();
    const std::int64_t n = product_of_levels(factors, from, to);
    if (n > most_equations - terms.equations) {
      eh.error(text("the model has too many equations, at most ", most_equations, " are possible"));
      eh.continuation(text("this was found at the term ", term.name, " with ", n, " equations"));
      return;
    }
    term.equations = n;
    terms.equations += n;
    if (term.block == Block::fixed) terms.fixed_equations += n;
  }
  L_CHECK_LINKED(eh, factors, terms);
}

std::string level_name(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
                       const TERM_ROW& term, std::int64_t level)
{
  // Mixed radix: the last component runs fastest.  Components are taken from the last to the first.
  const auto [from, to] = term.components();
  std::int64_t rest = level - 1;
  std::string name;
  for (std::int64_t i = to; i >= from; --i) {
    const FACTOR_ROW& factor = factors.row(i);
    const std::int64_t n = factor.levels > 0 ? factor.levels : 1;
    const std::int64_t own = rest % n + 1;
    rest /= n;
    if (!factor.is_factor) continue;
    const FACTOR_ROW& told = factor.copy ? factors.row(factor.source) : factor;
    const std::string label = own <= std::ssize(told.labels)                  ? told.labels[static_cast<std::size_t>(own - 1)]
                              : factor.variable > 0 && factor.kind == 0 ? GET_LEVEL_NAME(eh, variables.row(factor.variable), own)
                                                                        : text(own);
    name = name.empty() ? label : text(label, ".", name);
  }
  return name.empty() ? text(level) : name;
}

}  // namespace tolvan
