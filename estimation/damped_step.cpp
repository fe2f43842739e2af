// The joint Newton step, damped where it would go further than the information can be trusted.
#include "estimation/damped_step.h"

#include <algorithm>
#include <cmath>

#include "estimation/newton_step.h"

namespace tolvan {
namespace {

constexpr double least_damping = 0.01;
constexpr double most_damping = 1e6;
constexpr double growth_of_damping = 3.0;
constexpr double furthest_correlation = 0.4;  // that a correlation may want to go in one step
// A loading may grow by its own size and half a unit, and shrink by half its size and a third of a unit.
constexpr double loading_growth = 1.0;
constexpr double least_growth = 0.5;
constexpr double loading_fall = 0.5;
constexpr double least_fall = 0.3;

/// What wants to go further than the information can be trusted.
enum class Runaway { none, correlation, loading };

/// Elements of matrices that are placed as a whole are left out.  Values and steps in units, where a loading of 1 gives a record as much variance as the residual.
Runaway runaway(const INFORMATION& information, const VARIANCE_MODEL& model, const std::vector<std::uint8_t>& open,
                const std::vector<std::uint8_t>& placed, const std::vector<double>& delta)
{
  Runaway found = Runaway::none;
  for (std::size_t i = 0; i < delta.size(); ++i) {
    const VARIANCE_PARAMETER& v = model.parameters[static_cast<std::size_t>(information.active[i])];
    if (!open[i] || placed[i]) continue;
    if (v.type == ParamType::R && std::fabs(delta[i]) > furthest_correlation) found = Runaway::correlation;
    if (v.type != ParamType::L) continue;
    const double x = v.value / information.unit[i];
    const double up = x < 0.0 ? -delta[i] : delta[i];
    if (up > loading_growth * std::fabs(x) + least_growth || -up > loading_fall * std::fabs(x) + least_fall) return Runaway::loading;
  }
  return found;
}

/// Adds the share `damping` of its own information to every diagonal element: of what is left when the profiled residual variance
/// has been taken out, since a step along with that variance would be cut by far more than it is meant to be.
template <class Chosen>
void add_to_diagonal(double damping, Chosen chosen, INFORMATION& information)
{
  const std::int64_t h = information.held_out;
  const double own = h >= 0 ? information.at(h, h) : 0.0;
  for (std::int64_t i = 0; i < information.count(); ++i) {
    if (i == h || !chosen(static_cast<std::size_t>(i))) continue;
    const double with = own > 0.0 ? information.at(i, h) * information.at(i, h) / own : 0.0;
    information.at(i, i) += damping * std::max(information.at(i, i) - with, 0.0);
  }
}

}  // namespace

void damped_step(const VARIANCE_MODEL& model, int shortening, const std::vector<std::uint8_t>& open,
                 const std::vector<std::uint8_t>& placed, INFORMATION& information, std::vector<double>& delta)
{
  const auto all = [](std::size_t) { return true; };
  const auto correlations = [&](std::size_t i) {
    return model.parameters[static_cast<std::size_t>(information.active[i])].type == ParamType::R;
  };
  if (shortening > 0) {
    for (double& s : information.score) s *= std::ldexp(1.0, -shortening);
    add_to_diagonal(least_damping * std::ldexp(1.0, std::min(2 * (shortening - 1), 26)), all, information);
  }
  const std::vector<double> none(delta.size(), 0.0);
  const INFORMATION plain = information;
  double damping = 0.0;
  bool loadings = false;  // where loadings run away the whole step is damped, variances included: they make up for each other
  for (;;) {
    solve_step(information, open, none, delta);
    const Runaway found = damping < most_damping ? runaway(information, model, open, placed, delta) : Runaway::none;
    if (found == Runaway::none) return;
    loadings = loadings || found == Runaway::loading;
    damping = std::max(growth_of_damping * damping, least_damping);
    information = plain;
    if (loadings) {
      add_to_diagonal(damping, all, information);
    } else {
      add_to_diagonal(damping, correlations, information);
    }
  }
}

}  // namespace tolvan
