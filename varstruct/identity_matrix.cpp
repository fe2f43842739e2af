// The identity over the levels.
#include "varstruct/identity_matrix.h"

#include <algorithm>
#include <cmath>

namespace tolvan {

Formed IDENTITY_MATRIX::form(FORM_CONTEXT& context)
{
  const STRUCTURE_ROW& row = context.row;
  variance_ = row.parameters > 0 ? context.model.parameters[static_cast<std::size_t>(row.first)].value : 1.0;
  if (variance_ == 0.0) return Formed::zero_variance;
  const auto n = static_cast<double>(row.size);
  inverse_ = {};
  inverse_.n = row.size;
  inverse_.scale = 1.0 / variance_;
  log_determinant_ = n * std::log(std::fabs(variance_));
  score_part_.assign(static_cast<std::size_t>(row.parameters), n / variance_);
  negative_ = variance_ < 0.0 ? row.size : 0;
  return Formed::done;
}

void IDENTITY_MATRIX::contract(const double* s, double* out) const
{
  if (!score_part_.empty()) out[0] += s[0] / (variance_ * variance_);
}

void IDENTITY_MATRIX::working(std::int64_t, const double* x, double* y, std::int64_t outer, std::int64_t inner) const
{
  const double by = 1.0 / variance_;
  std::transform(x, x + outer * inverse_.n * inner, y, [by](double v) { return by * v; });
}

void IDENTITY_MATRIX::apply_inverse(const double* x, double* y, std::int64_t outer, std::int64_t inner) const
{
  const double by = inverse_.scale;
  std::transform(x, x + outer * inverse_.n * inner, y, [by](double v) { return by * v; });
}

void IDENTITY_MATRIX::covariance(double* r) const
{
  std::fill(r, r + inverse_.n * inverse_.n, 0.0);
  for (std::int64_t i = 0; i < inverse_.n; ++i) r[i * inverse_.n + i] = variance_;
}

}  // namespace tolvan
