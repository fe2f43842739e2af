// What follows from the solutions: residuals, G^-1 u and y'Py.
#include <algorithm>

#include "estimation/evaluation.h"

namespace tolvan {
namespace {

/// e = y - W b, record by record, and e'R^-1 e.
void form_residuals(const FIT_MODEL& in, const MIXED_EQUATIONS& q, EVALUATION& ev)
{
  const std::size_t rows = q.y.size();
  ev.residual = q.y;
  for (std::size_t p = 0; p < static_cast<std::size_t>(q.n); ++p) {
    const double b = ev.solution[p];
    if (b == 0.0) continue;
    for (auto k = static_cast<std::size_t>(q.columns.start[p]); k < static_cast<std::size_t>(q.columns.start[p + 1]); ++k) {
      ev.residual[static_cast<std::size_t>(q.columns.record[k])] -= b * q.columns.value[k];
    }
  }
  double sum = 0.0;
  if (q.residual.empty()) {
    for (std::size_t r = 0; r < rows; ++r) {
      sum += (in.design.weight.empty() ? 1.0 : std::max(in.design.weight[r], 0.0)) * ev.residual[r] * ev.residual[r];
    }
    sum *= q.ri;
  } else {
    std::vector<double> re(rows);
    multiply_residual_inverse(q.residual, ev.residual.data(), re.data());
    for (std::size_t r = 0; r < rows; ++r) sum += ev.residual[r] * re[r];
  }
  ev.residual_square = sum;
}

}  // namespace

void add_random_part(const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q, const EVALUATION& ev, double by,
                     const double* x, double* y, EFFECTS_SCRATCH& scratch)
{
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    if (model.terms[t].dropped) continue;
    const std::int64_t first = first_equation(in.terms, model.terms[t]);
    scratch.u.resize(static_cast<std::size_t>(structure_size(model, model.terms[t])));
    scratch.gu.resize(scratch.u.size());
    gather_effects(q, first, x, scratch.u);
    apply_inverse(ev.formed.terms[t].components, scratch.u.data(), scratch.gu.data(), scratch.work);
    for (double& g : scratch.gu) g *= by;
    scatter_effects(q, first, scratch.gu, y);
  }
}

void follow_solutions(const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q, EVALUATION& ev)
{
  form_residuals(in, q, ev);
  EFFECTS_SCRATCH scratch;
  ev.random_part.assign(ev.solution.size(), 0.0);
  add_random_part(in, model, q, ev, 1.0, ev.solution.data(), ev.random_part.data(), scratch);
  ev.quadratic = ev.residual_square;
  for (std::size_t p = 0; p < ev.solution.size(); ++p) ev.quadratic += ev.solution[p] * ev.random_part[p];
}

}  // namespace tolvan
