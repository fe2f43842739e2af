// One evaluation that solves the equations by iteration instead of factorising them.  Routine: ITERATIVE_MME.
#include "estimation/iterative_mme.h"

#include <algorithm>
#include <cmath>

#include "base/text.h"
#include "estimation/iterative_solver.h"
#include "estimation/order_equations.h"

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

double diagonal_of(const SYMMETRIC& m, std::int64_t i)
{
  switch (m.shape) {
    case Shape::identity: return m.scale;
    case Shape::diagonal:
    case Shape::banded: return m.scale * m.values[i];
    case Shape::dense: return m.scale * m.values[i + i * m.n];
    case Shape::sparse: return m.scale * m.values[m.start[i]];
  }
  return 0.0;
}

/// Adds the diagonal of G^-1: that of a direct product is the product of the diagonals.
void add_random_diagonal(const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q, const EVALUATION& ev,
                         std::vector<double>& d)
{
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    if (model.terms[t].dropped) continue;
    std::vector<double> product(1, 1.0);
    for (const auto& component : ev.formed.terms[t].components) {
      const SYMMETRIC& m = component->inverse();
      std::vector<double> larger;
      larger.reserve(product.size() * static_cast<std::size_t>(m.n));
      for (const double outer : product) {
        for (std::int64_t i = 0; i < m.n; ++i) larger.push_back(outer * diagonal_of(m, i));
      }
      product = std::move(larger);
    }
    scatter_effects(q, first_equation(in.terms, model.terms[t]), product, d.data());
  }
}

/// Absorbs X'X of the fixed effects, the dense ones last, and marks what is singular as left out.
void absorb_fixed(ERROR_HANDLER& eh, const FIT_MODEL& in, const MIXED_EQUATIONS& q, int threads, FIT_WORK& work,
                  std::vector<std::uint8_t>& left_out, ABSORBED& absorbed)
{
  const auto n = static_cast<std::size_t>(q.n);
  std::vector<std::int32_t> number(n, -1);  // of a fixed equation among them
  std::vector<std::int32_t> position;
  std::vector<std::uint8_t> fixed(n, 0);
  for (std::int64_t e = 0; e < q.n; ++e) fixed[static_cast<std::size_t>(q.position_of(e))] = q.fixed[static_cast<std::size_t>(e)];
  for (std::size_t p = 0; p < n; ++p) {
    if (!fixed[p]) continue;
    number[p] = static_cast<std::int32_t>(position.size());
    position.push_back(static_cast<std::int32_t>(p));
  }
  if (position.empty()) return;

  COEFFICIENTS c;
  c.n = static_cast<std::int64_t>(position.size());
  c.start.push_back(0);
  std::vector<double> sum(position.size(), 0.0);
  std::vector<std::int32_t> seen(position.size(), -1);
  std::vector<std::int32_t> rows;
  for (std::int32_t j = 0; j < c.n; ++j) {
    rows.clear();
    const auto add = [&](std::int32_t i, double value) {
      if (seen[static_cast<std::size_t>(i)] != j) {
        seen[static_cast<std::size_t>(i)] = j;
        sum[static_cast<std::size_t>(i)] = 0.0;
        rows.push_back(i);
      }
      sum[static_cast<std::size_t>(i)] += value;
    };
    add(j, 0.0);
    if (j >= c.n - q.dense) {
      for (std::int32_t i = j + 1; i < c.n; ++i) add(i, 0.0);
    }
    const auto p = static_cast<std::size_t>(position[static_cast<std::size_t>(j)]);
    for (std::size_t k = at(q.columns.start, p); k < at(q.columns.start, p + 1); ++k) {
      const auto r = static_cast<std::size_t>(q.columns.record[k]);
      const double wx = weight_of(in.design, r) * q.columns.value[k];
      for (std::size_t e = at(q.rows.start, r + 1); e-- > at(q.rows.start, r);) {
        const auto o = static_cast<std::size_t>(q.rows.record[e]);
        if (o < p) break;
        if (number[o] >= 0) add(number[o], wx * q.rows.value[e]);
      }
    }
    std::sort(rows.begin(), rows.end());
    for (const std::int32_t i : rows) {
      c.row.push_back(i);
      c.value.push_back(sum[static_cast<std::size_t>(i)]);
    }
    c.start.push_back(static_cast<std::int64_t>(c.row.size()));
  }

  FACTOR factor;
  {
    const PATTERN pattern = pattern_of(c, q.dense);
    std::vector<std::int32_t> order;
    REORDER_MATRIX(eh, pattern, 0, order);
    if (eh.terminate()) return;
    SYMBOLICABS2(eh, pattern, order, factor);
    if (eh.terminate()) return;
  }
  ABSORB_CONTROL control;
  control.t0 = work.tolerance;
  control.default_tolerance = work.default_tolerance;
  control.floor = 0.0;
  control.threads = threads;
  control.cancel = work.cancel;
  K4MXXAIL(eh, permute(c, factor.position), control, factor, absorbed);
  if (eh.terminate() || absorbed.cancelled) return;
  for (std::size_t j = 0; j < position.size(); ++j) {
    const bool singular = factor.reciprocal[static_cast<std::size_t>(factor.position[j])] == 0.0;
    left_out[static_cast<std::size_t>(position[j])] = singular ? 1 : 0;
  }
}

