#include "estimation/final_results.h"

#include <algorithm>
#include <cmath>

#include "estimation/convergence.h"
#include "estimation/outliers.h"
#include "varstruct/followers.h"

namespace tolvan {
namespace {


/// Solutions in model order with what was taken off response and covariates given back, and their standard errors.
void effects(const FIT_MODEL& in, const MIXED_EQUATIONS& q, const EVALUATION& ev, FIT_STATE& fit)
{
  const auto n = static_cast<std::size_t>(q.n);
  fit.solution.assign(n, 0.0);
  fit.se.assign(n, 0.0);
  const bool with_inverse = !ev.inverse_diagonal.empty();
  for (std::size_t e = 0; e < n; ++e) {
    const auto p = static_cast<std::size_t>(q.position[e]);
    fit.solution[e] = q.factor.reciprocal[p] != 0.0 ? ev.solution[p] : 0.0;  // a singular one is 0, not -0
    fit.se[e] = with_inverse ? std::sqrt(std::max(0.0, ev.sigma2 * ev.inverse_diagonal[p])) : no_value;
  }
  // An estimated response has the offset of its record, and the constant that was taken off the others.
  for (const TERM_ROW& term : in.terms.rows) {
    for (std::int64_t k = 0; term.is_mv && k < term.equations; ++k) {
      const std::int64_t e = term.first + k;
      if (q.factor.reciprocal[static_cast<std::size_t>(q.position_of(e))] == 0.0) continue;
      const auto record = static_cast<std::size_t>(in.design.mv[static_cast<std::size_t>(k)]);
      fit.solution[static_cast<std::size_t>(e)] += q.shift + (in.design.offset.empty() ? 0.0 : in.design.offset[record]);
    }
  }
  if (q.mu < 0) return;

  // y = shift + ..., x b = shift_x b + (x - shift_x) b: the constants belong to mu.
  double constant = q.shift;
  for (const CENTRED& x : q.centred) constant -= x.shift * fit.solution[static_cast<std::size_t>(x.equation)];
  if (ev.constant.empty()) {
    fit.solution[static_cast<std::size_t>(q.mu)] += constant;
  } else {
    for (std::size_t e = 0; e < n; ++e) {
      if (!is_no_value(fit.solution[e])) fit.solution[e] += constant * ev.constant[static_cast<std::size_t>(q.position[e])];
    }
  }
  if (q.centred.empty() || !ev.constant.empty() || !with_inverse) return;
  // var(mu) = c' C^-1 c with c = 1 for mu and -shift_x for each centred covariate.
  std::vector<CENTRED> c = q.centred;
  for (CENTRED& x : c) x.shift = -x.shift;
  c.push_back({q.mu, 1.0});
  double variance = 0.0;
  for (const CENTRED& a : c) {
    for (const CENTRED& b : c) {
      variance += a.shift * b.shift * K4MXIJ(q.factor, q.position_of(a.equation), q.position_of(b.equation));
    }
  }
  fit.se[static_cast<std::size_t>(q.mu)] = std::sqrt(std::max(0.0, ev.sigma2 * variance));
}

/// Fitted values and residuals of the analysis records.
void fitted_values(const FIT_MODEL& in, const MIXED_EQUATIONS& q, const EVALUATION& ev, FIT_STATE& fit)
{
  const auto rows = static_cast<std::size_t>(in.design.rows());
  std::vector<std::uint8_t> is_mv(static_cast<std::size_t>(q.n), 0);
  for (const TERM_ROW& term : in.terms.rows) {
    if (!term.is_mv) continue;
    for (std::int64_t e = term.first; e < term.first + term.equations; ++e) is_mv[static_cast<std::size_t>(q.position_of(e))] = 1;
  }
  fit.fitted.assign(rows, 0.0);
  for (std::size_t p = 0; p < static_cast<std::size_t>(q.n); ++p) {
    const double b = ev.solution[p];
    if (is_mv[p] || b == 0.0) continue;
    for (auto k = static_cast<std::size_t>(q.columns.start[p]); k < static_cast<std::size_t>(q.columns.start[p + 1]); ++k) {
      fit.fitted[static_cast<std::size_t>(q.columns.record[k])] += b * q.columns.value[k];
    }
  }
  // The residual is formed on the shifted scale, where no digits are lost.
  fit.residual.resize(rows);
  for (std::size_t r = 0; r < rows; ++r) {
    fit.residual[r] = (in.design.beside_offset(r) - q.shift) - fit.fitted[r];
    fit.fitted[r] += q.shift;
    if (!in.design.offset.empty()) fit.fitted[r] += in.design.offset[r];
  }
  for (const std::int64_t r : in.design.mv) fit.residual[static_cast<std::size_t>(r)] = no_value;
}

/// What one parameter is on the reported scale per unit of its own and per unit of s2.
struct SCALING {
  double value, by_own, by_sigma2;
};

SCALING scaling(const VARIANCE_MODEL& model, std::size_t i, double x, double s2)
{
  if (!model.profiled) return {x, 1.0, 0.0};
  switch (model.parameters[i].role) {
    case ParamRole::variance:
    case ParamRole::covariance:
      return {x * s2, s2, x};
    case ParamRole::loading:
      return {x * std::sqrt(s2), std::sqrt(s2), 0.5 * x / std::sqrt(s2)};
    case ParamRole::precision:
      return {x / s2, 1.0 / s2, -x / (s2 * s2)};
    default:
      return {x, 1.0, 0.0};
  }
}

/// L_COVARIANCE: covariances of the parameters on the reported scale, by the delta method from the inverse of the joint information.
void L_COVARIANCE(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, FIT_WORK& work, const EVALUATION& ev, FIT_STATE& fit)
{
  const Frame here{eh, __func__};
  // Parameters that the last update has fixed have no standard error.
  INFORMATION kept;
  std::vector<std::int64_t> from;
  for (std::int64_t i = 0; i < ev.information.count(); ++i) {
    const std::int64_t parameter = ev.information.active[static_cast<std::size_t>(i)];
    const bool held_out = i == ev.information.held_out;
    const bool at_bound = fit.bound[static_cast<std::size_t>(parameter)] == 'B';
    if (!held_out && (at_bound || !is_free(model.parameters[static_cast<std::size_t>(parameter)].constraint))) continue;
    if (held_out) kept.held_out = kept.count();
    kept.active.push_back(parameter);
    kept.unit.push_back(ev.information.unit[static_cast<std::size_t>(i)]);
    from.push_back(i);
  }
  const auto k = static_cast<std::size_t>(kept.count());
  kept.score.assign(k, 0.0);
  kept.ai.resize(k * (k + 1) / 2);
  for (std::size_t i = 0; i < k; ++i) {
    for (std::size_t j = 0; j <= i; ++j) kept.ai[i * (i + 1) / 2 + j] = ev.information.at(from[i], from[j]);
  }
  kept = in_units(std::move(kept));
  VARIANCE_MODEL untouched = model;
  std::vector<double> covariance;
  std::vector<std::uint8_t> used;
  K4MAII(eh, false, 0, kept, untouched, work.aiopt, work.update, covariance, used);
  const auto cov = [&](std::size_t i, std::size_t j) {
    const double units = kept.unit[i] * kept.unit[j];
    return units * (i >= j ? covariance[i * (i + 1) / 2 + j] : covariance[j * (j + 1) / 2 + i]);
  };

  const std::size_t p = model.parameters.size();
  fit.sigma.resize(p);
  fit.covariance.assign(p * (p + 1) / 2, 0.0);
  for (std::size_t i = 0; i < p; ++i) fit.sigma[i] = scaling(model, i, ev.evaluated[i], ev.sigma2).value;
  // sigma_i as a function of its own parameter and of s2: two partial derivatives at most.
  struct PARTIAL {
    std::size_t of;
    double by;
  };
  const auto gradient = [&](std::size_t i) {
    const auto parameter = static_cast<std::size_t>(kept.active[i]);
    const SCALING s = scaling(model, parameter, ev.evaluated[parameter], ev.sigma2);
    if (kept.held_out < 0 || static_cast<std::int64_t>(i) == kept.held_out) return std::vector<PARTIAL>{{i, 1.0}};
    return std::vector<PARTIAL>{{i, s.by_own}, {static_cast<std::size_t>(kept.held_out), s.by_sigma2}};
  };
  for (std::size_t i = 0; i < k; ++i) {
    if (!used[i]) continue;
    const auto pi = static_cast<std::size_t>(kept.active[i]);
    const std::vector<PARTIAL> gi = gradient(i);
    for (std::size_t j = 0; j <= i; ++j) {
      if (!used[j]) continue;
      double sum = 0.0;
      for (const PARTIAL& a : gi) {
        for (const PARTIAL& b : gradient(j)) sum += a.by * cov(a.of, b.of) * b.by;
      }
      fit.covariance[pi * (pi + 1) / 2 + static_cast<std::size_t>(kept.active[j])] = sum;
    }
  }

  // A parameter that follows others varies with them.
  std::vector<std::vector<PARAMETER_SHARE>> shares(p);
  for (std::size_t i = 0; i < p; ++i) shares[i] = made_of(model, static_cast<std::int64_t>(i));
  const auto between = [&](std::int64_t a, std::int64_t b) {
    const auto high = static_cast<std::size_t>(std::max(a, b));
    return fit.covariance[high * (high + 1) / 2 + static_cast<std::size_t>(std::min(a, b))];
  };
  for (std::size_t i = 0; i < p; ++i) {
    for (std::size_t j = 0; j <= i; ++j) {
      if (!follows(model.parameters[i]) && !follows(model.parameters[j])) continue;
      double sum = 0.0;
      for (const PARAMETER_SHARE& a : shares[i]) {
        for (const PARAMETER_SHARE& b : shares[j]) sum += a.by * b.by * between(a.of, b.of);
      }
      fit.covariance[i * (i + 1) / 2 + j] = sum;
    }
  }
}

/// The letters of the column C: the constraint code, B for a variance that two updates in a row pulled to nothing or a correlation
/// that they held near one, ? after one.
void bound_letters(const VARIANCE_MODEL& model, const FIT_WORK& work, const EVALUATION& ev, FIT_STATE& fit)
{
  fit.bound.resize(model.parameters.size());
  for (std::size_t i = 0; i < fit.bound.size(); ++i) {
    const VARIANCE_PARAMETER& v = model.parameters[i];
    fit.bound[i] = constraint_letters[static_cast<std::size_t>(v.constraint)];
    if (!is_free(v.constraint) || i >= work.update.pulled.size()) continue;
    const auto& active = ev.information.active;
    if (!std::binary_search(active.begin(), active.end(), static_cast<std::int64_t>(i))) continue;
    if (is_at_bound(model, work.update, ev, i)) {
      fit.bound[i] = 'B';
    } else if (work.update.pulled[i] >= 1) {
      fit.bound[i] = '?';
    }
  }
}

/// The parameters of terms that were taken out of the run stand at their bound.
void dropped_letters(const VARIANCE_MODEL& model, FIT_STATE& fit)
{
  for (const TERM_STRUCTURE& structure : model.terms) {
    if (!structure.dropped) continue;
    for (std::int64_t r = structure.first_row; r < structure.first_row + structure.rows; ++r) {
      const STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(r)];
      for (std::int64_t i = row.first; i < row.first + row.parameters; ++i) fit.bound[static_cast<std::size_t>(i)] = 'B';
    }
  }
}

/// The number of parameters that the criteria count.
std::int64_t parameters_counted(const VARIANCE_MODEL& model, const EVALUATION& ev, const FIT_STATE& fit)
{
  std::int64_t t = 0;
  for (std::size_t i = 0; i < model.parameters.size(); ++i) {
    const VARIANCE_PARAMETER& v = model.parameters[i];
    const double x = ev.evaluated[i];
    if (v.constraint == Constraint::C || x == 0.0 || is_no_value(x)) continue;
    if (v.constraint == Constraint::F && (v.type == ParamType::L || x == 1.0)) continue;
    if (!is_free(v.constraint) && std::fabs(x) < 1e-6) continue;
    if (is_free(v.constraint) && v.type != ParamType::R && fit.bound[i] == 'B') continue;  // pulled to nothing, though not settled yet
    ++t;
  }
  return t;
}

}  // namespace

