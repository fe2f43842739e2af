// The score: first derivatives of the restricted log-likelihood.  Routines: K4MSCG, K4MSCR.
#include <algorithm>

#include "estimation/evaluation.h"

namespace tolvan {
namespace {

/// The score of a parameter, null when it is not active.
double* score_of(EVALUATION& ev, std::int64_t parameter)
{
  const auto& active = ev.information.active;
  const auto at = std::lower_bound(active.begin(), active.end(), parameter);
  if (at == active.end() || *at != parameter) return nullptr;
  return &ev.information.score[static_cast<std::size_t>(at - active.begin())];
}

}  // namespace

void K4MSCG(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q, EVALUATION& ev)
{
  const Frame here{eh, __func__};
  const Timed timed{in.timing, "K4MSCG", "K4MITR"};
  for (const TERM_STRUCTURE& structure : model.terms) {
    if (structure.dropped) continue;
    const TERM_ROW& term = in.terms.rows[static_cast<std::size_t>(structure.term)];
    // S: the term's sum of squared solution (over s2) plus C-inverse diagonal; then, v scaling an identity of order q,
    //     d LogL / d v = -0.5 (q - S / v) / v      (with S in units of the component's own scale)
    double s = 0.0;
    for (std::int64_t e = term.first; e < term.first + term.equations; ++e) {
      const auto p = static_cast<std::size_t>(q.position_of(e));
      s += ev.solution[p] * ev.solution[p] / ev.sigma2 + ev.inverse_diagonal[p];
    }
    const double others = ev.formed.terms[static_cast<std::size_t>(&structure - model.terms.data())].inverse();
    for (std::int64_t r = structure.first_row; r < structure.first_row + structure.rows; ++r) {
      const STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(r)];
      if (row.scale < 0) continue;
      double* score = score_of(ev, row.scale);
      if (score == nullptr) continue;
      const double v = ev.evaluated[static_cast<std::size_t>(row.scale)];
      if (v == 0.0) continue;
      *score += -0.5 * (static_cast<double>(term.equations) - s * others) / v;
    }
  }
}

void K4MSCR(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q, EVALUATION& ev)
{
  const Frame here{eh, __func__};
  if (model.profiled) return;  // profiled out: its score is zero
  const Timed timed{in.timing, "K4MSCR", "K4MITR"};
  double* score = score_of(ev, model.residual_parameter);
  if (score == nullptr) return;
  // With R = v R0:  d LogL / d v = -0.5 (tr(P R0) - y'P R0 P y), where
  //     v tr(P R0) = N - tr(C^-1 W'R^-1 W) = N - rank(C) + tr(C^-1 G^-1),
  //     v y'P R0 P y = e'R^-1 e.
  const double v = ev.evaluated[static_cast<std::size_t>(model.residual_parameter)];
  double trace = 0.0;
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    if (model.terms[t].dropped) continue;
    const TERM_ROW& term = in.terms.rows[static_cast<std::size_t>(model.terms[t].term)];
    const double inverse = ev.formed.terms[t].inverse();
    for (std::int64_t e = term.first; e < term.first + term.equations; ++e) {
      trace += inverse * ev.inverse_diagonal[static_cast<std::size_t>(q.position_of(e))];
    }
  }
  double rank = 0.0;
  for (std::size_t p = 0; p < static_cast<std::size_t>(q.n); ++p) rank += q.factor.reciprocal[p] != 0.0 ? 1.0 : 0.0;
  *score += -0.5 * (static_cast<double>(q.records) - rank + trace - ev.residual_square) / v;
}

}  // namespace tolvan
