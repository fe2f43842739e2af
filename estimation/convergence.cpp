#include "estimation/convergence.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace tolvan {
namespace {

constexpr double no_change = 1e-4;   // of LogL
constexpr double no_move = 0.01;     // of a parameter, relative
constexpr int still_enough = 3;
constexpr double bound_share = 1e-4;  // of its unit: a variance that is pulled to zero has got there

}  // namespace

bool is_at_bound(const VARIANCE_MODEL& model, const UPDATE_STATE& update, const EVALUATION& ev, std::size_t i)
{
  if (i >= update.pulled.size() || update.pulled[i] < 2) return false;
  if (model.parameters[i].type == ParamType::R) return true;
  const auto& active = ev.information.active;
  const auto at = std::lower_bound(active.begin(), active.end(), static_cast<std::int64_t>(i));
  if (at == active.end() || *at != static_cast<std::int64_t>(i)) return false;
  return std::fabs(ev.evaluated[i]) < bound_share * ev.information.unit[static_cast<std::size_t>(at - active.begin())];
}

bool parameters_settled(const VARIANCE_MODEL& model, const UPDATE_STATE& update, const EVALUATION& ev, double move)
{
  for (std::size_t i = 0; i < update.change.size(); ++i) {
    const bool held = static_cast<std::int64_t>(i) == model.residual_parameter && model.profiled;
    if (held || !is_free(model.parameters[i].constraint) || is_at_bound(model, update, ev, i)) continue;
    if (std::fabs(update.change[i]) > move) return false;
  }
  return true;
}

bool has_converged(std::int64_t n, double logl, double reset_step, FIT_WORK& work, CONVERGENCE& state)
{
  AIOPT& aiopt = work.aiopt;
  const double stable = logl + static_cast<double>(aiopt(Ai::boundary));
  const double d = std::fabs(logl - state.previous);
  const double d_stable = std::fabs(stable - state.previous_stable);
  const bool comparable = state.has_previous && n >= 2;
  state.previous = logl;
  state.previous_stable = stable;
  state.has_previous = true;
  // However many parameters their rules hold at a boundary: where nothing moves any more the fit is where it can go.
  state.still = comparable && d < no_change && work.update.largest_change < no_move ? state.still + 1 : 0;
  if (!comparable) return false;

  if (aiopt(Ai::restrained) / 10 + aiopt(Ai::boundary) <= 1) work.update.step = reset_step;
  if (state.trivial) return true;
  if (!state.simple && d < wide(0.005f) && work.update.step > wide(0.9f)) aiopt(Ai::restrained) /= 2;
  const std::int64_t thousandths = aiopt(Ai::step_thousandths);
  const bool standard = !state.simple && d < wide(0.002f) * static_cast<double>(n) && thousandths == 1000 &&
                        aiopt(Ai::restrained) <= 2 && aiopt(Ai::boundary) == 0;
  const bool simple = d_stable < wide(0.001f) && aiopt(Ai::restrained) <= 1 && std::llabs(thousandths - 1000) < 501;
  // Two evaluations may have the same LogL on either side of a ridge: the next step must not promise more either, and what was
  // better before must have been reached again.
  const double tolerance = wide(0.002f) * static_cast<double>(n);
  const bool at_top = work.update.expected_gain < tolerance && work.best_logl - logl < tolerance;
  return (((standard || simple) && at_top) || state.still >= still_enough) && !work.update.growth_capped;
}

double damp_towards_saved(const std::vector<double>& failed, VARIANCE_MODEL& model, FIT_WORK& work)
{
  double sum = 0.0;
  double count = 0.0;
  for (std::size_t i = 0; i < model.parameters.size(); ++i) {
    const double old = work.saved[i].value;
    VARIANCE_PARAMETER& v = model.parameters[i];
    v.constraint = work.saved[i].constraint;
    v.value = old;
    if (failed[i] == 0.0 || is_no_value(failed[i])) continue;
    if (failed[i] != old) v.value = wide(0.9f) * old + wide(0.1f) * failed[i];  // the two shares are not quite 1
    const double size = std::fabs(old) + std::fabs(v.value);
    if (size > 0.0) sum += std::fabs(v.value - old) / size;
    count += 1.0;
  }
  double mean = count > 0.0 ? sum / count : 0.0;
  if (work.update.step < 1.0) mean /= work.update.step;
  work.update.step = wide(0.1f);
  return mean;
}

}  // namespace tolvan
