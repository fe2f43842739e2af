// Dropped terms that only the table of terms can tell: at(site) without at(site,3).  Routine: DROP_TERMS.
#include <algorithm>

#include "base/text.h"
#include "model/parse_terms.h"

namespace tolvan {

namespace {

/// True if two components mean the same: the same factor or level of a factor, under the same structure.
bool same_component(const FACTOR_TABLE& factors, std::int64_t a, std::int64_t b)
{
  if (a == b) return true;
  if (a == 0 || b == 0 || factors.row(a).structure != factors.row(b).structure) return false;
  const FACTOR_ROW& x = factors.row(factors.original(a));
  const FACTOR_ROW& y = factors.row(factors.original(b));
  if (&x == &y) return true;
  const bool levels = x.kind == kind_at || x.kind == kind_section;
  return levels && x.kind == y.kind && x.source == y.source && x.arguments == y.arguments;
}

bool same_term(const FACTOR_TABLE& factors, const TERM_ROW& a, const TERM_ROW& b)
{
  const auto [from, to] = a.components();
  const auto [first, last] = b.components();
  if (to - from != last - first || !same_component(factors, a.condition, b.condition)) return false;
  for (std::int64_t i = 0; i <= to - from; ++i)
    if (!same_component(factors, from + i, first + i)) return false;
  return true;
}

}  // namespace

void DROP_TERMS(ERROR_HANDLER& eh, MODEL_PARSER& parser, std::size_t part, std::size_t first)
{
  const Frame here{eh, __func__};
  std::vector<TERM_ROW>& rows = parser.terms.rows;
  const auto from = [&rows](std::size_t t) { return rows.begin() + static_cast<std::ptrdiff_t>(t); };
  const std::vector<TERM_ROW> dropped(from(first), rows.end());
  rows.erase(from(first), rows.end());
  for (const TERM_ROW& drop : dropped) {
    const auto found = std::find_if(from(part), rows.end(), [&](const TERM_ROW& t) { return same_term(parser.factors, t, drop); });
    if (found == rows.end()) {
      // Before the data are read a term may still stand for levels that are not told apart.
      if (parser.data_read || !parser.info.waits_for_levels)
        eh.note(text("there is no term ", drop.name, " to drop from the model"));
      continue;
    }
    if (found->linked_head >= 0) {
      eh.error(text("the term ", found->name, " shares a structure with others, it can not be dropped"));
      return;
    }
    for (auto behind = rows.erase(found); behind != rows.end(); ++behind)
      if (behind->linked_head >= 0) --behind->linked_head;
  }
}

}  // namespace tolvan
