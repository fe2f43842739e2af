#include "data/design_plan.h"

#include <algorithm>
#include <limits>

#include "base/text.h"

namespace tolvan {

namespace {

constexpr std::int64_t most_equations = std::numeric_limits<std::int32_t>::max();

/// The row that a factor's data come from: copies made for interactions lead to their source.
const FACTOR_ROW* data_row(const FACTOR_TABLE& factors, std::int64_t row)
{
  for (std::int64_t steps = 0; steps <= factors.count(); ++steps) {
    if (row < 1 || row > factors.count()) return nullptr;
    const FACTOR_ROW& factor = factors.row(row);
    if (factor.variable != 0 || factor.reserved != Reserved::none) return &factor;
    row = factor.source;
  }
  return nullptr;
}

/// L_PLAN_COMPONENT: one factor row of a term.
void L_PLAN_COMPONENT(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const TERM_ROW& term, std::int64_t row,
                      DESIGN_COMPONENT& component)
{
  const Frame here{eh, __func__};
  const FACTOR_ROW* data = data_row(factors, row);
  if (data == nullptr) {
    eh.internal(text("issue forming the design matrix (", term.name, "), factor ", row, " has no data"));
    return;
  }
  const FACTOR_ROW& factor = factors.row(row);
  component.name = factor.shown();
  component.levels = factor.is_factor ? factor.levels : 1;
  if (factor.kind != 0 || data->kind != 0 || data->reserved == Reserved::trait ||
      data->reserved == Reserved::mv) {
    eh.not_implemented(
        text("the design of ", component.name, " in model term ", term.name, " is not implemented"));
    return;
  }
  switch (data->reserved) {
    case Reserved::mu:
      component.reads = DESIGN_COMPONENT::Reads::one;
      component.levels = 1;
      return;
    case Reserved::units:
      component.reads = DESIGN_COMPONENT::Reads::record_number;
      component.levels = factor.levels;
      return;
    default:
      component.reads = factor.is_factor ? DESIGN_COMPONENT::Reads::level : DESIGN_COMPONENT::Reads::value;
      component.column = static_cast<std::size_t>(data->variable - 1);
  }
}

/// L_PLAN_TERM: the components of a term, whose level counts must multiply to its equations.
void L_PLAN_TERM(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const TERM_ROW& term, DESIGN_PLAN& plan)
{
  const Frame here{eh, __func__};
  DESIGN_TERM planned;
  planned.name = term.name;
  planned.first = term.first;
  std::int64_t equations = 1;
  const auto [from, to] = term.components();
  for (std::int64_t row = from; row <= to; ++row) {
    DESIGN_COMPONENT component;
    L_PLAN_COMPONENT(eh, factors, term, row, component);
    if (eh.terminate()) return;
    if (__builtin_mul_overflow(equations, component.levels, &equations)) {
      eh.error(text("model term ", term.name, " has too many equations"));
      return;
    }
    using Reads = DESIGN_COMPONENT::Reads;
    if (component.reads == Reads::level || component.reads == Reads::value) {
      plan.design_columns.push_back(component.column);
    }
    planned.components.push_back(std::move(component));
  }
  if (equations != term.equations) {
    eh.internal(text("issue forming the design matrix (", term.name, "), ", term.equations,
                     " equations were set up, ", equations, " are needed"));
    return;
  }
  plan.terms.push_back(std::move(planned));
}

/// L_FIND_COLUMN: the column of the data store behind the response or the weights.
void L_FIND_COLUMN(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, std::int64_t row, std::size_t& column)
{
  const Frame here{eh, __func__};
  const FACTOR_ROW* data = data_row(factors, row);
  if (data == nullptr || data->variable == 0) {
    eh.internal(text("issue forming the design matrix (factor ", row, "), it is no variable of the data"));
    return;
  }
  column = static_cast<std::size_t>(data->variable - 1);
}

}  // namespace

void L_PLAN_DESIGN(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, TERM_TABLE& terms, const MODEL_INFO& info,
                   DESIGN_PLAN& plan)
{
  const Frame here{eh, __func__};
  if (info.responses.size() != 1) {
    if (info.responses.empty()) {
      eh.internal("issue forming the design matrix (response), there is none");
    } else {
      eh.not_implemented("models with several response variables are not implemented");
    }
    return;
  }
  if (terms.equations > most_equations) {
    eh.error(
        text("the model has ", terms.equations, " equations, at most ", most_equations, " are possible"));
    return;
  }
  L_FIND_COLUMN(eh, factors, info.responses.front(), plan.response);
  if (eh.terminate()) return;
  plan.weighted = info.weights != 0;
  if (plan.weighted) {
    L_FIND_COLUMN(eh, factors, info.weights, plan.weight);
    if (eh.terminate()) return;
    plan.design_columns.push_back(plan.weight);
  }
  for (TERM_ROW& term : terms.rows) {
    if (term.dropped || !has_equations(term)) continue;
    if (term.is_mv) {
      plan.mv = &term;
      continue;
    }
    L_PLAN_TERM(eh, factors, term, plan);
    if (eh.terminate()) return;
  }
  std::sort(plan.terms.begin(), plan.terms.end(),
            [](const DESIGN_TERM& a, const DESIGN_TERM& b) { return a.first < b.first; });
  std::sort(plan.design_columns.begin(), plan.design_columns.end());
  plan.design_columns.erase(std::unique(plan.design_columns.begin(), plan.design_columns.end()),
                            plan.design_columns.end());
  if (plan.mv == nullptr) return;
  for (const TERM_ROW& term : terms.rows) {
    if (&term == plan.mv || term.dropped || term.first + term.equations <= plan.mv->first) continue;
    eh.internal(text("missing value miscount forming the design matrix (", term.name, "), ", plan.mv->name,
                     " must have the last equations"));
    return;
  }
}

}  // namespace tolvan
