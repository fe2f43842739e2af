// The parameters of the component models with their default values.
#include "varstruct/structure_parameters.h"

#include <algorithm>
#include <cmath>

#include "base/numbers.h"
#include "varstruct/covariance_models.h"

namespace tolvan {

namespace {

constexpr double series_start = wide(0.1f);       // series and distances
constexpr double correlation_start = wide(0.3f);  // uniform, banded and general correlations
constexpr double single_variance = wide(0.9f);    // of g, for the one variance of a v form

using Parameters = std::vector<VARIANCE_PARAMETER>;

/// Cell (i, j) of a lower triangle by rows, both from 1, j at most i; counted from 0.
std::size_t cell(std::int64_t i, std::int64_t j)
{
  return static_cast<std::size_t>(i * (i - 1) / 2 + j - 1);
}

VARIANCE_PARAMETER parameter(double value, ParamType type, ParamRole role)
{
  VARIANCE_PARAMETER p;
  p.value = value;
  p.type = type;
  p.role = role;
  return p;
}

void fix(VARIANCE_PARAMETER& p, double value)
{
  p.value = value;
  p.constraint = Constraint::F;
}

/// A covariance matrix to start from: half that of the traits where the sizes agree, else a twentieth of the
/// unit with correlations of a fifth.
std::vector<double> starting_covariance(std::int64_t n, const DEFAULT_BASE& from)
{
  std::vector<double> v(cell(n, n) + 1);
  const std::int64_t traits = from.starting != nullptr ? trait_count(*from.starting) : 1;
  for (std::int64_t i = 1; i <= n; ++i) {
    for (std::int64_t j = 1; j <= i; ++j) {
      v[cell(i, j)] = traits > 1 && n == traits ? 0.5 * (*from.starting)[cell(i, j)]
                                                : (i == j ? wide(0.05f) : wide(0.01f)) * from.unit;
    }
  }
  return v;
}

/// The triangle of CHOL: a small multiple of the square root of g, ratios free of the unit.
std::vector<double> cholesky_factors(std::int64_t n, const DEFAULT_BASE& from)
{
  const double root = std::sqrt(from.base / from.unit);
  std::vector<double> v(cell(n, n) + 1, wide(0.2f) * root);
  const std::int64_t traits = from.starting != nullptr ? trait_count(*from.starting) : 1;
  if (traits > 1 && n <= traits) {
    for (std::size_t c = 0; c < v.size(); ++c)
      v[c] = wide(0.2f) * (*from.starting)[c] / from.starting->front();
  }
  for (std::int64_t i = 1; i <= n; ++i) v[cell(i, i)] = wide(0.3f) * root * from.unit;
  return v;
}

/// Keeps the second and later factors apart at the start; position counted from 1, of a row with m specifics
/// in front.
double apart(std::int64_t position, std::int64_t m)
{
  if (position < m + 3) return 1.0;
  return wide(0.2f) * (static_cast<double>(position % 4) - 1.5) * (static_cast<double>(position % 7) - 2.5);
}

/// Loadings of m levels by k factors, factor by factor.
void add_loadings(std::int64_t m, std::int64_t k, double value, ParamType type, ParamRole role,
                  Parameters& out)
{
  for (std::int64_t c = 1; c <= m * k; ++c)
    out.push_back(parameter(value * (k > 1 ? apart(m + c, m) : 1.0), type, role));
}

/// Loadings on the correlation scale: the first factor at 0.3, the others at 0.1 and kept apart.
void add_correlation_loadings(std::int64_t n, std::int64_t k, Parameters& out)
{
  for (std::int64_t c = 1; c <= n * k; ++c) {
    const double value = c <= n ? wide(0.3f) : wide(0.1f) * apart(n + c, n);
    out.push_back(parameter(value, ParamType::R, ParamRole::correlation));
  }
}

void add(Parameters& out, std::int64_t count, double value, ParamType type, ParamRole role)
{
  for (std::int64_t i = 0; i < count; ++i) out.push_back(parameter(value, type, role));
}

/// A triangle: its diagonal and what is below it.
void add_triangle(std::int64_t n, const std::vector<double>& values, ParamType diagonal,
                  ParamRole diagonal_role, ParamRole below, Parameters& out)
{
  for (std::int64_t i = 1; i <= n; ++i) {
    for (std::int64_t j = 1; j <= i; ++j) {
      out.push_back(i == j ? parameter(values[cell(i, j)], diagonal, diagonal_role)
                           : parameter(values[cell(i, j)], ParamType::C, below));
    }
  }
}

/// Elements of a triangle below its k bands are zero and stay so.
void cut_band(std::int64_t n, std::int64_t k, Parameters& out)
{
  for (std::int64_t i = 1; i <= n; ++i) {
    for (std::int64_t j = 1; j < i - k; ++j) fix(out[cell(i, j)], 0.0);
  }
}

bool is_triangular_factor(const COMPONENT_MODEL& model)
{
  return model.code == 11 || model.code == 12;
}

}  // namespace

std::int64_t trait_count(const std::vector<double>& starting)
{
  std::int64_t t = 0;
  while ((t + 1) * (t + 2) / 2 + 1 <= static_cast<std::int64_t>(starting.size())) ++t;
  return t;
}

Parameters default_parameters(const COMPONENT_MODEL& model, std::int64_t n, std::int64_t k,
                              std::int64_t variances, const DEFAULT_BASE& from)
{
  Parameters out;
  const ParamType v = from.gamma ? ParamType::G : ParamType::V;
  const double g = from.base;
  const std::int64_t own = own_parameters(model, n, k);
  switch (model.code) {
    case 1:   // AR
    case 2:   // MA
    case 3:   // ARMA
    case 14:  // SAR
      add(out, own, series_start, ParamType::R, ParamRole::correlation);
      break;
    case 5:  // CORU, CORB, CORG
      add(out, own, correlation_start, ParamType::R, ParamRole::correlation);
      if (model.rule == ParameterRule::bands) {
        for (std::int64_t b = k; b < own; ++b) fix(out[static_cast<std::size_t>(b)], 0.0);
      }
      break;
    case 6:  // the metric family
      if (model.sub_code == 9) {
        add(out, own, series_start, ParamType::u, ParamRole::other);
      } else if (model.types == "R" || model.types == "RG") {  // powers
        add(out, 1, series_start, ParamType::R, ParamRole::correlation);
        add(out, own - 1, series_start, ParamType::G, ParamRole::other);
      } else {  // a range, and a sill where there are two
        add(out, own, series_start, ParamType::G, ParamRole::other);
      }
      break;
    case 7:  // OWN: nobody but the user's program knows what they are
      add(out, own, series_start, ParamType::G, ParamRole::other);
      break;
    case 8:  // DIAG
      add(out, own, wide(0.2f) * g, v, ParamRole::variance);
      break;
    case 9:  // US
      add_triangle(n, starting_covariance(n, from), v, ParamRole::variance, ParamRole::covariance, out);
      break;
    case 10: {  // FA
      const std::int64_t factors = std::min(k, n - 1);
      add_correlation_loadings(n, factors, out);
      add(out, n, g, v, ParamRole::variance);
      break;
    }
    case 11:  // CHOL
      add_triangle(n, cholesky_factors(n, from), v, ParamRole::variance, ParamRole::correlation, out);
      cut_band(n, k, out);
      break;
    case 12: {  // ANTE: a covariance matrix, taken apart
      std::vector<double> factors = starting_covariance(n, from);
      if (!antedependence_from_covariance(n, k, factors)) {  // of traits that depend on each other
        for (std::int64_t i = 1; i <= n; ++i) {
          for (std::int64_t j = 1; j < i; ++j) factors[cell(i, j)] = 0.0;
          factors[cell(i, i)] = 1.0 / std::max(factors[cell(i, i)], 1e-300);
        }
      }
      add_triangle(n, factors, v, ParamRole::precision, ParamRole::correlation, out);
      cut_band(n, k, out);
      break;
    }
    case 13: {  // FACV
      const std::int64_t factors = std::min(k, n - 1);
      add_loadings(n, factors, std::sqrt(wide(0.04f) * g), ParamType::L, ParamRole::loading, out);
      add(out, n, 0.1 * g, v, ParamRole::variance);
      break;
    }
    case 15: {  // XFA: m specifics, then the loadings
      const std::int64_t factors = std::min(k, n);
      add(out, n - factors, 0.1 * g, v, ParamRole::variance);
      add_loadings(n - factors, factors, std::sqrt(wide(0.04f) * g), ParamType::L, ParamRole::loading, out);
      break;
    }
    default:
      break;  // identities and known matrices have none of their own
  }
  add(out, variances, variances == 1 ? single_variance * g : g, v, ParamRole::variance);
  return out;
}

bool lay_values(const COMPONENT_MODEL& model, std::int64_t n, const std::vector<double>& given, bool scalar,
                Parameters& parameters)
{
  if (given.empty()) return true;
  const auto put = [](VARIANCE_PARAMETER& p, double x) {
    if (!is_no_value(x)) p.value = x;
  };
  if (given.size() == parameters.size()) {
    for (std::size_t i = 0; i < given.size(); ++i) put(parameters[i], given[i]);
    // What lies outside a band is zero whatever the user says.
    for (VARIANCE_PARAMETER& p : parameters) {
      if (p.constraint == Constraint::F &&
          (model.rule == ParameterRule::bands || is_triangular_factor(model)))
        p.value = 0.0;
    }
    return true;
  }
  const auto inside = static_cast<std::size_t>(
      std::count_if(parameters.begin(), parameters.end(),
                    [](const VARIANCE_PARAMETER& p) { return is_free(p.constraint); }));
  if (given.size() == inside && model.sub_code != 9) {
    std::size_t i = 0;
    for (VARIANCE_PARAMETER& p : parameters) {
      if (is_free(p.constraint)) put(p, given[i++]);
    }
    return true;
  }
  if (!scalar || given.size() != 1) return false;
  const double x = given.front();
  if (is_triangular_factor(model)) {
    for (std::int64_t i = 1; i <= n; ++i) {
      for (std::int64_t j = 1; j <= i; ++j) put(parameters[cell(i, j)], i == j ? x : 0.0);
    }
    return true;
  }
  for (VARIANCE_PARAMETER& p : parameters) {
    const bool first_kind = p.role == ParamRole::correlation || p.role == ParamRole::loading;
    if (first_kind && is_free(p.constraint)) put(p, x);
  }
  return true;
}

void lay_matern_arguments(const std::vector<double>& arguments, Parameters& parameters)
{
  constexpr double defaults[] = {series_start, 0.5, 1.0, 0.0, 2.0};
  constexpr ParamType types[] = {ParamType::p, ParamType::n, ParamType::d, ParamType::a, ParamType::u};
  for (std::size_t i = 0; i < 5 && i < parameters.size(); ++i) {
    const bool given = i < arguments.size() && !is_no_value(arguments[i]);
    VARIANCE_PARAMETER& p = parameters[i];
    p.value = given ? arguments[i] : defaults[i];
    p.type = types[i];
    p.constraint = i == 0 || (given && i < 4) ? Constraint::P : Constraint::F;
  }
}

bool holds_variance(const STRUCTURE_ROW& row)
{
  const bool of_variances = row.model >= 7 && row.model <= 15 && row.model != 14;
  if (of_variances) return row.parameters > 0;
  if (row.parameters == 0) return false;
  const COMPONENT_MODEL& model = component_models[static_cast<std::size_t>(row.selector)];
  return row.parameters > own_parameters(model, row.size, row.order);
}

}  // namespace tolvan
