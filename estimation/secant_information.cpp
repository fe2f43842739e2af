// The average information is the mean of the observed and the expected one.  Where the two differ, steps made from it go to and fro
// or creep.  The scores of successive evaluations show the observed curvature along the steps taken; by as much as it differs from the
// mean of their informations the information of now is corrected along these steps, and left as it is elsewhere.
#include "estimation/secant_information.h"

#include <algorithm>
#include <cmath>

#include "estimation/update_parameters.h"

namespace tolvan {
namespace {

constexpr std::size_t most_secants = 5;
constexpr double near_gain = 0.1;        // of LogL
constexpr double alike = 0.15;           // the information is right enough about a step
constexpr double least_curvature = 0.2;  // of what the information promises along a step
constexpr double most_curvature = 5.0;

/// AI s, the profiled residual variance following; 0 for itself.
std::vector<double> times_step(const INFORMATION& information, const std::vector<double>& ai, const std::vector<double>& s)
{
  const std::int64_t k = information.count(), h = information.held_out;
  const auto at = [&](std::int64_t i, std::int64_t j) {
    return ai[static_cast<std::size_t>(i >= j ? i * (i + 1) / 2 + j : j * (j + 1) / 2 + i)];
  };
  std::vector<double> out(s.size(), 0.0);
  double follows = 0.0;
  for (std::int64_t j = 0; h >= 0 && at(h, h) > 0.0 && j < k; ++j) follows += at(h, j) * s[static_cast<std::size_t>(j)] / at(h, h);
  for (std::int64_t i = 0; i < k; ++i) {
    if (i == h) continue;
    double& sum = out[static_cast<std::size_t>(i)];
    for (std::int64_t j = 0; j < k; ++j) sum += at(i, j) * s[static_cast<std::size_t>(j)];
    if (h >= 0) sum -= at(i, h) * follows;
  }
  return out;
}

}  // namespace

void add_secant(const VARIANCE_MODEL& model, const INFORMATION& information, double gain, SECANTS& secants)
{
  const auto k = static_cast<std::size_t>(information.count());
  std::vector<double> value(k);
  for (std::size_t i = 0; i < k; ++i) value[i] = model.parameters[static_cast<std::size_t>(information.active[i])].value;
  if (secants.active != information.active || !(std::fabs(gain) <= near_gain)) {
    secants.latest.clear();
  } else {
    SECANT secant{std::vector<double>(k, 0.0), std::vector<double>(k, 0.0)};
    for (std::size_t i = 0; i < k; ++i) {
      if (static_cast<std::int64_t>(i) != information.held_out) secant.step[i] = value[i] - secants.value[i];
    }
    const std::vector<double> then = times_step(information, secants.ai, secant.step);
    const std::vector<double> now = times_step(information, information.ai, secant.step);
    for (std::size_t i = 0; i < k; ++i) {
      if (static_cast<std::int64_t>(i) == information.held_out) continue;
      secant.excess[i] = secants.score[i] - information.score[i] - 0.5 * (then[i] + now[i]);
    }
    if (secants.latest.size() == most_secants) secants.latest.erase(secants.latest.begin());
    secants.latest.push_back(std::move(secant));
  }
  secants.active = information.active;
  secants.value = std::move(value);
  secants.score = information.score;
  secants.ai = information.ai;
}

void correct_by_secants(const SECANTS& secants, INFORMATION& information)
{
  const auto k = static_cast<std::size_t>(information.count());
  const std::vector<double> plain = secants.latest.empty() ? std::vector<double>{} : information.ai;
  std::vector<double> s(k);
  for (const SECANT& secant : secants.latest) {
    for (std::size_t i = 0; i < k; ++i) s[i] = secant.step[i] / information.unit[i];
    std::vector<double> y = times_step(information, plain, s);
    const std::vector<double> bs = times_step(information, information.ai, s);
    double sbs = 0.0, sy = 0.0, unlike = 0.0;
    for (std::size_t i = 0; i < k; ++i) {
      y[i] += secant.excess[i] * information.unit[i];
      sbs += s[i] * bs[i];
      sy += s[i] * y[i];
      const double own = information.at(static_cast<std::int64_t>(i), static_cast<std::int64_t>(i));
      if (own > 0.0) unlike += (y[i] - bs[i]) * (y[i] - bs[i]) / own;
    }
    if (!(sbs > 0.0) || !std::isfinite(sy) || sy > most_curvature * sbs) continue;
    if (unlike < alike * alike * sbs) continue;
    if (sy < least_curvature * sbs) {
      const double share = (1.0 - least_curvature) * sbs / (sbs - sy);
      sy = 0.0;
      for (std::size_t i = 0; i < k; ++i) {
        y[i] = share * y[i] + (1.0 - share) * bs[i];
        sy += s[i] * y[i];
      }
    }
    for (std::size_t i = 0; i < k; ++i) {
      for (std::size_t j = 0; j <= i; ++j)
        information.at(static_cast<std::int64_t>(i), static_cast<std::int64_t>(j)) += y[i] * y[j] / sy - bs[i] * bs[j] / sbs;
    }
  }
}

}  // namespace tolvan
