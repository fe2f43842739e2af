// Checks of the model as a whole: CHECK_FOR_INTERACTION_NO_MAIN.
#include <set>

#include "model/term_table.h"

namespace tolvan {

namespace {

/// The row that a component is a copy of: a variable, a reserved or a derived factor.
std::int64_t base_row(const FACTOR_TABLE& factors, std::int64_t row)
{
  while (factors.row(row).copy && factors.row(row).source < row) row = factors.row(row).source;
  return row;
}

}  // namespace

std::vector<std::int64_t> CHECK_FOR_INTERACTION_NO_MAIN(const FACTOR_TABLE& factors, const TERM_TABLE& terms)
{
  std::set<std::int64_t> mains;
  for (const TERM_ROW& term : terms.rows) {
    const auto [from, to] = term.components();
    if (has_equations(term) && !term.dropped && from == to) mains.insert(base_row(factors, from));
  }
  std::vector<std::int64_t> alone;
  for (std::size_t t = 0; t < terms.rows.size(); ++t) {
    const TERM_ROW& term = terms.rows[t];
    const auto [from, to] = term.components();
    if (from == to || term.dropped || !has_equations(term)) continue;
    for (std::int64_t i = from; i <= to; ++i) {
      if (factors.row(i).kind == kind_at || mains.contains(base_row(factors, i))) continue;
      alone.push_back(static_cast<std::int64_t>(t) + 1);
      break;
    }
  }
  return alone;
}

}  // namespace tolvan
