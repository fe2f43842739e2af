// How the parameters of series models are kept in their space.
#include "varstruct/series_bounds.h"

#include <algorithm>
#include <cmath>

#include "base/numbers.h"

namespace tolvan {

namespace {

constexpr double inside = 0.95;            // of the limit of ar1(): a start beyond it
constexpr double sum_limit = wide(0.99f);
constexpr double sum_margin = wide(0.01f);
constexpr double root_limit = wide(0.995f);
constexpr double shrink = wide(0.99f);
constexpr int most_shrinks = 1000;
constexpr double ma_limit = wide(0.99f);
constexpr double ma_target = 0.995;
constexpr double arma_limit = 0.999;
constexpr double arma_gap = 0.001;
constexpr double arma_start_gap = 0.1;
constexpr double arma_step = wide(1.01f);
constexpr double nothing = 1e-30;  // a theta that the step would hardly move

// The size of the largest partial autocorrelation of a third-order recursion, by Levinson's recursion run
// backwards.
double largest_partial(double a, double b, double c)
{
  const double third = std::fabs(c);
  if (!(third < 1.0)) return third;
  const double s = 1.0 - c * c;
  const double first = (a + c * b) / s, second = (b + c * a) / s;
  if (!(std::fabs(second) < 1.0)) return std::fabs(second);
  return std::max({third, std::fabs(second), std::fabs(first / (1.0 - second))});
}

}  // namespace

void bound_ar1(const FORM_CONTEXT& context, VARIANCE_PARAMETER& rho)
{
  if (!(std::fabs(rho.value) >= context.ar_limit)) return;
  if (context.iteration == 1 && is_free(rho.constraint)) {
    rho.value = std::copysign(inside * context.ar_limit, rho.value);
    return;
  }
  rho.value = std::copysign(context.ar_limit, rho.value);
  rho.constraint = Constraint::B;
}

void bound_pair(double& a, double& b)
{
  for (const double sign : {1.0, -1.0}) {
    const double size = std::fabs(b + sign * a);
    if (!(size > sum_limit)) continue;
    a /= size + sum_margin;
    b /= size + sum_margin;
  }
}

void bound_triple(double& a, double& b, double& c)
{
  for (const double sign : {1.0, -1.0}) {
    const double size = std::fabs(b + sign * (a + c));
    if (!(size > sum_limit)) continue;
    for (double* x : {&a, &b, &c}) *x /= size + sum_margin;
  }
  for (int k = 0; k < most_shrinks && largest_partial(a, b, c) >= sum_limit; ++k)
    for (double* x : {&a, &b, &c}) *x *= shrink;
}

void bound_root(double& g)
{
  const double size = std::fabs(g);
  if (size > root_limit) g /= size + sum_margin;
}

void bound_ma1(double& theta)
{
  const double size = std::fabs(theta);
  if (size > ma_limit) theta *= ma_target / size;
}

void bound_arma(double& phi, double& theta, bool first_iteration)
{
  for (double* x : {&phi, &theta})
    if (std::fabs(*x) > arma_limit) *x = std::copysign(arma_limit, *x);
  if (!(std::fabs(phi - theta) < arma_gap)) return;
  if (std::fabs(theta) < nothing) theta = arma_gap;
  const double gap = first_iteration ? arma_start_gap : arma_gap;
  while (std::fabs(phi - theta) < gap) theta *= arma_step;
}

}  // namespace tolvan
