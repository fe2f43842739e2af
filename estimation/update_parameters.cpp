// One average-information step.  Routine: K4MUPD.
#include "estimation/update_parameters.h"

#include <algorithm>
#include <cmath>

#include "base/text.h"
#include "estimation/damped_step.h"
#include "estimation/expected_information.h"
#include "estimation/keep_rows.h"
#include "estimation/newton_step.h"
#include "estimation/residual_steps.h"
#include "estimation/restraints.h"

namespace tolvan {
namespace {

constexpr double near_one = 0.99;          // a correlation held beyond this is at its bound
constexpr double nothing = 1e-20;          // of its unit: a variance that has settled at zero
constexpr double settled_gain = 1.0;       // of LogL: a variance may settle at zero once an iteration changes no more than this
constexpr double settled_ratio = 1e3;      // a variance this far above its unit may grow on: the residual's is going to zero
constexpr int most_shortening = 40;
constexpr double swinging_line = 0.7;                  // squared cosine between two steps
constexpr double least_swing = 0.2, most_swing = 2.0;  // the last step over the one before, against it
constexpr double near_gain = 5.0;             // of LogL: the last step came near the optimum

/// L_PENALTY: the damping number by the change of LogL, and the multiplier of the information's diagonal it gives.
void L_PENALTY(ERROR_HANDLER& eh, std::int64_t iteration, double gain, INFORMATION& information, AIOPT& aiopt, UPDATE_STATE& state)
{
  const Frame here{eh, __func__};
  std::int64_t& m = aiopt(Ai::penalty);
  if (m == -1) return;
  if (iteration == 1) {
    state.saved_step = state.step;
    return;
  }
  const std::int64_t old = m;
  if (gain < -5.0) {
    m = std::min<std::int64_t>(m, 45) + 5;
    state.step = std::min(0.6 * state.step, 0.4);
  } else if (gain < -0.5) {
    m += m > 7 ? 2 : 3;
    state.step = std::min(0.6 * state.step, 0.5);
  } else if (gain > 5.0) {
    m = (3 * m + 1) / 4;
  } else if (gain > 0.0) {
    m = (m + 2) / 2;
  } else {
    m += 7;
  }
  if (m < 1) {
    state.multiplier = 1.0;
  } else if (old == 1 && m == 1) {
    state.multiplier = state.multiplier > 1.002 ? 1.0001 : 0.5 * (state.multiplier + 1.001);
  } else {
    state.multiplier = 1.0 + 0.01 * static_cast<double>(m);
  }
  for (std::int64_t i = 0; i < information.count(); ++i) information.at(i, i) *= state.multiplier;
}

/// What a variance that has settled at zero keeps.  The effects of a plain term are then zero with standard errors of zero; where
/// other structures or a matrix with undefined directions stand behind it, it stays where it is.
double settled_value(const VARIANCE_MODEL& model, std::int64_t parameter, double value, double unit)
{
  for (const STRUCTURE_ROW& row : model.rows) {
    if (row.first != parameter || row.parameters != 1) continue;
    const bool plain = row.model == 0 && row.matrix == nullptr;
    const bool definite = row.matrix != nullptr && row.matrix->groups == 0 && row.matrix->absent == 0 && row.matrix->lagrangian == 0;
    if (plain || definite) return nothing * unit;
  }
  return value;
}

/// Shortens a step that goes back along the last one by what the two tell (Aitken 1926): where d = r d_before along one line in the
/// metric of the information, the place that they lead to is d / (1 - r) away.  For steps too long to take secants from; only while
/// nothing is held.
void shorten_swing(const INFORMATION& information, const INFORMATION& plain, const std::vector<std::uint8_t>& open,
                   const std::vector<std::uint8_t>& used, const std::vector<double>& before, std::vector<double>& delta)
{
  if (open != used || before.empty()) return;
  double now = 0.0, then = 0.0, both = 0.0;
  const auto k = static_cast<std::size_t>(information.count());
  const auto earlier = [&](std::size_t i) { return before[static_cast<std::size_t>(information.active[i])]; };
  for (std::size_t i = 0; i < k; ++i) {
    if (static_cast<std::int64_t>(i) == information.held_out) continue;
    for (std::size_t j = 0; j < k; ++j) {
      if (static_cast<std::int64_t>(j) == information.held_out) continue;
      const double a = plain.at(static_cast<std::int64_t>(i), static_cast<std::int64_t>(j));
      now += delta[i] * a * delta[j];
      then += earlier(i) * a * earlier(j);
      both += delta[i] * a * earlier(j);
    }
  }
  if (!(now > 0.0) || !(then > 0.0)) return;
  const double r = both / then;
  if (r > -least_swing || r < -most_swing || both * both < swinging_line * now * then) return;
  for (double& d : delta) d /= 1.0 - r;
}

}  // namespace

void damp_steps(bool fell, UPDATE_STATE& state)
{
  if (fell) {
    state.shortening = std::min(state.came_with + 1, most_shortening);
  } else {
    state.shortening = std::max(state.shortening - 1, 0);
  }
}

void K4MUPD(ERROR_HANDLER& eh, std::int64_t iteration, double gain, INFORMATION information, VARIANCE_MODEL& model, AIOPT& aiopt,
            UPDATE_STATE& state)
{
  const Frame here{eh, __func__};
  aiopt(Ai::ai_singularities) = 0;
  aiopt(Ai::step_thousandths) = 1000;
  aiopt(Ai::restrained) = 0;
  aiopt(Ai::boundary) = 0;
  state.came_with = state.taken_with;
  state.taken_with = state.shortening;
  const std::vector<double> ratio = data_ratios(model, information);
  add_secant(model, information, iteration > 1 ? gain : INFINITY, state.secants);
  information = in_units(std::move(information));
  const auto p = model.parameters.size();
  if (state.reference.size() != p) {
    state.reference.resize(p);
    for (std::size_t i = 0; i < p; ++i) state.reference[i] = model.parameters[i].value;
    state.last = state.reference;
    state.pulled.assign(p, 0);
  }
  state.change.assign(p, 0.0);
  state.largest_change = 0.0;

  INFORMATION plain = information;
  correct_by_secants(state.secants, plain);
  L_PENALTY(eh, iteration, gain, information, aiopt, state);
  const double c = std::min(state.step, 1.0 / state.step);
  if (c < 1.0) {
    for (double& s : information.score) s *= c;
    aiopt(Ai::step_thousandths) = static_cast<std::int64_t>(1000.0 * c);
  }

  std::vector<double> covariance;
  std::vector<std::uint8_t> used;
  const bool may_settle = iteration > 1 && std::fabs(gain) < settled_gain;
  state.may_fix = may_settle;
  K4MAII(eh, true, iteration, information, model, aiopt, state, covariance, used);
  if (eh.terminate()) return;

  correct_by_secants(state.secants, information);
  make_expected(ratio, information);

  // The joint step includes the profiled residual variance, whose score is zero and whose own step is not applied:
  // a Newton step on the profile likelihood.  Restrained parameters are held at what the rules gave them and the others
  // solved again: first types R, P, L and r, then the rules by sign, until nothing new is restrained.
  const auto k = static_cast<std::size_t>(information.count());
  std::vector<std::uint8_t> open = used;
  std::vector<double> taken(k, 0.0);
  std::vector<double> delta(k, 0.0);
  std::vector<RESTRAINT> result(k);
  std::vector<std::uint8_t> restrained(k, 0);
  const auto parameter = [&](std::size_t i) -> VARIANCE_PARAMETER& {
    return model.parameters[static_cast<std::size_t>(information.active[i])];
  };
  for (std::size_t i = 0; i < k; ++i) {
    if (!is_free(parameter(i).constraint)) open[i] = 0;
  }
  damped_step(model, state.shortening, open, placed_parameters(information, state.definite, open), information, delta);
  const auto hold = [&](std::size_t i) {
    open[i] = 0;
    taken[i] = (result[i].value - parameter(i).value) / information.unit[i];
  };
  const auto restrain = [&](std::size_t i) {
    restrained[i] = 1;
    hold(i);
  };
  const double share = std::ldexp(1.0, -state.shortening);
  const auto pass = [&](bool first_stage) {
    std::size_t worst = k;
    double worst_measure = 0.0;
    std::vector<std::pair<double, std::size_t>> cut;
    solve_step(information, open, taken, delta);
    for (std::size_t i = 0; i < k; ++i) {
      if (!open[i] || static_cast<std::int64_t>(i) == information.held_out) continue;
      const VARIANCE_PARAMETER& v = parameter(i);
      if (in_first_stage(v.type) != first_stage) continue;
      const auto at = static_cast<std::size_t>(information.active[i]);
      // The rules compare values with constants of their own, so they are told the value in its unit.
      const double unit = information.unit[i];
      const RESTRAINT_INPUT in{v.value / unit, delta[i], state.reference[at] / unit, state.step, v.type, v.role, v.constraint, share};
      RESTRAINT ruled = first_stage ? restrain_typed(in, state.last[at] / unit, 1e-7) : restrain_by_sign(in);
      const double short_of = std::fabs(ruled.value - (in.value + in.delta));
      ruled.value *= unit;
      ruled.reference *= unit;
      result[i] = ruled;
      if (short_of <= 1e-10) continue;
      const double measure = first_stage ? short_of : short_of / std::max(std::fabs(in.value), 1e-10);
      if (k >= many_parameters) cut.emplace_back(measure, i);
      if (worst == k || measure > worst_measure) {
        worst = i;
        worst_measure = measure;
      }
    }
    if (worst < k) restrain(worst);
    // Of very many parameters those that are cut back nearly as much go with it.
    for (const auto& [measure, i] : cut) {
      if (i != worst && measure > 0.5 * worst_measure) restrain(i);
    }
    return worst < k;
  };
  // One parameter is held at a time, the one that its rule cuts back most: with it held the others may well step away from zero,
  // or turn round, as the other parameter of ARMA(1,1) does on the ridge where the two are equal.  Once a variance is held at zero,
  // what was held because of the step that the variance had wanted is let go and judged anew; matrices that are kept in their space
  // only near the optimum, since the quadratic model does not reach to where the rules hold the others.
  const bool near_optimum = iteration > 1 && gain < near_gain;
  const std::vector<std::uint8_t> takes_part = open;
  std::vector<std::uint8_t> matrix(k, 0), of_residual(k, 0);
  for (bool held_more = true; held_more;) {
    for (std::size_t i = 0; i < k; ++i) {
      const bool again = matrix[i] ? near_optimum : of_residual[i] || in_first_stage(parameter(i).type);
      if (!takes_part[i] || open[i] || !again) continue;
      open[i] = 1;
      restrained[i] = matrix[i] = of_residual[i] = 0;
    }
    solve_step(information, open, taken, delta);
    const std::vector<std::uint8_t> unplaced = open;
    keep_rows_inside(information, model, state.definite, open, taken, delta);
    for (std::size_t i = 0; i < k; ++i) {
      if (unplaced[i] && !open[i]) matrix[i] = 1;
    }
    for (const auto& [i, value] : long_residual_steps(model, information, open, delta)) {
      result[i].value = value * information.unit[i];
      hold(i);
      of_residual[i] = 1;
    }
    while (pass(true)) {
    }
    held_more = false;
    while (pass(false)) held_more = true;
  }

  if (state.shortening == 0 && state.secants.latest.empty()) shorten_swing(information, plain, open, used, state.moved, delta);
  double largest_loading = 0.0;
  std::vector<double> moved(k, 0.0);  // in units
  state.growth_capped = false;
  for (std::size_t i = 0; i < k; ++i) {
    if (static_cast<std::int64_t>(i) == information.held_out || !used[i]) continue;
    VARIANCE_PARAMETER& v = parameter(i);
    if (!is_free(v.constraint)) continue;
    const auto at = static_cast<std::size_t>(information.active[i]);
    const double unit = information.unit[i];
    RESTRAINT& taken_by = result[i];
    if (!restrained[i]) taken_by.value = v.value + (open[i] ? delta[i] : taken[i]) * unit;
    if (restrained[i]) ++aiopt(Ai::restrained);
    if (taken_by.boundary) ++aiopt(Ai::boundary);
    if (taken_by.reset_step) state.step = state.saved_step;
    const bool grows = std::fabs(taken_by.value) > 10.0 * std::fabs(v.value) && std::fabs(v.value) < settled_ratio * unit;
    if (restrained[i] && grows) state.growth_capped = true;
    // By the step that is taken, which others may have changed that were held after the loading's turn.
    if (v.type == ParamType::L) largest_loading = std::max(largest_loading, loading_change(v.value / unit, (taken_by.value - v.value) / unit));
    const bool to_zero = v.role == ParamRole::variance && std::fabs(taken_by.value) < std::fabs(v.value);
    const bool to_one = v.type == ParamType::R && std::fabs(taken_by.value) > near_one;
    const bool pulled = restrained[i] && (to_zero || to_one);
    state.pulled[at] = pulled ? state.pulled[at] + 1 : 0;
    if (v.value != 0.0) state.change[at] = (taken_by.value - v.value) / v.value;
    state.largest_change = std::max(state.largest_change, std::fabs(state.change[at]));
    moved[i] = (taken_by.value - v.value) / unit;
    state.last[at] = v.value;
    v.value = taken_by.value;
    state.reference[at] = taken_by.reference_set ? taken_by.reference : v.value;
    if (taken_by.settled && !may_settle) {
      v.value = state.reference[at] = state.last[at];  // small enough, and its score may still turn round
    } else if (taken_by.settled) {
      v.constraint = Constraint::B;
      v.value = settled_value(model, information.active[i], v.value, unit);
    }
  }
  if (largest_loading > 0.1) ++aiopt(Ai::boundary);

  state.moved.assign(p, 0.0);
  for (std::size_t i = 0; i < k; ++i) state.moved[static_cast<std::size_t>(information.active[i])] = moved[i];

  // s'd - d'AI d/2 of the step d taken, the profiled residual variance following.
  state.expected_gain = 0.0;
  for (std::size_t i = 0; i < k; ++i) {
    const double step = static_cast<std::int64_t>(i) == information.held_out ? delta[i] : moved[i];
    double curvature = 0.0;
    for (std::size_t j = 0; j < k; ++j) {
      const double other = static_cast<std::int64_t>(j) == information.held_out ? delta[j] : moved[j];
      curvature += plain.at(static_cast<std::int64_t>(i), static_cast<std::int64_t>(j)) * other;
    }
    state.expected_gain += step * (plain.score[i] - 0.5 * curvature);
  }
}

}  // namespace tolvan
