// Working variables and the average-information matrix.  Routines: K4MWVG, K4MWVA.
#include <algorithm>

#include "estimation/evaluation.h"

namespace tolvan {
void K4MWVG(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q, const EVALUATION& ev,
            WORKING_VARIABLES& working)
{
  const Frame here{eh, __func__};
  const auto n = static_cast<std::size_t>(q.n);
  const auto k = static_cast<std::size_t>(ev.information.count());
  working.alpha.assign(k, 0.0);
  working.a.assign(n * k, 0.0);
  working.g.assign(n, 0.0);
  const auto column_of = [&](std::int64_t parameter) {
    const auto& active = ev.information.active;
    const auto at = std::lower_bound(active.begin(), active.end(), parameter);
    return at != active.end() && *at == parameter ? at - active.begin() : std::ptrdiff_t{-1};
  };
  const std::ptrdiff_t residual = column_of(model.residual_parameter);
  for (const TERM_STRUCTURE& structure : model.terms) {
    if (structure.dropped) continue;
    const TERM_ROW& term = in.terms.rows[static_cast<std::size_t>(structure.term)];
    const double inverse = ev.formed.terms[static_cast<std::size_t>(&structure - model.terms.data())].inverse();
    const auto each = [&](auto&& set) {
      for (std::int64_t e = term.first; e < term.first + term.equations; ++e) set(static_cast<std::size_t>(q.position_of(e)));
    };
    each([&](std::size_t p) { working.g[p] = inverse * ev.solution[p]; });
    if (residual >= 0 && model.profiled) {
      double* a = working.a.data() + static_cast<std::size_t>(residual) * n;
      each([&](std::size_t p) { a[p] = ev.solution[p]; });
    }
    for (std::int64_t r = structure.first_row; r < structure.first_row + structure.rows; ++r) {
      const STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(r)];
      if (row.scale < 0) continue;
      const std::ptrdiff_t column = column_of(row.scale);
      if (column < 0) continue;
      const double v = ev.evaluated[static_cast<std::size_t>(row.scale)];
      double* a = working.a.data() + static_cast<std::size_t>(column) * n;
      each([&](std::size_t p) { a[p] = ev.solution[p] / v; });
    }
  }
  if (residual < 0) return;
  const double v = model.profiled ? 1.0 : ev.evaluated[static_cast<std::size_t>(model.residual_parameter)];
  working.alpha[static_cast<std::size_t>(residual)] = 1.0 / v;
}

void K4MWVA(ERROR_HANDLER& eh, const FIT_MODEL& in, const MIXED_EQUATIONS& q, const WORKING_VARIABLES& working, int threads,
            EVALUATION& ev)
{
  const Frame here{eh, __func__};
  const Timed timed{in.timing, "K4MWVA", "K4MITR"};
  const auto n = static_cast<std::size_t>(q.n);
  const auto k = static_cast<std::size_t>(ev.information.count());
  const double ri = ev.formed.residual.inverse;

  // b_i = W'R^-1 w_i = alpha_i g + C_R a_i and the corner w_i'R^-1 w_j.
  std::vector<double> b(n * k);
  multiply_residual_part(q, ri, working.a.data(), b.data(), static_cast<std::int64_t>(k));
  const auto dot = [n](const double* x, const double* y) {
    double sum = 0.0;
    for (std::size_t p = 0; p < n; ++p) sum += x[p] * y[p];
    return sum;
  };
  std::vector<double> ga(k);  // e'R^-1 W a_i
  for (std::size_t i = 0; i < k; ++i) ga[i] = dot(working.g.data(), working.a.data() + i * n);
  ev.information.ai.assign(k * (k + 1) / 2, 0.0);
  const auto ai = [&](std::size_t i, std::size_t j) -> double& { return ev.information.ai[i * (i + 1) / 2 + j]; };
  for (std::size_t i = 0; i < k; ++i) {
    for (std::size_t j = 0; j <= i; ++j) {
      ai(i, j) = working.alpha[i] * working.alpha[j] * ev.residual_square + working.alpha[i] * ga[j] + working.alpha[j] * ga[i] +
                 dot(working.a.data() + i * n, b.data() + j * n);
    }
  }
  for (std::size_t i = 0; i < k; ++i) {
    if (working.alpha[i] == 0.0) continue;
    for (std::size_t p = 0; p < n; ++p) b[i * n + p] += working.alpha[i] * working.g[p];
  }

  // w_i'P w_j = w_i'R^-1 w_j - (L^-1 b_i)' D^-1 (L^-1 b_j): the forward sweep alone.
  SMIFWD(q.factor, b.data(), static_cast<std::int64_t>(k), threads);
  for (std::size_t i = 0; i < k; ++i) {
    for (std::size_t j = 0; j <= i; ++j) {
      const double* x = b.data() + i * n;
      const double* y = b.data() + j * n;
      double sum = 0.0;
      for (std::size_t p = 0; p < n; ++p) sum += x[p] * y[p] * q.factor.reciprocal[p];
      ai(i, j) = 0.5 * (ai(i, j) - sum) / ev.sigma2;
    }
  }

  // The profiled residual variance: its derivative of V is H = V / s2, on the scale of the ratios y; so its row is
  // divided by s2, its diagonal twice.  Then AI(s2, s2) = nu / (2 s2^2).
  if (ev.information.held_out >= 0) {
    const std::int64_t s = ev.information.held_out;
    ev.information.at(s, s) /= ev.sigma2;
    for (std::int64_t j = 0; j < ev.information.count(); ++j) ev.information.at(s, j) /= ev.sigma2;
  }
}

}  // namespace tolvan
