// The mixed-model equations solved by iteration.  Routine: K4MSLV.
#include "estimation/iterative_solver.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>

#include "base/memory.h"
#include "base/text.h"
#include "reports/user_abort.h"

namespace tolvan {
namespace {

constexpr double converged_at = -10.0;
constexpr double diverged_above = 1.0;
constexpr std::int64_t rounds_of_grace = 4;

/// The sums of squares of one round.
struct SQUARES {
  double changes = 0.0;
  double solutions = 0.0;
};

double measure_of(const SQUARES& s)
{
  if (s.changes == 0.0) return -std::numeric_limits<double>::infinity();
  return std::log10(s.changes / s.solutions);
}

std::size_t at(const std::vector<std::int64_t>& start, std::size_t i) { return static_cast<std::size_t>(start[i]); }

/// One sweep of Gauss-Seidel with relaxation (Golub & Van Loan, sec. 11.2): new = old + factor (value / diagonal - old).
///
/// Only the lower triangle is at hand, by columns.  What the equations before i take from it was put into `before` when they
/// were done; what those behind it take is column i against the old solutions: one pass over the elements.
SQUARES sweep(const EQUATION_STORE& q, const std::vector<double>& b, double factor, std::vector<double>& x, std::vector<double>& before)
{
  const COEFFICIENTS& c = *q.c;
  SQUARES sums;
  std::fill(before.begin(), before.end(), 0.0);
  for (std::size_t i = 0; i < x.size(); ++i) {
    if (q.reciprocal[i] == 0.0) continue;
    const std::size_t from = at(c.start, i) + 1;  // past the diagonal
    const std::size_t to = at(c.start, i + 1);
    double value = b[i] - before[i];
    for (std::size_t k = from; k < to; ++k) value -= c.value[k] * x[static_cast<std::size_t>(c.row[k])];
    const double change = factor * (value * q.reciprocal[i] - x[i]);
    x[i] += change;
    for (std::size_t k = from; k < to; ++k) before[static_cast<std::size_t>(c.row[k])] += c.value[k] * x[i];
    sums.changes += change * change;
    sums.solutions += x[i] * x[i];
  }
  return sums;
}

/// y = C x by the lower triangle.
void multiply_by_rows(const COEFFICIENTS& c, const double* x, double* y)
{
  const auto n = static_cast<std::size_t>(c.n);
  std::fill(y, y + n, 0.0);
  for (std::size_t j = 0; j < n; ++j) {
    const std::size_t from = at(c.start, j);
    const std::size_t to = at(c.start, j + 1);
    const double xj = x[j];
    double sum = c.value[from] * xj;
    for (std::size_t k = from + 1; k < to; ++k) {
      const auto i = static_cast<std::size_t>(c.row[k]);
      sum += c.value[k] * x[i];
      y[i] += c.value[k] * xj;
    }
    y[j] += sum;
  }
}

/// Conjugate gradients preconditioned by the diagonal (Golub & Van Loan, sec. 11.5).
class GRADIENTS {
 public:
  GRADIENTS(const EQUATION_STORE& q, const std::vector<double>& b) : q_(q), r_(b), p_(b.size(), 0.0), cp_(b.size())
  {
    for (std::size_t i = 0; i < r_.size(); ++i) {
      if (q_.reciprocal[i] == 0.0) r_[i] = 0.0;
    }
  }

