// A correlation component with one variance, or with one a level.
#include "varstruct/scaled_matrix.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "base/memory.h"
#include "varstruct/block_products.h"
#include "varstruct/form_row.h"

namespace tolvan {

namespace {

bool went_well(Formed formed)
{
  return formed == Formed::done || formed == Formed::done_by_metric;
}

// R = g C:  R^-1 = C^-1 / g,  log|R| = log|C| + n log g,
//   dRi_k = dCi_k / g,  Rdot_k R^-1 = Cdot_k C^-1;  dRi_g = R^-1 / g,  Rdot_g R^-1 = I / g.
class ONE_VARIANCE final : public COMPONENT_MATRIX {
 public:
  ONE_VARIANCE(std::unique_ptr<COMPONENT_MATRIX> core, std::int64_t own) : core_(std::move(core)), own_(own)
  {
  }

  Formed form(FORM_CONTEXT& context) override
  {
    VARIANCE_PARAMETER& variance = parameter(context, own_);
    floor_variance(variance);
    const Formed formed = core_->form(context);
    if (!went_well(formed)) return formed;
    g_ = variance.value;
    const auto n = static_cast<double>(core_->inverse().n);
    if (!assign(context.eh, score_part_, own_ + 1, n / g_)) return Formed::in_handler;
    std::copy(core_->score_part().begin(), core_->score_part().end(), score_part_.begin());
    inverse_ = core_->inverse();
    inverse_.scale /= g_;
    log_determinant_ = core_->log_determinant() + n * std::log(g_);
    return formed;
  }

  void contract(const double* s, double* out) const override
  {
    std::vector<double> of_core(static_cast<std::size_t>(own_), 0.0);
    core_->contract(s, of_core.data());
    for (std::int64_t k = 0; k < own_; ++k) out[k] += of_core[static_cast<std::size_t>(k)] / g_;
    out[own_] += sum_of_products(inverse_, s) / g_;
  }

  void working(std::int64_t k, const double* x, double* y, std::int64_t outer,
               std::int64_t inner) const override
  {
    if (k < own_) {
      core_->working(k, x, y, outer, inner);
      return;
    }
    for (std::int64_t i = 0; i < outer * inverse_.n * inner; ++i) y[i] = x[i] / g_;
  }

  void apply_inverse(const double* x, double* y, std::int64_t outer, std::int64_t inner) const override
  {
    core_->apply_inverse(x, y, outer, inner);
    for (std::int64_t i = 0; i < outer * inverse_.n * inner; ++i) y[i] /= g_;
  }

  void covariance(double* r) const override
  {
    core_->covariance(r);
    for (std::int64_t i = 0; i < inverse_.n * inverse_.n; ++i) r[i] *= g_;
  }

 private:
  std::unique_ptr<COMPONENT_MATRIX> core_;
  std::int64_t own_;
  double g_ = 1.0;
};

// R = D C D, D = diag(sqrt g):  R^-1 = D^-1 C^-1 D^-1,  log|R| = log|C| + sum log g_i,
//   dRi_k = D^-1 dCi_k D^-1,  Rdot_k R^-1 = D Cdot_k C^-1 D^-1;
//   with Rdot_i = (e_i e_i' R + R e_i e_i') / (2 g_i):  dRi_i = (R^-1 e_i e_i' + e_i e_i' R^-1) / (2 g_i).
class LEVEL_VARIANCES final : public COMPONENT_MATRIX {
 public:
  LEVEL_VARIANCES(std::unique_ptr<COMPONENT_MATRIX> core, std::int64_t own)
      : core_(std::move(core)), own_(own)
  {
  }

  Formed form(FORM_CONTEXT& context) override
  {
    const std::int64_t n = context.row.size;
    for (std::int64_t i = 0; i < n; ++i) floor_variance(parameter(context, own_ + i));
    const Formed formed = core_->form(context);
    if (!went_well(formed)) return formed;
    if (!assign(context.eh, oscale_, n, 1.0) || !assign(context.eh, oscinv_, n, 1.0) ||
        !assign(context.eh, score_part_, own_ + n, 0.0) ||
        !assign(context.eh, ri_, core_->inverse().stored(), 0.0) || !assign(context.eh, r_, n * n, 0.0))
      return Formed::in_handler;
    std::copy(core_->score_part().begin(), core_->score_part().end(), score_part_.begin());
    log_determinant_ = core_->log_determinant();
    for (std::size_t i = 0; i < oscale_.size(); ++i) {
      const double g = parameter(context, own_ + static_cast<std::int64_t>(i)).value;
      oscale_[i] = std::sqrt(g);
      oscinv_[i] = 1.0 / oscale_[i];
      log_determinant_ += std::log(g);
      score_part_[static_cast<std::size_t>(own_) + i] = 1.0 / g;
    }
    inverse_ = core_->inverse();
    scale_both_sides(inverse_.values, oscinv_, ri_.data());
    inverse_.values = ri_.data();
    core_->covariance(r_.data());
    for (std::size_t j = 0, at = 0; j < oscale_.size(); ++j)
      for (std::size_t i = 0; i < oscale_.size(); ++i) r_[at++] *= oscale_[i] * oscale_[j];
    return formed;
  }

