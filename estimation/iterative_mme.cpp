// One evaluation that solves the equations by iteration instead of factorising them.  Routine: ITERATIVE_MME.
#include "estimation/iterative_mme.h"

#include <algorithm>
#include <cmath>

#include "base/text.h"
#include "estimation/bound_effects.h"
#include "estimation/fixed_part.h"
#include "estimation/iterative_solver.h"

namespace tolvan {
namespace {

constexpr double vanishing = 1e-9;          // of a dense diagonal, in units of the effect's own design values
constexpr double small_correction = 1e-8;   // of the squared solutions: what is left then is its square
constexpr double nothing_more = 1e-16;      // of the squared solutions, for a correction that itself is unfinished
constexpr int most_corrections = 20;
constexpr std::int64_t convergence_failed = 1;

std::size_t at(const std::vector<std::int64_t>& start, std::size_t i) { return static_cast<std::size_t>(start[i]); }

double weight_of(const DESIGN_MTX& design, std::size_t r)
{
  return design.weight.empty() ? 1.0 : std::max(design.weight[r], 0.0);
}

/// y = C x without C: W'(R^-1 (W x)) + G^-1 x.  Records and equations are gathered, so that nothing is searched for.
class PRODUCTS {
 public:
  PRODUCTS(const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q, const EVALUATION& ev)
      : in_(in), model_(model), q_(q), ev_(ev), wx_(q.y.size()), rwx_(q.y.size())
  {
  }
  void operator()(const double* x, double* y)
  {
    for (std::size_t r = 0; r < wx_.size(); ++r) {
      double sum = 0.0;
      for (std::size_t k = at(q_.rows.start, r); k < at(q_.rows.start, r + 1); ++k) {
        sum += q_.rows.value[k] * x[static_cast<std::size_t>(q_.rows.record[k])];
      }
      wx_[r] = q_.residual.empty() ? q_.ri * weight_of(in_.design, r) * sum : sum;
    }
    if (!q_.residual.empty()) {
      multiply_residual_inverse(q_.residual, wx_.data(), rwx_.data());
      std::swap(wx_, rwx_);
    }
    for (std::size_t p = 0; p < static_cast<std::size_t>(q_.n); ++p) {
      double sum = 0.0;
      for (std::size_t k = at(q_.columns.start, p); k < at(q_.columns.start, p + 1); ++k) {
        sum += q_.columns.value[k] * wx_[static_cast<std::size_t>(q_.columns.record[k])];
      }
      y[p] = sum;
    }
    add_random_part(in_, model_, q_, ev_, 1.0, x, y, scratch_);
  }