void AIRHAT(ERROR_HANDLER& eh, const FIT_MODEL& in, const MIXED_EQUATIONS& q, int threads, std::vector<double>& hat)
{
  const Frame here{eh, __func__};
  std::vector<double> inverse;
  gather_inverse(q.factor, q.c, inverse, threads);
  const auto rows = static_cast<std::size_t>(in.design.rows());
  hat.assign(rows, 0.0);
  if (!q.residual.empty()) {
    // The diagonal of W C^-1 W'R^-1.
    std::vector<double> halves;
    inverse_by_records(q, inverse, threads, true, halves);
    for (std::size_t r = 0; r < rows; ++r) {
      for (auto k = static_cast<std::size_t>(q.residual.start[r]); k < static_cast<std::size_t>(q.residual.start[r + 1]); ++k) {
        const double h = halves[k] * q.residual.value[k];
        hat[r] += h;
        hat[static_cast<std::size_t>(q.residual.record[k])] += h;
      }
    }
    return;
  }
  // hat(r) = w_r / v sum over its equations i, j of x_i x_j Cinv(i, j): column j of C-inverse is spread over a work vector and
  // read by the records of j.  Rows of the design are read in elimination order through the columns' transposition.
  std::vector<std::int64_t> start(rows + 1, 0);
  for (const std::int32_t r : q.columns.record) ++start[static_cast<std::size_t>(r) + 1];
  for (std::size_t r = 0; r < rows; ++r) start[r + 1] += start[r];
  std::vector<std::int32_t> equation(q.columns.record.size());
  std::vector<double> value(q.columns.record.size());
  std::vector<std::int64_t> next(start.begin(), start.end() - 1);
  const auto n = static_cast<std::size_t>(q.n);
  for (std::size_t p = 0; p < n; ++p) {
    for (auto k = static_cast<std::size_t>(q.columns.start[p]); k < static_cast<std::size_t>(q.columns.start[p + 1]); ++k) {
      const auto at = static_cast<std::size_t>(next[static_cast<std::size_t>(q.columns.record[k])]++);
      equation[at] = static_cast<std::int32_t>(p);
      value[at] = q.columns.value[k];
    }
  }
  std::vector<double> work(n, 0.0);
  for (std::size_t j = 0; j < n; ++j) {
    for (auto k = static_cast<std::size_t>(q.c.start[j]); k < static_cast<std::size_t>(q.c.start[j + 1]); ++k) {
      work[static_cast<std::size_t>(q.c.row[k])] = inverse[k];
    }
    for (auto k = static_cast<std::size_t>(q.columns.start[j]); k < static_cast<std::size_t>(q.columns.start[j + 1]); ++k) {
      const auto r = static_cast<std::size_t>(q.columns.record[k]);
      const double xj = q.columns.value[k];
      double sum = 0.0;
      for (auto e = static_cast<std::size_t>(start[r]); e < static_cast<std::size_t>(start[r + 1]); ++e) {
        const auto i = static_cast<std::size_t>(equation[e]);
        if (i < j) continue;
        sum += (i == j ? 1.0 : 2.0) * value[e] * work[i];
      }
      hat[r] += xj * sum;
    }
  }
  for (std::size_t r = 0; r < rows; ++r) {
    const double w = in.design.weight.empty() ? 1.0 : std::max(in.design.weight[r], 0.0);
    hat[r] *= w * q.ri;
  }
}

