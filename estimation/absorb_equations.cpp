// The absorption of an evaluation's equations, and what its pivots tell.  Routine: L_ABSORB.
#include "estimation/absorb_equations.h"

#include <algorithm>
#include <cmath>

#include "base/text.h"
#include "estimation/fault_texts.h"
#include "estimation/fixed_part.h"

namespace tolvan {
namespace {

constexpr std::int64_t failed_ordering = 7;
constexpr std::int64_t lost_in_rounding = 2000;  // of an absorption: a variance matrix is singular to rounding
constexpr std::int64_t out_of_memory_absorbing = 100001;

/// Whether a structure has negative eigenvalues beside those of its Lagrangian rows.
bool is_negative(const COMPONENTS& components)
{
  return std::any_of(components.begin(), components.end(),
                     [](const auto& c) { return c->negative() != std::ssize(c->lagrangian()); });
}

bool has_negative_variances(const VARIANCE_MODEL& model, const FORMED& formed)
{
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    if (!model.terms[t].dropped && is_negative(formed.terms[t].components)) return true;
  }
  return false;
}

/// Marks the effects of positive definite variance matrices, by elimination position: G^-1 bounds their pivots from below.  Where
/// Lagrangian rows make a singular matrix whole, that holds for the effects that they neither bind nor are.
std::vector<std::uint8_t> definite_effects(const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q, const FORMED& formed)
{
  std::vector<std::uint8_t> definite(static_cast<std::size_t>(q.n), 0);
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    if (model.terms[t].dropped) continue;
    const COMPONENTS& components = formed.terms[t].components;
    if (is_negative(components) ||
        std::any_of(components.begin(), components.end(), [](const auto& c) { return c->counted() < c->inverse().n; })) {
      continue;
    }
    const std::int64_t first = first_equation(in.terms, model.terms[t]);
    const auto mark = [&](std::int64_t e, std::uint8_t value) { definite[static_cast<std::size_t>(q.position_of(first + e))] = value; };
    for (std::int64_t e = 0; e < formed.terms[t].size; ++e) mark(e, 1);
    for (std::size_t c = 0; c < components.size(); ++c) {
      const PRODUCT_BLOCK block = block_of(components, c);
      for (const auto& [row, level] : components[c]->lagrangian()) {
        for (std::int64_t o = 0; o < block.outer; ++o) {
          const std::int64_t from = o * components[c]->inverse().n;
          for (std::int64_t i = 0; i < block.inner; ++i) {
            mark((from + row) * block.inner + i, 0);
            mark((from + level) * block.inner + i, 0);
          }
        }
      }
    }
  }
  return definite;
}

/// L_FIND_ALIASED: finds how many fixed effects the design cannot tell apart.  Not where random structures have fixed dimensions.
void L_FIND_ALIASED(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, int threads, FIT_WORK& work, EVALUATION& ev)
{
  const Frame here{eh, __func__};
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    if (model.terms[t].dropped) continue;
    for (const auto& component : ev.formed.terms[t].components) {
      if (component->counted() < component->inverse().n) return;
    }
  }
  std::vector<std::uint8_t> left_out(static_cast<std::size_t>(work.equations.n), 0);
  ABSORBED absorbed;
  ABSORB_FIXED(eh, in, model, work.equations, ev, threads, work, left_out, absorbed);
  if (eh.terminate() || absorbed.cancelled) return;
  work.aliased.known = true;
  work.aliased.count = std::count(left_out.begin(), left_out.end(), std::uint8_t{1});
  work.aliased.left_out = std::move(left_out);
}

/// L_ABSORB_ANEW: absorbs C again where more or fewer fixed effects were left out than the design asks for.
///
/// A pivot is judged by its diagonal in C, x'R^-1 x.  Close to a singular R that may be any multiple of what random effects leave of
/// it, so that effects well told by the data would go; and it is a sum of large elements whose rounding may pass for a pivot.  Which
/// effects depend on others is a property of the design alone.
void L_ABSORB_ANEW(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, int threads, ABSORB_CONTROL& control,
                   std::vector<std::uint8_t>& definite, FIT_WORK& work, EVALUATION& ev)
{
  const Frame here{eh, __func__};
  MIXED_EQUATIONS& q = work.equations;
  if (!work.aliased.known) L_FIND_ALIASED(eh, in, model, threads, work, ev);
  if (eh.terminate() || !work.aliased.known) return;
  std::vector<std::uint8_t> fixed(static_cast<std::size_t>(q.n), 0);
  for (std::int64_t e = 0; e < q.n; ++e) fixed[static_cast<std::size_t>(q.position_of(e))] = q.fixed[static_cast<std::size_t>(e)];
  std::vector<std::uint8_t> left_out(fixed.size(), 0);
  std::int64_t count = 0;
  for (std::size_t p = 0; p < fixed.size(); ++p) {
    left_out[p] = fixed[p] != 0 && q.factor.reciprocal[p] == 0.0 ? 1 : 0;
    count += left_out[p];
  }
  if (count == work.aliased.count) {
    work.aliased.left_out = std::move(left_out);
    return;
  }
  for (std::size_t p = 0; p < fixed.size(); ++p) {
    if (fixed[p] != 0) definite[p] = work.aliased.left_out[p] != 0 ? 2 : 1;
  }
  K4MXXAIL(eh, q.c, control, q.factor, ev.absorbed);
}

}  // namespace

