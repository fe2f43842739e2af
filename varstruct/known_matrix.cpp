// A known relationship matrix between the levels.
#include "varstruct/known_matrix.h"

#include <algorithm>
#include <cmath>

#include "base/lapack.h"
#include "varstruct/block_products.h"

namespace tolvan {

Formed KNOWN_MATRIX::form(FORM_CONTEXT& context)
{
  const STRUCTURE_ROW& row = context.row;
  if (row.matrix == nullptr || row.matrix->order != row.size) {
    context.eh.error("nrm/grm matrix is not the expected size");
    return Formed::in_handler;
  }
  variance_ = row.parameters > 0 ? context.model.parameters[static_cast<std::size_t>(row.first)].value : 1.0;
  if (variance_ == 0.0) return Formed::zero_variance;
  const auto n = static_cast<double>(row.matrix->counted());
  absent_ = row.matrix->absent;
  inverse_ = row.matrix->inverse();
  inverse_.scale = 1.0 / variance_;
  log_determinant_ = n * std::log(std::fabs(variance_)) + row.matrix->log_determinant;
  score_part_.assign(static_cast<std::size_t>(row.parameters), n / variance_);
  const std::int64_t bound = row.matrix->lagrangian;
  negative_ = variance_ < 0.0 ? row.matrix->counted() - bound : bound;
  if (lagrangian_.empty()) {
    for (std::size_t t = 0; t < row.matrix->bound.size(); ++t) {
      lagrangian_.emplace_back(row.size - bound + static_cast<std::int64_t>(t), row.matrix->bound[t]);
    }
  }
  return Formed::done;
}

void KNOWN_MATRIX::contract(const double* s, double* out) const
{
  if (!score_part_.empty()) out[0] += sum_of_products(inverse_, s) / variance_;
}

void KNOWN_MATRIX::working(std::int64_t, const double* x, double* y, std::int64_t outer,
                           std::int64_t inner) const
{
  const double by = 1.0 / variance_;
  std::transform(x, x + outer * inverse_.n * inner, y, [by](double v) { return by * v; });
}

void KNOWN_MATRIX::covariance(double* r) const
{
  // By inverting what is kept; for small matrices only.
  const std::int64_t n = inverse_.n;
  std::fill(r, r + n * n, 0.0);
  for (std::int64_t j = 0; j < n; ++j) {
    if (inverse_.shape == Shape::dense) {
      std::copy(inverse_.values + j * n, inverse_.values + (j + 1) * n, r + j * n);
      continue;
    }
    if (inverse_.shape == Shape::diagonal) {
      r[j * n + j] = inverse_.values[j];
      continue;
    }
    for (std::int64_t k = inverse_.start[j]; k < inverse_.start[j + 1]; ++k) {
      r[inverse_.row[k] * n + j] = r[j * n + inverse_.row[k]] = inverse_.values[k];
    }
  }
  // Lagrangian rows make it indefinite: by eigenvalues, V diag(g / w) V'.
  std::vector<double> w(static_cast<std::size_t>(n));
  std::vector<double> work;
  std::vector<std::int32_t> iwork;
  dsyevd('V', 'L', n, r, n, w.data(), work, iwork);
  const std::vector<double> v(r, r + n * n);
  std::vector<double> scaled = v;
  for (std::int64_t j = 0; j < n; ++j) {
    const double value = w[static_cast<std::size_t>(j)];
    dscal(n, value == 0.0 ? 0.0 : variance_ / value, scaled.data() + j * n, 1);
  }
  dgemm('N', 'T', n, n, n, 1.0, scaled.data(), n, v.data(), n, 0.0, r, n);
}

}  // namespace tolvan
