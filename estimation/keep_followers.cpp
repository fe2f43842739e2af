// Parameters that a user's model makes of others, kept in their space.
#include "estimation/keep_followers.h"

#include <algorithm>
#include <cmath>

#include "varstruct/followers.h"

namespace tolvan {
namespace {

constexpr double shrinkage = 0.0949;        // what a step leaves of a variance, at the least
constexpr double way_to_one = 0.95;         // that a correlation may go in one step
constexpr double settled_gain = 1.0;        // of LogL, as for variances that settle at zero
constexpr int presses = 3;

/// Kinds of things that must not be mixed in a link.
int kind(ParamRole role) { return role == ParamRole::covariance ? static_cast<int>(ParamRole::variance) : static_cast<int>(role); }

/// The share of its step that a parameter may take, from `from` to `to`.
double allowed(const VARIANCE_PARAMETER& v, double from, double to)
{
  double limit = to;
  if (v.role == ParamRole::variance && from > 0.0) limit = std::max(to, shrinkage * from);
  if (v.role == ParamRole::correlation && std::fabs(from) < 1.0) {
    const double furthest = std::fabs(from) + way_to_one * (1.0 - std::fabs(from));
    limit = std::clamp(to, -furthest, furthest);
  }
  return limit == to ? 1.0 : (limit - from) / (to - from);
}

void tell_once(ERROR_HANDLER& eh)
{
  bool repeated = false;
  eh.EH_ADD_MESSAGE({.text = "Some VCM constrained parameters restrained to parameter space",
                     .etype = Etype::warning,
                     .unique = true,
                     .is_duplicate = &repeated});
  if (repeated) return;
  for (const char* line : {"Modelled parameters, sigma_m, derived from the VCM parameters",
                           "using sigma_m = M sigma_n, are restrained to their parameter space",
                           "and the VCM parameters, sigma_n, are therefore now fixed;",
                           "but they and related parameters are probably not at optimum values.",
                           "The VCM model should be reparametrized using the restrained", "parameters and fixing these.",
                           "Please ask Kelmoor for further details on how to overcome this challenge."}) {
    eh.continuation(line);
  }
}

}  // namespace

bool links_are_alike(const VARIANCE_MODEL& model)
{
  for (std::int64_t i = 0; i < model.count(); ++i) {
    const VARIANCE_PARAMETER& v = model.parameters[static_cast<std::size_t>(i)];
    if (!follows(v)) continue;
    for (const PARAMETER_SHARE& share : made_of(model, i)) {
      if (kind(model.parameters[static_cast<std::size_t>(share.of)].role) != kind(v.role)) return false;
    }
  }
  return true;
}

void keep_followers_inside(ERROR_HANDLER& eh, const std::vector<double>& evaluated, double gain, VARIANCE_MODEL& model, AIOPT& aiopt,
                           UPDATE_STATE& state)
{
  std::vector<std::int64_t> followers;
  for (std::int64_t i = 0; i < model.count(); ++i) {
    // One with a single master of positive coefficient is in its space as long as the master is.
    const VARIANCE_PARAMETER& v = model.parameters[static_cast<std::size_t>(i)];
    const bool with_master = v.sum < 0 && v.role == ParamRole::variance && v.coefficient > 0.0;
    if (follows(v) && !with_master && is_estimated(model, i)) followers.push_back(i);
  }
  std::vector<std::uint8_t> pressed(followers.size(), 0);
  for (std::size_t round = 0; round < followers.size() + 1; ++round) {
    // The one that must be held back most decides for what it is made of; the others are looked at again.
    double least = 1.0;
    std::size_t worst = followers.size();
    for (std::size_t f = 0; f < followers.size(); ++f) {
      const auto i = static_cast<std::size_t>(followers[f]);
      const double share = allowed(model.parameters[i], evaluated[i], value_of(model, followers[f]));
      if (share < 1.0 - 1e-12) pressed[f] = 1;
      if (share < least - 1e-12) {
        least = share;
        worst = f;
      }
    }
    if (worst == followers.size()) break;
    for (const PARAMETER_SHARE& share : made_of(model, followers[worst])) {
      const auto of = static_cast<std::size_t>(share.of);
      VARIANCE_PARAMETER& v = model.parameters[of];
      if (!is_free(v.constraint)) continue;
      v.value = evaluated[of] + least * (v.value - evaluated[of]);
      state.reference[of] = v.value;
      if (evaluated[of] != 0.0) state.change[of] = (v.value - evaluated[of]) / evaluated[of];
    }
  }
  for (std::size_t f = 0; f < followers.size(); ++f) {
    int& pulled = state.pulled[static_cast<std::size_t>(followers[f])];
    pulled = pressed[f] ? pulled + 1 : 0;
    if (pressed[f]) ++aiopt(Ai::restrained);
    if (pulled < presses || std::fabs(gain) >= settled_gain) continue;
    for (const PARAMETER_SHARE& share : made_of(model, followers[f])) {
      VARIANCE_PARAMETER& v = model.parameters[static_cast<std::size_t>(share.of)];
      if (is_free(v.constraint)) v.constraint = Constraint::F;
    }
    tell_once(eh);
  }
}

}  // namespace tolvan
