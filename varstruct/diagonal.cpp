// A diagonal covariance matrix: one variance a level.
#include <algorithm>
#include <cmath>

#include "base/memory.h"
#include "base/text.h"
#include "varstruct/covariance_models.h"
#include "varstruct/form_row.h"

namespace tolvan {

namespace {

constexpr double drop_ratio = 10.0;  // a variance at its boundary that fell by more than this goes to zero

class DIAGONAL : public COMPONENT_MATRIX {
 public:
  Formed form(FORM_CONTEXT& context) override;
  void contract(const double* s, double* out) const override;
  void working(std::int64_t k, const double* x, double* y, std::int64_t outer,
               std::int64_t inner) const override;
  void covariance(double* r) const override;

 private:
  bool gone(std::size_t i) const { return v_[i] == 0.0; }

  std::vector<double> v_;         // variances
  std::vector<double> ri_;        // their inverses
  std::vector<double> previous_;  // variances of the last iteration
  std::int64_t iteration_ = -1;   // that v_ belongs to
};

/// R^-1 = diag(1/v),   log|R| = sum log|v|,   dRi_i = 1/v_i^2 at (i, i),   d log|R| / dv_i = 1/v_i.
/// For a level that is gone all of them but the inverse and the log-determinant are 0.
Formed DIAGONAL::form(FORM_CONTEXT& context)
{
  ERROR_HANDLER& eh = context.eh;
  const Frame here{eh, __func__};
  const STRUCTURE_ROW& row = context.row;
  const std::int64_t n = row.size;
  if (!check_row_size(eh, row, n)) return Formed::in_handler;
  if (static_cast<std::int64_t>(v_.size()) != n) {
    if (!assign(eh, v_, n) || !assign(eh, ri_, n) || !assign(eh, previous_, n) || !assign(eh, score_part_, n))
      return Formed::in_handler;
    inverse_ = {.shape = Shape::diagonal, .n = n, .values = ri_.data()};
  }
  if (context.iteration != iteration_) {
    std::copy(v_.begin(), v_.end(), previous_.begin());
    iteration_ = context.iteration;
  }

  log_determinant_ = 0.0;
  negative_ = 0;
  for (std::size_t i = 0; i < v_.size(); ++i) {
    VARIANCE_PARAMETER& theta = context.model.parameters[static_cast<std::size_t>(row.first) + i];
    if (theta.constraint == Constraint::B && theta.value > 0.0 && previous_[i] > drop_ratio * theta.value) {
      theta.value = 0.0;
      eh.warning(text("Element of DIAG structure set to 0.0 at iteration ", context.iteration));
    }
    v_[i] = theta.value;
    if (gone(i)) {
      if (is_free(theta.constraint)) theta.constraint = Constraint::B;
      ri_[i] = gone_level;
      log_determinant_ -= std::log(gone_level);
      score_part_[i] = 0.0;
      continue;
    }
    ri_[i] = 1.0 / v_[i];
    log_determinant_ += std::log(std::fabs(v_[i]));
    score_part_[i] = ri_[i];
    if (v_[i] < 0.0) ++negative_;
  }
  return Formed::done;
}

void DIAGONAL::contract(const double* s, double* out) const
{
  for (std::size_t i = 0; i < v_.size(); ++i) {
    if (!gone(i)) out[i] += s[i] * ri_[i] * ri_[i];
  }
}

void DIAGONAL::working(std::int64_t k, const double* x, double* y, std::int64_t outer,
                       std::int64_t inner) const
{
  const std::int64_t n = inverse_.n;
  const auto level = static_cast<std::size_t>(k);
  const double by = gone(level) ? 0.0 : ri_[level];
  std::fill(y, y + outer * n * inner, 0.0);
  for (std::int64_t o = 0; o < outer; ++o) {
    const double* from = x + (o * n + k) * inner;
    std::transform(from, from + inner, y + (o * n + k) * inner, [by](double a) { return by * a; });
  }
}

void DIAGONAL::covariance(double* r) const
{
  const std::int64_t n = inverse_.n;
  std::fill(r, r + n * n, 0.0);
  for (std::int64_t i = 0; i < n; ++i) r[i * n + i] = v_[static_cast<std::size_t>(i)];
}

}  // namespace

std::unique_ptr<COMPONENT_MATRIX> make_diagonal(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model)
{
  if (row.own >= 0) return make_own(row, model);
  return std::make_unique<DIAGONAL>();
}

}  // namespace tolvan
