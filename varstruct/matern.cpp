// The Matern correlation of two points, with its derivatives.
#include "varstruct/matern.h"

#include <algorithm>
#include <boost/math/special_functions/bessel.hpp>
#include <cmath>

#include "varstruct/form_row.h"

namespace tolvan {

namespace {

struct LIMITS {
  double otherwise, least, most;
};
// phi, nu, delta, alpha, lambda
constexpr std::array<LIMITS, 5> limits = {LIMITS{1.0, 1e-7, 1e300},
                                          {0.5, 0.02, 10.0},
                                          {1.0, 0.001, 1000.0},
                                          {0.0, -3.141592654, 3.141592654},
                                          {2.0, 1.0, 2.0}};
enum { PHI, NU, DELTA, ALPHA, LAMBDA };
constexpr double circle = 6.283185307179586;
constexpr double nu_step = 1e-4;
constexpr double beyond = 700.0;  // K underflows

// K is asked for where it may overflow; that gives infinity, not an exception.
using Quiet = boost::math::policies::policy<
    boost::math::policies::overflow_error<boost::math::policies::ignore_error>,
    boost::math::policies::underflow_error<boost::math::policies::ignore_error>,
    boost::math::policies::domain_error<boost::math::policies::ignore_error>,
    boost::math::policies::pole_error<boost::math::policies::ignore_error>,
    boost::math::policies::evaluation_error<boost::math::policies::ignore_error>,
    boost::math::policies::promote_double<false>>;

double sign(double x)
{
  return x > 0.0 ? 1.0 : x < 0.0 ? -1.0 : 0.0;
}

// 2^(1-nu) / Gamma(nu)
double constant(double nu)
{
  return std::exp2(1.0 - nu) / std::tgamma(nu);
}

// z^nu K_order(z), infinite or no number where z is so small that K overflows
double power_bessel(double nu, double order, double z)
{
  return z > beyond ? 0.0 : std::pow(z, nu) * boost::math::cyl_bessel_k(order, z, Quiet());
}

// M at z
double smooth(double nu, double c, double z)
{
  const double m = c * power_bessel(nu, nu, z);
  return std::isfinite(m) ? m : 1.0;
}

}  // namespace

void MATERN::take(FORM_CONTEXT& context, std::int64_t count)
{
  std::array<double, 5> theta{};
  derivative_ = {};
  for (std::size_t k = 0; k < theta.size(); ++k) {
    theta[k] = limits[k].otherwise;
    if (static_cast<std::int64_t>(k) >= count) continue;
    VARIANCE_PARAMETER& p = parameter(context, static_cast<std::int64_t>(k));
    // An angle beyond its limits is the same as one turned back by whole circles; all others stop there.
    if (k == ALPHA && std::fabs(p.value) > limits[k].most) p.value = std::remainder(p.value, circle);
    p.value = std::min(std::max(p.value, limits[k].least), limits[k].most);
    if (k == LAMBDA && p.value != 1.0) p.value = limits[k].otherwise;
    theta[k] = p.value;
    derivative_[k] = k != LAMBDA && p.constraint != Constraint::F;
  }
  phi_ = theta[PHI];
  nu_ = theta[NU];
  for (std::size_t k = 0; k < c_.size(); ++k)
    c_[k] = constant(nu_ + (static_cast<double>(k) - 1.0) * nu_step);
  delta_ = theta[DELTA];
  cosine_ = std::cos(theta[ALPHA]);
  sine_ = std::sin(theta[ALPHA]);
  city_block_ = theta[LAMBDA] == 1.0;
}

double MATERN::value(double hx, double hy, bool derivatives, std::array<double, 5>& out) const
{
  const double u = cosine_ * hx + sine_ * hy, v = -sine_ * hx + cosine_ * hy;
  const double d = city_block_ ? delta_ * std::fabs(u) + std::fabs(v) / delta_
                               : std::sqrt(delta_ * u * u + v * v / delta_);
  const double z = d / phi_;
  if (derivatives) out.fill(0.0);
  if (z == 0.0) return 1.0;
  const bool exponential = nu_ == 0.5;
  const double m = exponential ? std::exp(-z) : smooth(nu_, c_[1], z);
  if (!derivatives) return m;

  // dM/dz = -c z^nu K_{|nu - 1|}(z)
  double slope = exponential ? -m : -c_[1] * power_bessel(nu_, std::fabs(nu_ - 1.0), z);
  if (!std::isfinite(slope)) slope = 0.0;
  out[PHI] = -slope * z / phi_;
  const double outer = slope / phi_;
  if (derivative_[DELTA]) {
    out[DELTA] = city_block_ ? outer * (std::fabs(u) - std::fabs(v) / (delta_ * delta_))
                             : outer * (u * u - v * v / (delta_ * delta_)) / (2.0 * d);
  }
  if (derivative_[ALPHA]) {
    out[ALPHA] = city_block_ ? outer * (delta_ * sign(u) * v - sign(v) * u / delta_)
                             : outer * (delta_ - 1.0 / delta_) * u * v / d;
  }
  if (derivative_[NU])
    out[NU] = (smooth(nu_ + nu_step, c_[2], z) - smooth(nu_ - nu_step, c_[0], z)) / (2.0 * nu_step);
  return m;
}

}  // namespace tolvan