 private:
  const FIT_MODEL& in_;
  const VARIANCE_MODEL& model_;
  const MIXED_EQUATIONS& q_;
  const EVALUATION& ev_;
  std::vector<double> wx_, rwx_;  // by records
  EFFECTS_SCRATCH scratch_;
};

/// The diagonal of W'R^-1 W.
std::vector<double> residual_diagonal(const FIT_MODEL& in, const MIXED_EQUATIONS& q)
{
  std::vector<double> d(static_cast<std::size_t>(q.n), 0.0);
  std::vector<double> present(q.residual.empty() ? 0 : q.y.size(), 0.0);
  for (std::size_t p = 0; p < d.size(); ++p) {
    const std::size_t from = at(q.columns.start, p);
    const std::size_t to = at(q.columns.start, p + 1);
    if (q.residual.empty()) {
      for (std::size_t k = from; k < to; ++k) {
        const double x = q.columns.value[k];
        d[p] += q.ri * weight_of(in.design, static_cast<std::size_t>(q.columns.record[k])) * x * x;
      }
      continue;
    }
    for (std::size_t k = from; k < to; ++k) present[static_cast<std::size_t>(q.columns.record[k])] = q.columns.value[k];
    for (std::size_t k = from; k < to; ++k) {
      const auto r = static_cast<std::size_t>(q.columns.record[k]);
      for (std::size_t m = at(q.residual.start, r); m < at(q.residual.start, r + 1); ++m) {
        d[p] += q.columns.value[k] * q.residual.value[m] * present[static_cast<std::size_t>(q.residual.record[m])];
      }
    }
    for (std::size_t k = from; k < to; ++k) present[static_cast<std::size_t>(q.columns.record[k])] = 0.0;
  }
  return d;
}

/// Adds the diagonal of G^-1 of the structures without bound effects: that of a direct product is the product of the diagonals.
void add_random_diagonal(const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q, const EVALUATION& ev,
                         const BOUND_EFFECTS& bound, std::vector<double>& d)
{
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    if (model.terms[t].dropped || bound.has(t)) continue;
    std::vector<std::vector<double>> diagonals;
    for (const auto& component : ev.formed.terms[t].components) diagonals.push_back(diagonal_of(component->inverse()));
    scatter_effects(q, first_equation(in.terms, model.terms[t]), product_of_diagonals(diagonals), d.data());
  }
}

/// The inverted diagonal: the reciprocals of C(i,i), 0 for a zero diagonal and for equations that are left out.
std::vector<double> inverted_diagonal(const FIT_MODEL& in, const VARIANCE_MODEL& model, std::int64_t mode,
                                      const std::vector<std::uint8_t>& left_out, const EVALUATION& ev, const BOUND_EFFECTS& bound,
                                      const MIXED_EQUATIONS& q)
{
  std::vector<double> d = residual_diagonal(in, q);
  if (mode == conjugate_gradients) {
    // What a dense effect is known by, in units of its own design values: nothing left of it after weighting is no effect.
    for (auto p = static_cast<std::size_t>(q.n - q.dense); p < d.size(); ++p) {
      double square = 0.0;
      double count = 0.0;
      for (std::size_t k = at(q.columns.start, p); k < at(q.columns.start, p + 1); ++k) {
        square += q.columns.value[k] * q.columns.value[k];
        count += q.columns.value[k] != 0.0 ? 1.0 : 0.0;
      }
      if (d[p] * count <= vanishing * q.ri * square) d[p] = 0.0;
    }
  }
  bound.diagonal(d);
  add_random_diagonal(in, model, q, ev, bound, d);
  for (std::size_t t = 0; t < model.terms.size(); ++t) {  // a dropped term has no effects
    if (!model.terms[t].dropped) continue;
    const std::int64_t first = first_equation(in.terms, model.terms[t]);
    for (std::int64_t e = first; e < first + structure_size(model, model.terms[t]); ++e) d[static_cast<std::size_t>(q.position_of(e))] = 0.0;
  }
  for (std::size_t p = 0; p < d.size(); ++p) d[p] = d[p] == 0.0 || left_out[p] ? 0.0 : 1.0 / d[p];
  return d;
}

/// L_SOLVE: solves C x = b, and again for what the solutions leave of b until the correction is small: the rule that ends an iteration
/// looks at its last step, which may be much smaller than what is still missing.  For Gauss-Seidel that is the same as going on.
SolverEnd L_SOLVE(ERROR_HANDLER& eh, const EQUATION_STORE& store, std::int64_t mode, std::vector<double> b, bool told,
                  const std::function<void(const double*, double*)>& multiply, std::vector<double>& x)
{
  const Frame here{eh, __func__};
  x.assign(b.size(), 0.0);
  std::vector<double> step;
  std::vector<double> product(b.size());
  std::int64_t rounds = 0;
  for (int correction = 0; correction <= most_corrections; ++correction) {
    const SOLVER_REPORT report = K4MSLV(eh, store, b, step, mode, most_rounds, told || correction > 0);
    rounds += report.rounds;
    if (report.end == SolverEnd::diverged || report.end == SolverEnd::aborted) return report.end;
    double changes = 0.0;
    double solutions = 0.0;
    for (std::size_t p = 0; p < x.size(); ++p) {
      x[p] += step[p];
      changes += step[p] * step[p];
      solutions += x[p] * x[p];
    }
    const double most = report.end == SolverEnd::converged ? small_correction : nothing_more;
    const bool last = changes <= most * solutions;
    if (last) {
      if (!told) eh.note(text("the equations were solved in ", rounds, " rounds of iteration"));
      return SolverEnd::converged;
    }
    multiply(step.data(), product.data());
    for (std::size_t p = 0; p < b.size(); ++p) b[p] -= product[p];
  }
  eh.warning(text("the solutions of the mixed model equations have not converged in ", rounds, " rounds of iteration"));
  return SolverEnd::out_of_rounds;
}

}  // namespace

Solving solving_of_mode(std::int64_t mode)
{
  if (mode <= last_mode_by_factor) return Solving::by_factor;
  return mode == conjugate_gradients ? Solving::by_products : Solving::by_sweeps;
}

