#include "estimation/missing_responses.h"

#include <algorithm>

namespace tolvan {
namespace {

/// The term of mv; null in a model without.
TERM_ROW* mv_term(TERM_TABLE& terms)
{
  const auto at = std::find_if(terms.rows.begin(), terms.rows.end(), [](const TERM_ROW& term) { return term.is_mv; });
  return at == terms.rows.end() ? nullptr : &*at;
}

}  // namespace

CHANGED_DESIGN with_responses_missing(const TERM_TABLE& terms, const DESIGN_MTX& design, std::span<const std::int64_t> rows)
{
  CHANGED_DESIGN out{terms, design};
  if (mv_term(out.terms) == nullptr) {
    TERM_ROW mv;
    mv.block = Block::sparse;
    mv.name = "mv_estimates";
    mv.is_mv = true;
    mv.first = terms.equations;
    out.terms.rows.push_back(mv);
  }
  TERM_ROW& mv = *mv_term(out.terms);
  std::vector<std::int64_t> equation(static_cast<std::size_t>(design.rows()), -1);
  for (const std::int64_t row : rows) {
    equation[static_cast<std::size_t>(row)] = mv.first + std::ssize(out.design.mv);
    out.design.mv.push_back(row);
    out.design.response[static_cast<std::size_t>(row)] = 0.0;
  }
  mv.equations = std::ssize(out.design.mv);
  out.terms.equations = mv.first + mv.equations;

  // The new equation is the last of its row.
  DESIGN_MTX& d = out.design;
  d.start.assign(1, 0);
  d.equation.clear();
  d.value.clear();
  for (std::int64_t row = 0; row < design.rows(); ++row) {
    const auto old = design.equations(row);
    const auto values = design.values(row);
    d.equation.insert(d.equation.end(), old.begin(), old.end());
    d.value.insert(d.value.end(), values.begin(), values.end());
    if (equation[static_cast<std::size_t>(row)] >= 0) {
      d.equation.push_back(static_cast<std::int32_t>(equation[static_cast<std::size_t>(row)]));
      d.value.push_back(-1.0);
    }
    d.start.push_back(std::ssize(d.equation));
  }
  return out;
}

CHANGED_DESIGN with_responses_given(const TERM_TABLE& terms, const DESIGN_MTX& design)
{
  CHANGED_DESIGN out{terms, design};
  TERM_ROW* mv = mv_term(out.terms);
  if (mv == nullptr) return out;
  DESIGN_MTX& d = out.design;
  d.start.assign(1, 0);
  d.equation.clear();
  d.value.clear();
  for (std::int64_t row = 0; row < design.rows(); ++row) {
    const auto old = design.equations(row);
    const auto values = design.values(row);
    for (std::size_t k = 0; k < old.size(); ++k) {
      if (old[k] >= mv->first) continue;
      d.equation.push_back(old[k]);
      d.value.push_back(values[k]);
    }
    d.start.push_back(std::ssize(d.equation));
  }
  d.mv.clear();
  out.terms.equations = mv->first;
  mv->equations = 0;
  return out;
}

std::vector<std::uint8_t> known_responses(const DESIGN_MTX& design)
{
  std::vector<std::uint8_t> known(static_cast<std::size_t>(design.rows()), 1);
  for (const std::int64_t row : design.mv) known[static_cast<std::size_t>(row)] = 0;
  for (std::size_t r = 0; r < design.weight.size(); ++r) {
    if (!(design.weight[r] > 0.0)) known[r] = 0;
  }
  return known;
}

VARIANCE_MODEL at_final_values(const VARIANCE_MODEL& model, const FIT_STATE& fit)
{
  VARIANCE_MODEL out = model;
  for (std::size_t i = 0; i < out.parameters.size() && i < fit.evaluated.size(); ++i) out.parameters[i].value = fit.evaluated[i];
  return out;
}

}  // namespace tolvan
