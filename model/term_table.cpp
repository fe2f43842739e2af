// Level counts and equations of the terms: SET_FACTOR_LEVELS, SET_TERM_EQUATIONS.
#include "model/term_table.h"

#include <algorithm>
#include <limits>

#include "base/text.h"

namespace tolvan {

namespace {

/// The level count of a factor row that is no copy, from what is known of it so far.
std::int64_t levels_of(const VARIABLE_TABLE& variables, std::int64_t records, std::int64_t missing,
                       const FACTOR_TABLE& factors, const FACTOR_ROW& factor)
{
  switch (factor.reserved) {
    case Reserved::units:
      return records;
    case Reserved::mv:
      return missing;
    case Reserved::mu:
    case Reserved::trait:
      return factor.levels;
    case Reserved::none:
      break;
  }
  switch (factor.design_kind()) {
    case DesignKind::none:
      return factor.variable > 0 && factor.is_factor ? variables.row(factor.variable).levels : factor.levels;
    case DesignKind::con:
    case DesignKind::joined: {
      const std::int64_t source = factors.row(factor.source).levels;
      return factor.design_kind() == DesignKind::joined ? source : std::max<std::int64_t>(source - 1, 0);
    }
    case DesignKind::vec: {
      std::int64_t most = 0;
      bool is_factor = false;
      for (const double member : factor.arguments) {
        const FACTOR_ROW& row = factors.row(static_cast<std::int64_t>(member));
        is_factor = is_factor || row.is_factor;
        most = std::max(most, row.levels);
      }
      return is_factor ? most : std::ssize(factor.arguments);
    }
    default:
      return factor.basis != nullptr ? factor.basis->columns : factor.levels;
  }
}

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

void mark_joining_terms(const FACTOR_TABLE& factors, TERM_TABLE& terms)
{
  for (TERM_ROW& term : terms.rows) {
    const auto [from, to] = term.components();
    for (std::int64_t i = from; i >= 1 && i <= to && i <= factors.count(); ++i)
      if (factors.row(factors.original(i)).design_kind() == DesignKind::joined) term.joins = true;
  }
}

void SET_FACTOR_LEVELS(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, std::int64_t records, std::int64_t missing,
                       FACTOR_TABLE& factors)
{
  const Frame here{eh, __func__};
  for (FACTOR_ROW& factor : factors.rows) {  // a row comes behind those from which it derives
    if (!factor.copy) {
      factor.levels = std::max(levels_of(variables, records, missing, factors, factor), factor.least_levels);
      continue;
    }
    factor.levels = std::max(factors.row(factor.source).levels, factor.matrix_rows) + factor.added_rows;
    // Linked terms have the equations of the levels; those of factors are added when the structure is set up.
    if (!extends_levels(factor) || factor.kind == kind_linked) continue;
    // The factors follow; a level without a variance of its own, as all of rr() are, is bound to them by an equation more,
    // behind all others.
    if (factor.structure == "rr") factor.binding_rows = factor.levels;
    // There are no more factors than levels.
    const std::int64_t more = std::min(factor.order, std::max<std::int64_t>(factor.levels, 1)) + factor.binding_rows;
    if (__builtin_add_overflow(factor.levels, more, &factor.levels)) factor.levels = std::numeric_limits<std::int64_t>::max();
  }
}

void SET_TERM_EQUATIONS(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, std::int64_t records,
                        std::int64_t missing, FACTOR_TABLE& factors, TERM_TABLE& terms)
{
  const Frame here{eh, __func__};
  SET_FACTOR_LEVELS(eh, variables, records, missing, factors);
  constexpr std::int64_t most_equations = std::numeric_limits<std::int32_t>::max();
  terms.equations = terms.fixed_equations = 0;
  std::int64_t before = 0;  // the first equation of the last term that has its own
  for (TERM_ROW& term : terms.rows) {
    term.first = terms.equations;
    term.equations = 0;
    if (!has_equations(term)) continue;
    if (term.joins) {
      term.first = before;
      continue;
    }
    before = term.first;
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

}  // namespace tolvan
