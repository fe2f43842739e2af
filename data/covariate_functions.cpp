#include "data/covariate_functions.h"

#include <array>
#include <cmath>

namespace tolvan {

namespace {

constexpr double tolerance = 1e-09;       // of comparisons
constexpr double two_pi = 6.283185308;    // as the engine has always had it

double angle(double x, double period)
{
  return two_pi * x / (period == 0.0 ? two_pi : period);
}

struct Row {
  DesignKind kind;
  CovariateFunction function;
  bool compares;
};

constexpr std::array rows = {
    Row{DesignKind::pow, [](double x, double p, double o) { return std::pow(x + o, p); }, false},
    Row{DesignKind::sin, [](double x, double period, double) { return std::sin(angle(x, period)); }, false},
    Row{DesignKind::cos, [](double x, double period, double) { return std::cos(angle(x, period)); }, false},
    Row{DesignKind::sqr, [](double x, double, double) { return std::sqrt(x); }, false},
    Row{DesignKind::exp, [](double x, double, double) { return std::exp(x); }, false},
    Row{DesignKind::inv, [](double x, double, double) { return 1.0 / x; }, false},
    Row{DesignKind::log, [](double x, double, double) { return std::log(x); }, false},
    Row{DesignKind::abs, [](double x, double, double) { return std::abs(x); }, false},
    Row{DesignKind::agt, [](double x, double c, double) { return x > c + tolerance ? 1.0 : 0.0; }, true},
    Row{DesignKind::gt, [](double x, double c, double) { return x > c + tolerance ? 1.0 : 0.0; }, true},
    Row{DesignKind::alt, [](double x, double c, double) { return x < c - tolerance ? 1.0 : 0.0; }, true},
    Row{DesignKind::lt, [](double x, double c, double) { return x < c - tolerance ? 1.0 : 0.0; }, true},
    Row{DesignKind::hs, [](double x, double c, double) { return x >= c - tolerance ? 1.0 : 0.0; }, true},
    Row{DesignKind::ge, [](double x, double c, double) { return x >= c - tolerance ? 1.0 : 0.0; }, true},
    Row{DesignKind::le, [](double x, double c, double) { return x <= c + tolerance ? 1.0 : 0.0; }, true},
    Row{DesignKind::at, [](double x, double c, double) { return std::abs(x - c) <= tolerance ? 1.0 : 0.0; }, true},
    Row{DesignKind::at_sign, [](double x, double c, double) { return std::abs(x - c) <= tolerance ? 1.0 : 0.0; }, true},
};

}  // namespace

CovariateFunction covariate_function(DesignKind kind)
{
  for (const Row& row : rows)
    if (row.kind == kind) return row.function;
  return nullptr;
}

bool is_comparison(DesignKind kind)
{
  for (const Row& row : rows)
    if (row.kind == kind) return row.compares;
  return false;
}

}  // namespace tolvan