/// The inverted diagonal: the reciprocals of C(i,i), 0 for a zero diagonal and for equations that are left out.
void invert_diagonal(const FIT_MODEL& in, const VARIANCE_MODEL& model, std::int64_t mode, const std::vector<std::uint8_t>& left_out,
                     const EVALUATION& ev, MIXED_EQUATIONS& q)
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
  add_random_diagonal(in, model, q, ev, d);
  for (std::size_t t = 0; t < model.terms.size(); ++t) {  // a dropped term has no effects
    if (!model.terms[t].dropped) continue;
    const std::int64_t first = first_equation(in.terms, model.terms[t]);
    for (std::int64_t e = first; e < first + structure_size(model, model.terms[t]); ++e) d[static_cast<std::size_t>(q.position_of(e))] = 0.0;
  }
  q.factor.reciprocal.resize(d.size());
  for (std::size_t p = 0; p < d.size(); ++p) q.factor.reciprocal[p] = d[p] == 0.0 || left_out[p] ? 0.0 : 1.0 / d[p];
}

/// Whether a structure has rows that only bind others, which have no diagonal and make C indefinite, or dimensions without a
/// variance, which may be confounded with the fixed effects.
bool is_singular(const FORMED_TERM& term)
{
  return std::any_of(term.components.begin(), term.components.end(),
                     [](const auto& c) { return !c->lagrangian().empty() || c->counted() < c->inverse().n; });
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
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    if (model.terms[t].dropped || !is_singular(ev.formed.terms[t])) continue;
    const std::string& name = in.terms.rows[static_cast<std::size_t>(model.terms[t].term)].name;
    eh.not_implemented(text("solving by iteration with the singular variance structure of ", name, " is not implemented, use !BLUP 2"));
    return;
  }
  std::vector<std::uint8_t> left_out(n, 0);
  absorb_fixed(eh, in, q, threads, work, left_out, ev.absorbed);
  if (eh.terminate() || ev.absorbed.cancelled) return;
  invert_diagonal(in, model, mode, left_out, ev, q);

  EQUATION_STORE store;
  store.reciprocal = q.factor.reciprocal;
  PRODUCTS products(in, model, q, ev);
  const auto multiply = [&](const double* x, double* y) { products(x, y); };
  if (q.solving == Solving::by_products) {
    store.multiply = multiply;
  } else {
    store.c = &q.c;
  }
  std::vector<double> b(n);
  std::transform(q.r0.begin(), q.r0.end(), b.begin(), [&q](double r) { return q.ri * r; });
  const auto solved = [&](std::vector<double> right, bool told, std::vector<double>& x) {
    const SolverEnd end = L_SOLVE(eh, store, mode, std::move(right), told, multiply, x);
    ev.absorbed.cancelled = end == SolverEnd::aborted;
    if (end == SolverEnd::diverged) ev.fault = convergence_failed;
    ev.iterated = ev.iterated && end == SolverEnd::converged;
    return end == SolverEnd::converged || end == SolverEnd::out_of_rounds;
  };
  ev.iterated = true;
  if (!solved(std::move(b), false, ev.solution)) return;

  ev.constant.clear();
  if (q.mu >= 0 && q.shift != 0.0 && q.factor.reciprocal[static_cast<std::size_t>(q.position_of(q.mu))] == 0.0) {
    // mu was left out as singular: what was taken off the response goes to the effects that span it.
    std::vector<double> constant(n, 0.0);
    constant[static_cast<std::size_t>(q.position_of(q.mu))] = 1.0;
    std::vector<double> right(n);
    products(constant.data(), right.data());  // mu is fixed: G^-1 has no part in it
    if (!solved(std::move(right), true, ev.constant)) return;
  }
  follow_solutions(in, model, q, ev);
  ev.nu = degrees_of_freedom(in, model, q, ev);
}

}  // namespace tolvan