  void contract(const double* s, double* out) const override
  {
    const std::int64_t n = inverse_.n;
    std::vector<double> scaled(ri_.size());
    scale_both_sides(s, oscinv_, scaled.data());
    core_->contract(scaled.data(), out);
    // the sum of S dRi_i is that of S(a, i) R^-1(a, i) over a, divided by g_i
    for (std::int64_t i = 0; i < n; ++i) {
      double sum = 0.0;
      if (inverse_.shape == Shape::dense) {
        for (std::int64_t a = i * n; a < (i + 1) * n; ++a) sum += s[a] * ri_[static_cast<std::size_t>(a)];
      } else {
        for (std::int64_t a = std::max<std::int64_t>(0, i - inverse_.bandwidth);
             a <= std::min(n - 1, i + inverse_.bandwidth); ++a) {
          const std::int64_t at = std::abs(a - i) * n + std::min(a, i);
          sum += s[at] * ri_[static_cast<std::size_t>(at)];
        }
      }
      const double inverse_sd = oscinv_[static_cast<std::size_t>(i)];
      out[own_ + i] += inverse_.scale * sum * inverse_sd * inverse_sd;
    }
  }

  void working(std::int64_t k, const double* x, double* y, std::int64_t outer,
               std::int64_t inner) const override
  {
    if (k < own_) {
      working_core(k, x, y, outer, inner);
    } else {
      working_level(k - own_, x, y, outer, inner);
    }
  }

  void covariance(double* r) const override { std::copy(r_.begin(), r_.end(), r); }

 private:
  // D Cdot_k C^-1 D^-1 x
  void working_core(std::int64_t k, const double* x, double* y, std::int64_t outer, std::int64_t inner) const
  {
    const std::int64_t n = inverse_.n, slice = n * inner, most = slices_at_once(n, outer, inner);
    std::vector<double> z(static_cast<std::size_t>(slice * most));
    for (std::int64_t o = 0; o < outer; o += most) {
      const std::int64_t count = std::min(most, outer - o);
      banded_times(oscinv_.data(), n, 0, 1.0, x + o * slice, z.data(), count, inner);
      core_->working(k, z.data(), y + o * slice, count, inner);
      double* yj = y + o * slice;
      for (std::int64_t level = 0; level < count * n; ++level, yj += inner) {
        const double sd = oscale_[static_cast<std::size_t>(level % n)];
        for (std::int64_t i = 0; i < inner; ++i) yj[i] *= sd;
      }
    }
  }

  // (e_i x_i + R e_i (R^-1 x)_i) / (2 g_i)
  void working_level(std::int64_t i, const double* x, double* y, std::int64_t outer, std::int64_t inner) const
  {
    const std::int64_t n = inverse_.n;
    const double inverse_sd = oscinv_[static_cast<std::size_t>(i)];
    const double half = 0.5 * inverse_sd * inverse_sd;
    std::vector<double> z(static_cast<std::size_t>(outer * inner));
    row_times(inverse_, i, x, z.data(), outer, inner);
    for (std::int64_t o = 0; o < outer; ++o) {
      const double* zo = z.data() + o * inner;
      for (std::int64_t j = 0; j < n; ++j) {
        const double r = half * r_[static_cast<std::size_t>(j + i * n)];
        double* yj = y + (o * n + j) * inner;
        for (std::int64_t k = 0; k < inner; ++k) yj[k] = r * zo[k];
      }
      const double* xi = x + (o * n + i) * inner;
      double* yi = y + (o * n + i) * inner;
      for (std::int64_t k = 0; k < inner; ++k) yi[k] += half * xi[k];
    }
  }

  // out(a, b) = in(a, b) v_a v_b for an array laid out as the values of the inverse
  void scale_both_sides(const double* in, const std::vector<double>& v, double* out) const
  {
    const auto n = static_cast<std::size_t>(inverse_.n);
    if (inverse_.shape == Shape::dense) {
      for (std::size_t j = 0; j < n; ++j)
        for (std::size_t i = 0; i < n; ++i) out[i + j * n] = in[i + j * n] * v[i] * v[j];
      return;
    }
    for (std::size_t d = 0; d <= static_cast<std::size_t>(inverse_.bandwidth); ++d) {
      for (std::size_t j = 0; j < n; ++j) out[d * n + j] = j + d < n ? in[d * n + j] * v[j] * v[j + d] : 0.0;
    }
  }

  std::unique_ptr<COMPONENT_MATRIX> core_;
  std::int64_t own_;
  std::vector<double> oscale_;  // standard deviations of the levels
  std::vector<double> oscinv_;  // their reciprocals
  std::vector<double> ri_;
  std::vector<double> r_;  // R itself: as many variances as levels make n x n no burden
};

}  // namespace

std::unique_ptr<COMPONENT_MATRIX> with_one_variance(std::unique_ptr<COMPONENT_MATRIX> core,
                                                    std::int64_t own_parameters)
{
  return std::make_unique<ONE_VARIANCE>(std::move(core), own_parameters);
}

std::unique_ptr<COMPONENT_MATRIX> with_level_variances(std::unique_ptr<COMPONENT_MATRIX> core,
                                                       std::int64_t own_parameters)
{
  return std::make_unique<LEVEL_VARIANCES>(std::move(core), own_parameters);
}

}  // namespace tolvan