void ITERATIVE_MME(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, std::int64_t mode, FIT_WORK& work, EVALUATION& ev)
{
  const Frame here{eh, __func__};
  const Timed timed{in.timing, "ITERATIVE_MME", "K4MITR"};
  MIXED_EQUATIONS& q = work.equations;
  const auto n = static_cast<std::size_t>(q.n);
  const int threads = static_cast<int>(std::max<std::int64_t>(1, work.aiopt(Ai::threads)));
  ev.absorbed = {};
  BOUND_EFFECTS bound;
  bound.find(eh, in, model, q, ev);
  if (eh.terminate()) return;
  if (bound.any() && mode != conjugate_gradients) {
    eh.not_implemented("Gauss Seidel iteration with Lagrangian rows, of singular variance structures, is not implemented, use !BLUP 4");
    return;
  }
  std::vector<std::uint8_t> left_out(n, 0);
  ABSORB_FIXED(eh, in, model, q, ev, threads, work, left_out, ev.absorbed);
  if (eh.terminate() || ev.absorbed.cancelled) return;
  const std::vector<double> reciprocal = inverted_diagonal(in, model, mode, left_out, ev, bound, q);
  // Bound effects and the rows that bind them are in use, though not iterated on.
  q.factor.reciprocal = reciprocal;
  if (bound.any()) {
    std::vector<std::uint8_t> marked(n, 0);
    bound.mark(marked);
    for (std::size_t p = 0; p < n; ++p) {
      if (marked[p] && !left_out[p]) q.factor.reciprocal[p] = 1.0;
    }
  }

  EQUATION_STORE store;
  store.reciprocal = reciprocal;
  PRODUCTS products(in, model, q, ev);
  std::vector<double> spread(bound.any() ? n : 0);
  const auto multiply = [&](const double* x, double* y) {
    if (!bound.any()) return products(x, y);
    std::copy(x, x + n, spread.begin());
    bound.spread(spread.data());
    products(spread.data(), y);
    bound.gather(y);
  };
  if (q.solving == Solving::by_products || bound.any()) {
    store.multiply = multiply;
  } else {
    store.c = &q.c;
  }
  bool told = false;
  const auto iterate = [&](const EQUATION_STORE& equations, std::vector<double> right,
                           const std::function<void(const double*, double*)>& times, std::vector<double>& x) {
    const SolverEnd end = L_SOLVE(eh, equations, mode, std::move(right), told, times, x);
    told = true;
    ev.absorbed.cancelled = end == SolverEnd::aborted;
    if (end == SolverEnd::diverged) ev.fault = convergence_failed;
    ev.iterated = ev.iterated && end == SolverEnd::converged;
    return end == SolverEnd::converged || end == SolverEnd::out_of_rounds;
  };
  const auto solved = [&](std::vector<double> right, std::vector<double>& x) {
    if (!bound.any()) return iterate(store, std::move(right), multiply, x);
    std::vector<double> left = right;
    bound.gather(right.data());
    if (!iterate(store, std::move(right), multiply, x)) return false;
    bound.spread(x.data());
    products(x.data(), spread.data());
    for (std::size_t p = 0; p < n; ++p) left[p] -= spread[p];
    return bound.multipliers(
        left,
        [&](const std::vector<double>& diagonal, const auto& times, const std::vector<double>& force, std::vector<double>& y) {
          std::vector<double> inverse(diagonal.size());
          std::transform(diagonal.begin(), diagonal.end(), inverse.begin(), [](double d) { return d == 0.0 ? 0.0 : 1.0 / d; });
          return iterate({.reciprocal = inverse, .multiply = times}, force, times, y);
        },
        x);
  };
  ev.iterated = true;
  std::vector<double> b(n);
  std::transform(q.r0.begin(), q.r0.end(), b.begin(), [&q](double r) { return q.ri * r; });
  if (!solved(std::move(b), ev.solution)) return;

  ev.constant.clear();
  if (q.mu >= 0 && q.shift != 0.0 && q.factor.reciprocal[static_cast<std::size_t>(q.position_of(q.mu))] == 0.0) {
    // mu was left out as singular: what was taken off the response goes to the effects that span it.
    std::vector<double> constant(n, 0.0);
    constant[static_cast<std::size_t>(q.position_of(q.mu))] = 1.0;
    std::vector<double> right(n);
    products(constant.data(), right.data());  // mu is fixed: G^-1 has no part in it
    if (!solved(std::move(right), ev.constant)) return;
  }
  follow_solutions(in, model, q, ev);
  ev.nu = degrees_of_freedom(in, model, q, ev);
}

}  // namespace tolvan
