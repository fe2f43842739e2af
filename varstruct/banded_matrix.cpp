// A component whose inverse is banded: derivatives against a matrix, working variables, the matrix itself.
#include "varstruct/banded_matrix.h"

#include <algorithm>
#include <cmath>

#include "base/lapack.h"
#include "base/memory.h"
#include "varstruct/block_products.h"

namespace tolvan {

namespace {

constexpr double negligible = 1e-20;  // an element of R up to this is 0

}  // namespace

bool BANDED_MATRIX::size_bands(ERROR_HANDLER& eh, std::int64_t n, std::int64_t b, std::int64_t p)
{
  n_ = n;
  b_ = b;
  if (!assign(eh, ri_, n * (b + 1), 0.0) || !assign(eh, dri_, p * n * (b + 1), 0.0) ||
      !assign(eh, f_, n * b, 0.0) || !assign(eh, e_, n, 1.0) || !assign(eh, score_part_, p, 0.0))
    return false;
  inverse_ = {.shape = Shape::banded, .n = n, .bandwidth = b, .values = ri_.data()};
  return true;
}

void BANDED_MATRIX::contract(const double* s, double* out) const
{
  const std::int64_t size = n_ * (b_ + 1);
  for (std::size_t k = 0; k < score_part_.size(); ++k) {
    const double* dri = dri_.data() + static_cast<std::int64_t>(k) * size;
    out[k] += ddot(n_, dri, 1, s, 1) + 2.0 * ddot(n_ * b_, dri + n_, 1, s + n_, 1);
  }
}

void BANDED_MATRIX::working(std::int64_t k, const double* x, double* y, std::int64_t outer,
                            std::int64_t inner) const
{
  banded_times(dri_.data() + k * n_ * (b_ + 1), n_, b_, 1.0, x, y, outer, inner);
  solve(y, outer, inner);
}

// R = F^-1 E^-1 F'^-1: up the levels through F', a division by E, down the levels through F.
void BANDED_MATRIX::solve(double* y, std::int64_t outer, std::int64_t inner) const
{
  for (std::int64_t o = 0; o < outer; ++o, y += n_ * inner) {
    for (std::int64_t t = n_ - 1; t >= 0; --t) {
      const double* yt = y + t * inner;
      for (std::int64_t a = 1; a <= std::min(b_, t); ++a) {
        const double f = f_[static_cast<std::size_t>((a - 1) * n_ + t)];
        double* before = y + (t - a) * inner;
        for (std::int64_t k = 0; k < inner; ++k) before[k] -= f * yt[k];
      }
    }
    for (std::int64_t t = 0; t < n_; ++t) {
      const double e = e_[static_cast<std::size_t>(t)];
      double* yt = y + t * inner;
      for (std::int64_t k = 0; k < inner; ++k) yt[k] /= e;
      for (std::int64_t a = 1; a <= std::min(b_, t); ++a) {
        const double f = f_[static_cast<std::size_t>((a - 1) * n_ + t)];
        const double* before = y + (t - a) * inner;
        for (std::int64_t k = 0; k < inner; ++k) yt[k] -= f * before[k];
      }
    }
  }
}

void BANDED_MATRIX::covariance(double* r) const
{
  std::fill(r, r + n_ * n_, 0.0);
  for (std::int64_t i = 0; i < n_; ++i) r[i + i * n_] = 1.0;
  solve(r, n_, 1);
  for (std::int64_t j = 0; j < n_; ++j) {
    for (std::int64_t i = j; i < n_; ++i) {
      double& lower = r[i + j * n_];
      if (std::fabs(lower) <= negligible) lower = 0.0;
      r[j + i * n_] = lower;
    }
  }
}

}  // namespace tolvan