void K4MFIN(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, FIT_WORK& work, EVALUATION& ev, FIT_STATE& fit)
{
  const Frame here{eh, __func__};
  const Timed timed{in.timing, "K4MRIE"};
  fit.evaluated = ev.evaluated;
  fit.sigma2 = ev.sigma2;
  fit.df = ev.nu;
  fit.log_det_c = ev.log_det_c;
  fit.singular = ev.absorbed.singular;
  fit.negative = ev.negative;
  fit.tolerance = work.tolerance;
  effects(in, work.equations, ev, fit);
  fitted_values(in, work.equations, ev, fit);
  if (!ev.inverse_diagonal.empty()) {
    AIRHAT(eh, in, work.equations, static_cast<int>(std::max<std::int64_t>(1, work.aiopt(Ai::threads))), fit.hat);
    K4MRIE(eh, in, model, work.equations, ev, fit);
  }
  if (eh.terminate()) return;
  bound_letters(model, work, ev, fit);
  dropped_letters(model, fit);
  L_COVARIANCE(eh, model, work, ev, fit);
  fit.first_singular_label = work.update.first_singular;

  // Akaike (1974) and Schwarz (1978) with the restricted likelihood: t parameters, df residual degrees of freedom.
  fit.parameters_estimated = parameters_counted(model, ev, fit);
  const auto t = static_cast<double>(fit.parameters_estimated);
  fit.aic = 2.0 * (t - ev.logl);
  fit.bic = t * std::log(static_cast<double>(ev.nu)) - 2.0 * ev.logl;
  fit.usable = true;
}

}  // namespace tolvan
