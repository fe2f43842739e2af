// The names that tables give to the levels of terms: level_name.
#include <algorithm>

#include "base/text.h"
#include "model/term_table.h"

namespace tolvan {

namespace {

/// The place of a distinct value in words: its label, the value, or "x,y" for a pair.
std::string distinct_name(const FACTOR_ROW& factor, const DESIGN_BASIS& basis, std::int64_t level)
{
  if (level > basis.distinct.size()) return "NA";
  if (!basis.names.empty()) return basis.names[static_cast<std::size_t>(level - 1)];
  const std::string x = text(basis.distinct.x(level));
  return factor.second > 0 ? text(x, ",", basis.distinct.y(level)) : x;
}

/// One level of a factor row that has several.
std::string own_level_name(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
                           std::int64_t given_row, std::int64_t level)
{
  const FACTOR_ROW& given = factors.row(given_row);
  if (given.kind == kind_linked && (given.structure == "fa" || given.structure == "rr")) {
    const std::int64_t levels = given.levels - given.order - given.binding_rows;
    if (level > levels) return text("factor", level - levels);
  }
  if (given.copy && level > factors.row(given.source).levels) {
    if (level <= given.levels - given.added_rows) {
      if (given.matrix_rows > 0) return text(level);  // a row of a known matrix beyond the levels of the data
      return text("factor", level - factors.row(given.source).levels);  // the factors of fa() and rr()
    }
    return text("lagrangian", level - (given.levels - given.added_rows));
  }
  const FACTOR_ROW& factor = factors.row(factors.original(given_row));
  const DESIGN_BASIS* basis = factor.basis.get();
  const auto k = static_cast<std::size_t>(level - 1);
  if (k < factor.labels.size()) return factor.labels[k];
  switch (factor.design_kind()) {
    case DesignKind::none:
      return factor.variable > 0 ? GET_LEVEL_NAME(eh, variables.row(factor.variable), level) : text(level);
    case DesignKind::con:
    case DesignKind::joined:
      return own_level_name(eh, variables, factors, factor.source, level);
    case DesignKind::fac:
    case DesignKind::dev:
      return basis != nullptr ? distinct_name(factor, *basis, level) : text(level);
    case DesignKind::pol:
    case DesignKind::leg:
      return text("order", factor.arguments.at(0) < 0 ? level : level - 1);
    case DesignKind::spl:  // one equation for each inner knot
      return basis != nullptr && k + 1 < basis->points.size() ? text(basis->points[k + 1]) : text(level);
    case DesignKind::bis:
      return basis != nullptr && k < basis->points.size() ? text(basis->points[k]) : text(level);
    case DesignKind::mbf:
      return basis != nullptr && k < basis->names.size() ? basis->names[k] : text(level);
    case DesignKind::vec: {
      const auto member = static_cast<std::int64_t>(factor.arguments.at(0));
      if (factors.row(member).is_factor) return own_level_name(eh, variables, factors, member, level);
      return k < factor.arguments.size() ? factors.row(static_cast<std::int64_t>(factor.arguments[k])).shown() : text(level);
    }
    default:
      return text(level);
  }
}

/// The components that tell a level of a term apart, and its place (from 0) in their mixed radix: those of the term, or of the
/// structure that it shares with others.
struct LEVEL_PLACE {
  std::int64_t from = 0, to = 0, place = 0;
};

LEVEL_PLACE place_of(const FACTOR_TABLE& factors, const TERM_ROW& term, std::int64_t level)
{
  const std::int64_t own = term.equations - term.added;
  if (level <= own || term.added == 0) return {term.components().first, term.components().second, level - 1};
  const auto [from, to] = term.structure();
  std::int64_t all = 1;
  for (std::int64_t i = from; i <= to; ++i) all *= factors.row(i).levels;
  return {from, to, all - term.added + level - own - 1};
}

}  // namespace

bool binds_a_level(const FACTOR_TABLE& factors, const TERM_ROW& term, std::int64_t level)
{
  auto [from, to, rest] = place_of(factors, term, level);
  for (std::int64_t i = to; i >= from; --i) {
    const FACTOR_ROW& factor = factors.row(i);
    const std::int64_t n = factor.levels > 0 ? factor.levels : 1;
    if (factor.binding_rows > 0 && rest % n >= n - factor.binding_rows) return true;
    rest /= n;
  }
  return false;
}

std::vector<std::int64_t> component_levels(const FACTOR_TABLE& factors, const TERM_ROW& term, std::int64_t level)
{
  // Mixed radix: the last component runs fastest.  Components are taken from the last to the first.
  const auto [from, to] = term.components();
  std::vector<std::int64_t> own(static_cast<std::size_t>(to - from + 1));
  std::int64_t rest = level - 1;
  for (std::int64_t i = to; i >= from; --i) {
    const std::int64_t n = std::max<std::int64_t>(factors.row(i).levels, 1);
    own[static_cast<std::size_t>(i - from)] = rest % n + 1;
    rest /= n;
  }
  return own;
}

std::string component_level_name(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors, std::int64_t row,
                                 std::int64_t level)
{
  return factors.row(row).is_factor ? own_level_name(eh, variables, factors, row, level) : std::string();
}

std::string level_name(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
                       const TERM_ROW& term, std::int64_t level)
{
  // Mixed radix: the last component runs fastest.  Components are taken from the last to the first.
  auto [from, to, rest] = place_of(factors, term, level);
  std::string name;
  for (std::int64_t i = to; i >= from; --i) {
    const FACTOR_ROW& factor = factors.row(i);
    const std::int64_t n = factor.levels > 0 ? factor.levels : 1;
    const std::int64_t own = rest % n + 1;
    rest /= n;
    if (!factor.is_factor) continue;
    const std::string label = own_level_name(eh, variables, factors, i, own);
    name = name.empty() ? label : text(label, ".", name);
  }
  return name.empty() ? text(level) : name;
}

}  // namespace tolvan
