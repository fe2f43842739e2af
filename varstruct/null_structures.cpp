// Parameters of levels and terms that no record has a design for.  Routine: FIX_NULL_STRUCTURES.
#include <algorithm>
#include <cmath>
#include <numeric>

#include "base/text.h"
#include "varstruct/followers.h"
#include "varstruct/make_component.h"
#include "varstruct/starting_values.h"

namespace tolvan {

namespace {

constexpr std::int64_t most_levels = 1000;  // of a component whose derivatives are looked at
constexpr double rounding = 1e-10;          // of the largest element of a derivative

/// Which of the levels of a component the data speak of.
std::vector<bool> levels_met(const std::vector<bool>& met, std::int64_t first, std::int64_t equations, std::int64_t levels,
                             std::int64_t inner)
{
  std::vector<bool> out(static_cast<std::size_t>(levels), false);
  const std::int64_t end = std::min(first + equations, std::ssize(met));
  for (std::int64_t e = first; e < end; ++e)
    if (met[static_cast<std::size_t>(e)]) out[static_cast<std::size_t>((e - first) / inner % levels)] = true;
  return out;
}

constexpr std::int64_t corr = 5, chol = 11, ante = 12;  // model codes
constexpr std::int64_t most_factor_levels = 40;
constexpr double dependent = 1e-6;            // of a derivative that those before it span up to so much

/// Among derivatives, each by columns, those that are no combination of the ones before them in the order given.
std::vector<bool> independent(std::vector<std::vector<double>> derivatives, const std::vector<std::int64_t>& order)
{
  std::vector<bool> out(derivatives.size(), false);
  std::vector<std::size_t> basis;
  for (const std::int64_t k : order) {
    std::vector<double>& x = derivatives[static_cast<std::size_t>(k)];
    const auto norm = [&] { return std::sqrt(std::inner_product(x.begin(), x.end(), x.begin(), 0.0)); };
    const double whole = norm();
    for (const std::size_t b : basis) {
      const std::vector<double>& q = derivatives[b];
      const double by = std::inner_product(x.begin(), x.end(), q.begin(), 0.0);
      for (std::size_t i = 0; i < x.size(); ++i) x[i] -= by * q[i];
    }
    const double left = norm();
    if (!(left > dependent * whole)) continue;
    for (double& e : x) e /= left;
    out[static_cast<std::size_t>(k)] = true;
    basis.push_back(static_cast<std::size_t>(k));
  }
  return out;
}

/// L_FIND_USED: the parameters of a row on which the covariances among some of its levels depend.
///   model  a copy: forming a component may mend its values
std::vector<bool> L_FIND_USED(const STRUCTURE_ROW& row, const std::vector<bool>& levels, VARIANCE_MODEL model)
{
  std::vector<bool> used(static_cast<std::size_t>(row.parameters), true);
  const std::int64_t n = row.size;
  ERROR_HANDLER unheard;  // what is wrong with the row is told when it is formed for good
  STRUCTURE_ROW copy = row;
  FORM_CONTEXT context{.eh = unheard, .model = model, .row = copy, .iteration = 1, .ar_limit = 1.0, .bend = 0.0};
  const std::unique_ptr<COMPONENT_MATRIX> component = row.own < 0 ? make_component(row, model) : nullptr;
  if (component == nullptr || component->form(context) != Formed::done || component->inverse().n != n) return used;
  std::vector<double> r(static_cast<std::size_t>(n * n)), derivative(r.size());
  component->covariance(r.data());
  // Factors of the other levels can stand in for those of a level without data: they go by what is left of them.
  const bool factors = (row.model == chol || row.model == ante) && n <= most_factor_levels;
  std::vector<std::vector<double>> met_derivatives;
  for (std::int64_t k = 0; k < row.parameters; ++k) {
    component->working(k, r.data(), derivative.data(), 1, n);  // Rdot R^-1 R
    double largest = 0.0, among = 0.0;
    if (factors) met_derivatives.emplace_back();
    for (std::int64_t j = 0; j < n; ++j) {
      for (std::int64_t i = 0; i < n; ++i) {
        const double x = std::fabs(derivative[static_cast<std::size_t>(i + j * n)]);
        largest = std::max(largest, x);
        if (!levels[static_cast<std::size_t>(i)] || !levels[static_cast<std::size_t>(j)]) continue;
        among = std::max(among, x);
        if (factors) met_derivatives.back().push_back(derivative[static_cast<std::size_t>(i + j * n)]);
      }
    }
    used[static_cast<std::size_t>(k)] = among > rounding * largest;
  }
  if (!factors) return used;
  std::vector<std::int64_t> order;  // what is of levels with data alone, then the rest; nothing that is fixed
  for (const bool with_data : {true, false}) {
    std::int64_t k = 0;
    for (std::size_t i = 0; i < levels.size(); ++i) {
      for (std::size_t j = 0; j <= i; ++j, ++k) {
        const bool is_held = !is_free(model.parameters[static_cast<std::size_t>(row.first + k)].constraint);
        const bool speaks = used[static_cast<std::size_t>(k)];  // what is left of a derivative of 0 is rounding
        if (!is_held && speaks && (levels[i] && levels[j]) == with_data) order.push_back(k);
      }
    }
  }
  return independent(std::move(met_derivatives), order);
}

}  // namespace

void FIX_NULL_STRUCTURES(ERROR_HANDLER& eh, const TERM_TABLE& terms, const DESIGN_MTX& design, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  const std::vector<bool> met = equations_met(design, terms.equations);
  // A parameter goes on where a structure that the data speak of uses it, too, as its own or through a follower.
  std::vector<bool> unused(model.parameters.size(), false), needed(model.parameters.size(), false);
  std::vector<bool> no_part(model.parameters.size(), false);  // better 0 where they are held
  for (const TERM_STRUCTURE& structure : model.terms) {
    const std::int64_t first = terms.rows[static_cast<std::size_t>(structure.term)].first;
    const std::int64_t equations = structure_equations(terms, structure.term);
    std::int64_t inner = equations;
    for (std::int64_t r = structure.first_row; r < structure.first_row + structure.rows; ++r) {
      const STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(r)];
      inner = std::max<std::int64_t>(inner / std::max<std::int64_t>(row.size, 1), 1);
      const std::vector<bool> levels = levels_met(met, first, equations, row.size, inner);
      const bool null = std::ranges::none_of(levels, [](bool x) { return x; });
      std::vector<bool> used(static_cast<std::size_t>(row.parameters), !null);
      const bool partly = !null && row.parameters > 1 && row.size <= most_levels && !std::ranges::all_of(levels, [](bool x) { return x; });
      if (partly) used = L_FIND_USED(row, levels, model);
      for (std::int64_t k = 0; k < row.parameters; ++k) {
        const auto p = static_cast<std::size_t>(row.first + k);
        (used[static_cast<std::size_t>(k)] ? needed : unused)[p] = true;
        const ParamRole role = model.parameters[p].role;
        no_part[p] = role == ParamRole::covariance || (role == ParamRole::correlation && (row.model == chol || row.model == corr));
      }
      if (row.scale >= 0 && (row.scale < row.first || row.scale >= row.first + row.parameters))
        (null ? unused : needed)[static_cast<std::size_t>(row.scale)] = true;
    }
  }
  for (std::size_t p = 0; p < model.parameters.size(); ++p) {
    if (unused[p] || !follows(model.parameters[p])) continue;
    for (const PARAMETER_SHARE& share : made_of(model, static_cast<std::int64_t>(p))) needed[static_cast<std::size_t>(share.of)] = true;
  }
  std::int64_t held = 0;
  for (std::size_t p = 0; p < model.parameters.size(); ++p) {
    Constraint& constraint = model.parameters[p].constraint;
    if (!unused[p] || needed[p] || !is_free(constraint)) continue;
    constraint = Constraint::S;
    // Any value will do as far as the data go: without covariances the levels at hand are by themselves.
    if (no_part[p]) model.parameters[p].value = model.parameters[p].start = 0.0;
    ++held;
  }
  if (held > 0) eh.note(text(held, " variance parameters are held: no record has a level that they are of"));
}

}  // namespace tolvan
