#include "estimation/restraints.h"

#include <algorithm>
#include <cmath>

#include "base/numbers.h"

namespace tolvan {
namespace {

constexpr double sqrt_250 = 15.81138801574707;  // the single-precision square root of 250
constexpr double shrink = 1.5 / sqrt_250;       // what a variance keeps of itself when it would pass zero

bool may_cross_zero(ParamRole role) { return role == ParamRole::covariance || role == ParamRole::correlation; }

/// A variance whose step would take it to zero or below.
RESTRAINT pulled_through_zero(const RESTRAINT_INPUT& in, double n)
{
  const double x = in.value;
  const double r = in.reference;
  const double noise = std::sqrt(std::fabs(n));
  RESTRAINT out{.value = x, .reference = r};
  if (0.1 * noise < x || (x > wide(0.0001f) && in.step < wide(0.99f))) {
    out.value = shrink * x;
  } else if (x < noise && (in.type == ParamType::u || in.constraint == Constraint::U)) {
    out.value = -x * in.step;
  } else if (in.constraint < Constraint::U && in.type < ParamType::R) {
    if (r > 1e-9) out.value = shrink * x;
    const double measure = std::nearbyint(10000.0 * (n / sqrt_250 - r) / noise);
    if ((measure == 0.0 && r < 0.0001 * noise) || r < 1e-6 || (in.constraint == Constraint::Z && r < 1e-5)) {
      out.reference = out.value;
      out.reference_set = true;
      out.settled = true;
    }
  } else if (in.constraint != Constraint::none || in.type > ParamType::G) {
    out.value = x + 0.2 * std::max(in.delta, -0.5);
  } else {
    out.reference = 0.1 * x;
    out.reference_set = true;
  }
  return out;
}

/// A parameter that is below zero now.
double step_from_negative(const RESTRAINT_INPUT& in, double n)
{
  const double x = in.value;
  const double delta = in.delta;
  if (in.type > ParamType::R) {
    const double limit = std::fabs(100.0 * x);
    return x + std::clamp(delta, -limit, limit);
  }
  double value = n;
  if (x <= -0.99) {
    if (delta < 0.0) value = 0.7 * delta + x;
  } else if (x >= delta) {
    value = 0.5 * delta + x;
    if (n < -0.99) value = std::max(value, -0.99);
  }
  return std::max(value, 10.0 * x);
}

}  // namespace

double loading_change(double x, double delta)
{
  const double size = std::max(0.3 * std::sqrt(std::fabs(x + delta)), std::fabs(x));
  return size > 0.0 ? std::fabs(delta) / size : 0.0;
}

bool in_first_stage(ParamType type)
{
  return type == ParamType::R || type == ParamType::P || type == ParamType::L || type == ParamType::r;
}

RESTRAINT restrain_typed(const RESTRAINT_INPUT& in, double last, double lower)
{
  const double x = in.value;
  RESTRAINT out{.value = x + in.delta, .reference = in.reference};
  if (in.type == ParamType::R) {
    const double r = in.reference == 0.0 ? 0.1 : in.reference;
    double n = x + std::clamp(in.delta, wide(-0.12f), wide(0.2f));
    if (std::fabs(n) < wide(1e-5f)) n = 0.1 * r;
    if (n / r < -0.5) {
      n = -r;
      out.reset_step = true;
    } else if (std::fabs(n) > std::fabs(r) && std::fabs(r) >= std::fabs(last) && std::fabs(last) >= wide(0.994f)) {
      n = r;
    } else {
      // No further than two thirds of the way to the bound.
      const double furthest = std::fabs(r) + in.share * (1.0 - std::fabs(r)) * (2.0 / 3.0);
      if (std::fabs(n) > furthest) n = std::copysign(furthest, n);
    }
    out.value = n;
  } else if (in.type == ParamType::P) {
    const double r = in.reference;
    if (out.value > 0.999) {
      out.value = 0.1 * r + 0.8999099761605263;
      out.boundary = r > 0.999;
    } else if (out.value < 0.0) {
      out.value = 0.1 * r;
      out.boundary = r < 2e-7;
    }
  } else if (in.type == ParamType::r && out.value < lower) {
    out.value = (x + 2.0 * lower) / 3.0;
  }
  return out;
}

RESTRAINT restrain_by_sign(const RESTRAINT_INPUT& in)
{
  const double x = in.value;
  const double n = x + in.delta;
  RESTRAINT out{.value = n, .reference = in.reference};
  if (x == 0.0) {
    out.value = in.delta / 3.0;
  } else if (x < 0.0) {
    out.value = step_from_negative(in, n);
  } else if (in.delta > 0.0) {
    out.value = std::min(n, sqrt_250 * x);
  } else if (n > 0.0) {
    out.value = std::max(n, shrink * x);
  } else if (may_cross_zero(in.role)) {
    out.value = std::max(n, -0.3 * x);
  } else {
    return pulled_through_zero(in, n);
  }
  return out;
}

}  // namespace tolvan
