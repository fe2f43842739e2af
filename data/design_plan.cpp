#include "data/design_plan.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "base/text.h"
#include "data/polynomial_basis.h"

namespace tolvan {

namespace {

using Shape = DESIGN_COMPONENT::Shape;

constexpr std::int64_t most_equations = std::numeric_limits<std::int32_t>::max();

/// What the routines below read, and the plan that they fill.
struct Planner {
  const VARIABLE_TABLE& variables;
  const FACTOR_TABLE& factors;
  DESIGN_PLAN& plan;
};

/// L_NEED_BASIS: complains when the data were not searched for what a function needs.
void L_NEED_BASIS(ERROR_HANDLER& eh, const FACTOR_ROW& factor)
{
  const Frame here{eh, __func__};
  if (factor.basis != nullptr) return;
  eh.internal(text("issue forming the design matrix (", factor.name, "), its values are not known"));
}

/// The source of a component, read as a number or as a level.
std::int32_t source_of(ERROR_HANDLER& eh, Planner& p, std::int64_t row, bool as_number)
{
  return L_ADD_SOURCE(eh, p.variables, p.factors, row, as_number, p.plan.sources);
}

/// L_PLAN_MEMBERS: a group of variables.
void L_PLAN_MEMBERS(ERROR_HANDLER& eh, Planner& p, const FACTOR_ROW& factor, DESIGN_COMPONENT& component)
{
  const Frame here{eh, __func__};
  for (const double member : factor.arguments) {
    const auto row = static_cast<std::int64_t>(member);
    component.members.push_back(source_of(eh, p, row, false));
    if (eh.terminate()) return;
    component.shape = p.factors.row(row).is_factor ? Shape::overlaid : Shape::side_by_side;
  }
  component.most = std::ssize(component.members);
  component.typical = static_cast<double>(component.most);
}

/// L_PLAN_COMPONENT: one factor row of a term.
void L_PLAN_COMPONENT(ERROR_HANDLER& eh, Planner& p, const TERM_ROW& term, std::int64_t row, DESIGN_COMPONENT& component)
{
  const Frame here{eh, __func__};
  if (row < 1 || row > p.factors.count()) {
    eh.internal(text("issue forming the design matrix (", term.name, "), factor ", row, " has no data"));
    return;
  }
  const FACTOR_ROW& factor = p.factors.row(p.factors.original(row));
  component.name = factor.shown();
  component.levels = p.factors.row(row).levels;
  const DesignKind kind = factor.design_kind();
  bool as_number = true;
  switch (kind) {
    case DesignKind::con:
      component.shape = Shape::contrast;
      component.most = component.levels;
      as_number = false;
      break;
    case DesignKind::pol:
    case DesignKind::leg: {
      component.shape = kind == DesignKind::pol ? Shape::polynomial : Shape::legendre;
      const DegreeRange range = degree_range(static_cast<std::int64_t>(factor.arguments.at(0)));
      component.first_degree = range.first;
      component.degrees = range.first + range.columns;
      component.most = component.degrees;
      break;
    }
    case DesignKind::spl:
    case DesignKind::bis:
      component.shape = kind == DesignKind::spl ? Shape::spline : Shape::bisquare;
      component.most = component.levels;
      break;
    case DesignKind::mbf:
      component.shape = Shape::file_row;
      component.by_level = p.factors.row(factor.source).is_factor;
      component.most = component.levels;
      as_number = false;
      break;
    case DesignKind::vec:
      L_PLAN_MEMBERS(eh, p, factor, component);
      return;
    case DesignKind::zero:
      component.shape = Shape::nothing;
      return;
    case DesignKind::joined: {
      const std::int64_t levels = component.levels;
      L_PLAN_COMPONENT(eh, p, term, factor.source, component);
      component.times *= factor.arguments.at(0);
      component.levels = levels;
      return;
    }
    default:
      if (!is_scalar(p.factors, row)) {
        eh.not_implemented(text("the design of ", component.name, " in model term ", term.name, " is not implemented"));
        return;
      }
      component.shape = factor.is_factor ? Shape::level : Shape::value;
      component.condition = is_comparison(kind);
      component.source = source_of(eh, p, row, !factor.is_factor);
      return;
  }
  L_NEED_BASIS(eh, factor);
  if (eh.terminate()) return;
  component.basis = factor.basis.get();
  if (component.shape == Shape::file_row) {
    const auto& table = component.basis->table;
    const auto zeros = std::count(table.begin(), table.end(), 0.0);
    const double rows = static_cast<double>(table.size()) / static_cast<double>(std::max<std::int64_t>(component.levels, 1));
    component.typical = rows > 0.0 ? static_cast<double>(std::ssize(table) - zeros) / rows : 0.0;
  } else {
    component.typical = component.shape == Shape::contrast ? 2.0 : static_cast<double>(component.most);
  }
  component.source = source_of(eh, p, factor.source, as_number);
}

/// The columns where a missing value counts, apart for a term with conditions.
void note_columns(const DESIGN_TERM& term, DESIGN_PLAN& plan)
{
  CONDITIONAL_COLUMNS under;
  for (const DESIGN_COMPONENT& component : term.components)
    if (component.condition) under.conditions.push_back(component.source);
  for (const DESIGN_COMPONENT& component : term.components) {
    const bool always = component.condition || under.conditions.empty();
    std::vector<std::size_t>& columns = always ? plan.design_columns : under.columns;
    if (component.source >= 0) columns_of_source(plan.sources, component.source, columns);
    for (const std::int32_t member : component.members) columns_of_source(plan.sources, member, columns);
  }
  if (!under.columns.empty()) plan.conditional.push_back(std::move(under));
}

/// L_PLAN_TERM: the components of a term, whose level counts must multiply to its equations.
void L_PLAN_TERM(ERROR_HANDLER& eh, Planner& p, const TERM_ROW& term, std::int64_t joined_equations)
{
  const Frame here{eh, __func__};
  DESIGN_TERM planned;
  planned.name = term.name;
  planned.first = term.first;
  planned.joins = joined_equations > 0;
  std::int64_t equations = 1;
  double typical = 1.0;
  const auto [from, to] = term.components();
  for (std::int64_t row = from; row <= to; ++row) {
    DESIGN_COMPONENT component;
    L_PLAN_COMPONENT(eh, p, term, row, component);
    if (eh.terminate()) return;
    if (__builtin_mul_overflow(equations, component.levels, &equations)) {
      eh.error(text("model term ", term.name, " has too many equations"));
      return;
    }
    typical *= component.typical;
    planned.components.push_back(std::move(component));
  }
  if (planned.joins && equations != joined_equations) {
    eh.error(text("invalid model term: ", term.name));
    eh.continuation(text("it has ", equations, " levels, the term that it adds to has ", joined_equations, " equations"));
    return;
  }
  const std::int64_t set_up = planned.joins ? joined_equations : term.equations;
  if (equations != set_up) {
    eh.internal(text("issue forming the design matrix (", term.name, "), ", set_up, " equations were set up, ", equations,
                     " are needed"));
    return;
  }
  p.plan.elements += static_cast<std::int64_t>(std::ceil(std::min(typical, static_cast<double>(most_equations))));
  note_columns(planned, p.plan);
  p.plan.terms.push_back(std::move(planned));
}

/// L_FIND_COLUMN: the column of the data store behind the weights or the offset; missing values count there.
void L_FIND_COLUMN(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, std::int64_t row, DESIGN_PLAN& plan, std::size_t& column)
{
  const Frame here{eh, __func__};
  const bool is_row = row >= 1 && row <= factors.count();
  const std::int64_t variable = is_row ? factors.row(factors.original(row)).variable : 0;
  if (variable == 0) {
    eh.internal(text("issue forming the design matrix (factor ", row, "), it is no variable of the data"));
    return;
  }
  column = static_cast<std::size_t>(variable - 1);
  plan.design_columns.push_back(column);
}

/// True if the residual's product has the trait before the records.
bool trait_comes_first(const FACTOR_TABLE& factors, const TERM_TABLE& terms)
{
  for (const TERM_ROW& term : terms.rows) {
    if (term.block != Block::residual || term.code < 1) continue;
    const auto [from, to] = term.components();
    for (std::int64_t row = from; row <= to && row <= factors.count(); ++row) {
      const FACTOR_ROW& factor = factors.row(factors.original(row));
      if (factor.design_kind() == DesignKind::sat) continue;
      return factor.reserved == Reserved::trait && row < to;
    }
  }
  return false;
}

template <class T>
void sort_unique(std::vector<T>& list)
{
  std::sort(list.begin(), list.end());
  list.erase(std::unique(list.begin(), list.end()), list.end());
}

}  // namespace

void L_PLAN_DESIGN(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors, TERM_TABLE& terms,
                   const MODEL_INFO& info, DESIGN_PLAN& plan)
{
  const Frame here{eh, __func__};
  if (info.responses.empty()) {
    eh.internal("issue forming the design matrix (response), there is none");
    return;
  }
  if (terms.equations > most_equations) {
    eh.error(text("the model has ", terms.equations, " equations, at most ", most_equations, " are possible"));
    return;
  }
  for (const std::int64_t response : info.responses) {
    plan.responses.push_back(L_ADD_SOURCE(eh, variables, factors, response, false, plan.sources));
    if (eh.terminate()) return;
  }
  plan.trait_slow = info.responses.size() > 1 && trait_comes_first(factors, terms);
  plan.weighted = info.weights != 0;
  if (plan.weighted) L_FIND_COLUMN(eh, factors, info.weights, plan, plan.weight);
  if (eh.terminate()) return;
  plan.has_offset = info.offset != 0;
  if (plan.has_offset) L_FIND_COLUMN(eh, factors, info.offset, plan, plan.offset);
  if (eh.terminate()) return;
  Planner planner{.variables = variables, .factors = factors, .plan = plan};
  std::int64_t before = 0;  // equations of the last term that has its own
  for (TERM_ROW& term : terms.rows) {
    if (term.dropped || !has_equations(term)) continue;
    if (term.is_mv) {
      plan.mv = &term;
      continue;
    }
    if (!term.joins) before = term.equations;
    L_PLAN_TERM(eh, planner, term, term.joins ? before : 0);
    if (eh.terminate()) return;
  }
  // Terms that join others stay behind them.
  std::stable_sort(plan.terms.begin(), plan.terms.end(),
                   [](const DESIGN_TERM& a, const DESIGN_TERM& b) { return a.first < b.first; });
  sort_unique(plan.design_columns);
  for (CONDITIONAL_COLUMNS& under : plan.conditional) sort_unique(under.columns);
  if (plan.mv == nullptr) return;
  for (const TERM_ROW& term : terms.rows) {
    if (&term == plan.mv || term.dropped || term.first + term.equations <= plan.mv->first) continue;
    eh.internal(text("missing value miscount forming the design matrix (", term.name, "), ", plan.mv->name,
                     " must have the last equations"));
    return;
  }
}

}  // namespace tolvan
