// Terms and equations that no record has a design for.  Routine: MORE_AIDATA_SETUP.
#include "base/text.h"
#include "data/design_matrix.h"

namespace tolvan {

namespace {

/// True if a component of the term has no design by intent.
bool is_null_by_intent(const FACTOR_TABLE& factors, const TERM_ROW& term)
{
  const auto [from, to] = term.components();
  for (std::int64_t row = from; row <= to; ++row)
    if (factors.row(factors.original(row)).design_kind() == DesignKind::zero) return true;
  return false;
}

}  // namespace

std::vector<bool> equations_met(const DESIGN_MTX& design, std::int64_t equations)
{
  std::vector<bool> met(static_cast<std::size_t>(equations), false);
  for (const std::int32_t equation : design.equation) {
    if (equation < equations) met[static_cast<std::size_t>(equation)] = true;
  }
  return met;
}

void MORE_AIDATA_SETUP(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const TERM_TABLE& terms, const DESIGN_MTX& design,
                       std::span<const double> gammas)
{
  const Frame here{eh, __func__};
  const std::vector<bool> met = equations_met(design, terms.equations);
  for (std::size_t t = 0; t < terms.rows.size(); ++t) {
    const TERM_ROW& term = terms.rows[t];
    if (!has_equations(term) || term.dropped || term.joins || term.is_mv) continue;
    if (term.code < 1 || gammas[t] == 0.0 || is_null_by_intent(factors, term)) continue;
    bool present = false;
    for (std::int64_t e = term.first; e < term.first + term.equations && !present; ++e) present = met[static_cast<std::size_t>(e)];
    if (present) continue;
    eh.warning(text(term.name, " is null model term, with a non zero gamma, gamma = ", gammas[t]));
    eh.continuation("no record has any of its equations");
  }
}

}  // namespace tolvan
