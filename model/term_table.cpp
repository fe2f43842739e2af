// Equations and level names of the terms: SET_TERM_EQUATIONS, level_name.
#include "model/term_table.h"

#include <limits>

#include "base/text.h"

namespace tolvan {

void SET_TERM_EQUATIONS(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, std::int64_t records,
                        std::int64_t missing, FACTOR_TABLE& factors, TERM_TABLE& terms)
{
  const Frame here{eh, __func__};
  for (FACTOR_ROW& factor : factors.rows) {
    if (factor.reserved == Reserved::units) {
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
    if (term.block == Block::response) continue;
    std::int64_t n = 1;
    const auto [from, to] = term.components();
    for (std::int64_t i = from; i <= to; ++i) {
      if (__builtin_mul_overflow(n, factors.row(i).levels, &n)) n = std::numeric_limits<std::int64_t>::max();
    }
    if (n > most_equations - terms.equations) {
      eh.error(text("the model has too many equations, at most ", most_equations, " are possible"));
      eh.continuation(text("this was found at the term ", term.name, " with ", n, " equations"));
      return;
    }
    term.equations = n;
    terms.equations += n;
    if (term.block == Block::fixed) terms.fixed_equations += n;
  }
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
    const std::string label =
        factor.variable > 0 ? GET_LEVEL_NAME(eh, variables.row(factor.variable), own) : text(own);
    name = name.empty() ? label : text(label, ".", name);
  }
  return name.empty() ? text(level) : name;
}

}  // namespace tolvan
