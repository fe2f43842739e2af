// Factors whose designs are added up.  Routine: CHECK_AND_CONFORMITY.
#include <algorithm>

#include "base/text.h"
#include "data/design_matrix.h"

namespace tolvan {

namespace {

/// L_CHECK_PAIR: the component of an and() term beside that of the term it joins.
void L_CHECK_PAIR(ERROR_HANDLER& eh, FACTOR_TABLE& factors, std::int64_t of_term, std::int64_t of_and)
{
  const Frame here{eh, __func__};
  const FACTOR_ROW& joined = factors.row(factors.original(of_and));
  if (joined.design_kind() != DesignKind::joined) return;
  const std::int64_t a = factors.original(of_term), b = factors.original(joined.source);
  const std::int64_t n = factors.row(a).levels, m = factors.row(b).levels;
  if (n == m) {
    eh.note(text("it is assumed that ", factors.row(a).shown(), " and ", factors.row(b).shown(),
                 " have the same levels in the same order"));
    return;
  }
  // sic: the bracket stays open
  eh.warning(text(factors.row(a).shown(), " and ", factors.row(b).shown(), " have different sizes [", n, " ", m));
  eh.continuation("they should be the same size with levels in the same order, both have been reset");
  for (const std::int64_t row : {a, b}) {
    FACTOR_ROW& factor = factors.row(row);
    if (!factor.is_factor || !(factor.variable > 0 || factor.basis != nullptr)) continue;
    factor.least_levels = std::max({factor.least_levels, n, m});
  }
}

}  // namespace

void CHECK_AND_CONFORMITY(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, std::int64_t records, FACTOR_TABLE& factors,
                          const TERM_TABLE& terms)
{
  const Frame here{eh, __func__};
  if (std::none_of(terms.rows.begin(), terms.rows.end(), [](const TERM_ROW& term) { return term.joins; })) return;
  SET_FACTOR_LEVELS(eh, variables, records, 0, factors);
  const TERM_ROW* before = nullptr;
  for (const TERM_ROW& term : terms.rows) {
    if (term.dropped || term.block == Block::response || term.block == Block::residual) continue;
    if (!term.joins) {
      before = &term;
      continue;
    }
    const auto [from, to] = term.components();
    if (before == nullptr || before->block != term.block || before->is_mv) {
      eh.error(text("invalid model term: ", term.name));
      eh.continuation("and() adds to the term before it in the same part of the model");
      return;
    }
    const auto [first, last] = before->components();
    if (last - first != to - from) continue;  // the sizes are compared when the equations are set
    for (std::int64_t k = 0; k <= to - from; ++k) L_CHECK_PAIR(eh, factors, first + k, from + k);
  }
}

}  // namespace tolvan
