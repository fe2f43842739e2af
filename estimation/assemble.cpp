// Refilling the coefficient matrix in each evaluation.  Routines: K4MXXS, K4MXXG.
#include <algorithm>

#include "estimation/equations.h"

namespace tolvan {

void K4MXXS(ERROR_HANDLER& eh, const FORMED_ROW& residual, MIXED_EQUATIONS& q)
{
  const Frame here{eh, __func__};
  const double scale = residual.inverse;
  if (scale == 1.0) {
    std::copy(q.c0.begin(), q.c0.end(), q.c.value.begin());
  } else {
    std::transform(q.c0.begin(), q.c0.end(), q.c.value.begin(), [scale](double x) { return scale * x; });
  }
}

void K4MXXG(ERROR_HANDLER& eh, const TERM_TABLE& terms, const VARIANCE_MODEL& model, const FORMED& formed, MIXED_EQUATIONS& q,
            double& log_det_g)
{
  const Frame here{eh, __func__};
  log_det_g = 0.0;
  std::vector<std::uint8_t> emptied;
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    const TERM_ROW& term = terms.rows[static_cast<std::size_t>(model.terms[t].term)];
    if (model.terms[t].dropped) {
      // A variance of zero: the effects are zero, so their equations leave the system as singular ones.
      if (emptied.empty()) emptied.assign(static_cast<std::size_t>(q.n), 0);
      for (std::int64_t e = term.first; e < term.first + term.equations; ++e) emptied[static_cast<std::size_t>(q.position_of(e))] = 1;
      continue;
    }
    const FORMED_TERM& g = formed.terms[t];
    log_det_g += g.log_determinant;
    const double inverse = g.inverse();
    for (std::int64_t e = term.first; e < term.first + term.equations; ++e) {
      const auto p = static_cast<std::size_t>(q.position_of(e));
      q.c.value[static_cast<std::size_t>(q.c.start[p])] += inverse;
    }
  }
  if (emptied.empty()) return;
  for (std::size_t j = 0; j < static_cast<std::size_t>(q.n); ++j) {
    for (auto k = static_cast<std::size_t>(q.c.start[j]); k < static_cast<std::size_t>(q.c.start[j + 1]); ++k) {
      if (emptied[j] || emptied[static_cast<std::size_t>(q.c.row[k])]) q.c.value[k] = 0.0;
    }
  }
}

void multiply_residual_part(const MIXED_EQUATIONS& q, double inverse, const double* a, double* b, std::int64_t columns)
{
  const auto n = static_cast<std::size_t>(q.n);
  for (std::size_t m = 0; m < static_cast<std::size_t>(columns); ++m) {
    const double* x = a + m * n;
    double* y = b + m * n;
    std::fill(y, y + n, 0.0);
    for (std::size_t j = 0; j < n; ++j) {
      const auto from = static_cast<std::size_t>(q.c.start[j]);
      const auto to = static_cast<std::size_t>(q.c.start[j + 1]);
      const double xj = x[j];
      double sum = q.c0[from] * xj;
      for (std::size_t k = from + 1; k < to; ++k) {
        const auto i = static_cast<std::size_t>(q.c.row[k]);
        sum += q.c0[k] * x[i];
        y[i] += q.c0[k] * xj;
      }
      y[j] += sum;
    }
    if (inverse != 1.0) {
      for (std::size_t j = 0; j < n; ++j) y[j] *= inverse;
    }
  }
}

}  // namespace tolvan