  /// One step; false when C is not positive along the direction.
  bool step(std::vector<double>& x, SQUARES& sums)
  {
    double rz = 0.0;
    for (std::size_t i = 0; i < r_.size(); ++i) rz += r_[i] * r_[i] * q_.reciprocal[i];
    sums = {};
    if (rz == 0.0) return true;  // solved
    if (!std::isfinite(rz) || rz < 0.0) return false;
    const double beta = before_ > 0.0 ? rz / before_ : 0.0;
    before_ = rz;
    for (std::size_t i = 0; i < p_.size(); ++i) p_[i] = q_.reciprocal[i] * r_[i] + beta * p_[i];
    if (q_.multiply) {
      q_.multiply(p_.data(), cp_.data());
    } else {
      multiply_by_rows(*q_.c, p_.data(), cp_.data());
    }
    double pcp = 0.0;
    for (std::size_t i = 0; i < p_.size(); ++i) pcp += p_[i] * cp_[i];
    if (!(pcp > 0.0)) return false;
    const double alpha = rz / pcp;
    for (std::size_t i = 0; i < p_.size(); ++i) {
      if (q_.reciprocal[i] == 0.0) continue;
      const double change = alpha * p_[i];
      x[i] += change;
      r_[i] -= alpha * cp_[i];
      sums.changes += change * change;
      sums.solutions += x[i] * x[i];
    }
    return true;
  }

 private:
  const EQUATION_STORE& q_;
  std::vector<double> r_;   // what the solutions leave of the right-hand side
  std::vector<double> p_;   // the direction
  std::vector<double> cp_;  // C times it
  double before_ = 0.0;     // r'z of the step before
};

/// Looks for the user's wish to stop, ten times a second at most.
class USER_WATCH {
 public:
  bool stop(ERROR_HANDLER& eh)
  {
    const auto now = std::chrono::steady_clock::now();
    if (looked_ && now - last_ < std::chrono::milliseconds(100)) return false;
    looked_ = true;
    last_ = now;
    if (!abort_file_exists()) return false;
    CHECK_FOR_USER_ABORT(eh);
    return true;
  }

 private:
  bool looked_ = false;
  std::chrono::steady_clock::time_point last_;
};

}  // namespace

SOLVER_REPORT K4MSLV(ERROR_HANDLER& eh, const EQUATION_STORE& q, const std::vector<double>& b, std::vector<double>& x,
                     std::int64_t method, std::int64_t maximum_rounds, bool told)
{
  const Frame here{eh, __func__};
  const bool gradients = method == conjugate_gradients;
  const double relaxation = gradients || method == gauss_seidel ? 0.0 : 0.1 * static_cast<double>(method);

  SOLVER_REPORT report;
  x.assign(b.size(), 0.0);
  const auto count = std::count_if(q.reciprocal.begin(), q.reciprocal.end(), [](double d) { return d != 0.0; });
  if (count == 0) return report;
  if (!gradients && q.c == nullptr) {
    eh.internal("Sparse matrix linked list not set up as expected");
    return report;
  }
  if (!told) {
    eh.note(gradients ? std::string("solving mixed model equations by PCG iteration method")
                      : text("solving mixed model equations by Gauss Seidel iteration",
                             relaxation > 0.0 ? text(", with relaxation factor ", edit_f(relaxation, 4, 1)) : std::string()));
  }

  GRADIENTS pcg(q, gradients ? b : std::vector<double>());
  std::vector<double> before(gradients ? 0 : b.size());
  USER_WATCH watch;
  report.end = SolverEnd::out_of_rounds;
  while (report.rounds < maximum_rounds) {
    if (watch.stop(eh)) {
      report.end = SolverEnd::aborted;
      return report;
    }
    ++report.rounds;
    SQUARES sums;
    bool positive = true;
    if (gradients) {
      positive = pcg.step(x, sums);
    } else {
      sums = sweep(q, b, relaxation > 0.0 ? relaxation : 1.0, x, before);
    }
    report.measure = measure_of(sums);
    if (positive && report.measure <= converged_at) {
      report.end = SolverEnd::converged;
      return report;
    }
    const bool lost = !positive || !std::isfinite(sums.changes) || !std::isfinite(sums.solutions);
    if (lost || (report.rounds > rounds_of_grace && report.measure > diverged_above)) {
      report.end = SolverEnd::diverged;
      eh.error(relaxation > 0.0 ? "convergence failure, try reducing the acceleration factor" : "convergence failure");
      return report;
    }
  }
  return report;
}

}  // namespace tolvan