std::int64_t fault_of_memory(const ERROR_HANDLER& eh)
{
  bool short_of_memory = false;
  for (const ERROR_MESSAGE& each : eh.messages()) {
    if (each.message && each.message->find(fault_text(failed_ordering)) != std::string::npos) return failed_ordering;
    short_of_memory = short_of_memory || each.ecode == Ecode::alloc_fail;
  }
  return short_of_memory ? out_of_memory_absorbing : 0;
}

double singularity_tolerance(const FIT_OPTIONS& options, std::int64_t equations)
{
  const auto power_of_ten = [](std::int64_t k) { return std::pow(10.0, static_cast<double>(std::clamp<std::int64_t>(k, -300, 300))); };
  double t0 = options(Flag::k4mxxail_tol_42) ? 1e-9 : 1e-8;
  if (!options.tolerance.empty() && options.tolerance[0] != 0) t0 *= power_of_ten(options.tolerance[0]);
  if (equations > 1000000) t0 *= 5.0;
  if (options.tolerance.size() >= 2) t0 *= power_of_ten(options.tolerance[1] - 1);
  return t0;
}

void L_ABSORB(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, int threads, FIT_WORK& work, EVALUATION& ev)
{
  const Frame here{eh, __func__};
  MIXED_EQUATIONS& q = work.equations;
  ABSORB_CONTROL control;
  control.t0 = work.tolerance;
  control.default_tolerance = work.default_tolerance;
  control.floor = 0.0;  // an absolute floor would drop equations by the unit of the response or of a covariate
  control.threads = threads;
  control.cancel = work.cancel;
  std::vector<std::uint8_t> definite = definite_effects(in, model, q, ev.formed);
  control.definite = definite;
  ev.absorbed = {};
  {
    const Timed timed{in.timing, "K4MXXAIL", "K4MITR"};
    K4MXXAIL(eh, q.c, control, q.factor, ev.absorbed);
    const bool scaled_identity = q.residual.empty();
    if (!scaled_identity && !eh.terminate() && !ev.absorbed.cancelled) {
      L_ABSORB_ANEW(eh, in, model, threads, control, definite, work, ev);
    }
  }
  if (eh.terminate()) {
    ev.fault = fault_of_memory(eh);
    return;
  }
  const bool positive = !has_negative_variances(model, ev.formed);
  for (std::size_t p = 0; p < definite.size() && !ev.absorbed.cancelled; ++p) {
    const double r = q.factor.reciprocal[p];
    if (definite[p] == 1 && (r == 0.0 || (r < 0.0 && positive))) ev.fault = lost_in_rounding;
  }
  if (ev.absorbed.tightened) {
    work.tolerance = ev.absorbed.t0;
    work.default_tolerance = false;
  }
  if (ev.absorbed.reported.empty()) return;
  std::vector<std::int64_t> equation(static_cast<std::size_t>(q.n));
  for (std::int64_t e = 0; e < q.n; ++e) equation[static_cast<std::size_t>(q.position_of(e))] = e + 1;
  for (const ABSORBED::SmallPivot& pivot : ev.absorbed.reported) {
    bool repeated = false;
    eh.EH_ADD_MESSAGE({.text = text("equation ", equation[static_cast<std::size_t>(pivot.position)], " appears singular"),
                       .etype = Etype::warning,
                       .unique = true,
                       .is_duplicate = &repeated});
    if (repeated) continue;
    eh.continuation(pivot.accepted ? "assuming it is not singular, so setting the tolerance option to -1"
                                   : "set the tolerance option to -2 if it should not be singular");
  }
}

bool is_positive_definite(const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q, EVALUATION& ev)
{
  std::int64_t negative = 0;
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    if (model.terms[t].dropped) continue;
    const std::int64_t all = q.random[t].size();
    const std::int64_t down = negative_eigenvalues(ev.formed.terms[t].components);
    if (down < all) {
      negative += down;
      continue;
    }
    const std::int64_t first = first_equation(in.terms, model.terms[t]);
    for (std::int64_t e = first; e < first + all; ++e) {
      negative += q.factor.reciprocal[static_cast<std::size_t>(q.position_of(e))] != 0.0 ? 1 : 0;
    }
  }
  ev.negative = ev.absorbed.negative - negative;
  return negative == 0 || ev.negative == 0;
}

}  // namespace tolvan
