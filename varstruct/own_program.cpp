// The component whose matrix and derivatives a user's own program gives.
#include "varstruct/own_program.h"

#include <algorithm>
#include <cmath>

#include "base/lapack.h"
#include "base/memory.h"
#include "base/packed.h"
#include "varstruct/covariance_models.h"
#include "varstruct/dense_matrix.h"

namespace tolvan {

namespace {

constexpr std::int64_t tile = 64;  // numbers of a row that working() takes at once

class OWN : public COMPONENT_MATRIX {
 public:
  Formed form(FORM_CONTEXT& context) override;
  void contract(const double* s, double* out) const override;
  void working(std::int64_t k, const double* x, double* y, std::int64_t outer,
               std::int64_t inner) const override;
  void covariance(double* r) const override;

 private:
  bool reserve(ERROR_HANDLER& eh, const STRUCTURE_ROW& row);
  const std::vector<double>& given() const { return own_.matrices.front(); }
  const std::vector<double>& derivative(std::size_t k) const { return own_.matrices[k + 1]; }
  double inner_product(const std::vector<double>& packed, const double* full) const;

  OwnForm form_ = OwnForm::plain;
  OWN_MATRICES own_;
  std::vector<double> ri_;             // R^-1: n x n, or n numbers of a diagonal row
  std::vector<double> r_;              // R likewise
  mutable std::vector<double> t_, m_;  // scratch: R^-1 S, R^-1 S R^-1; a tile of the block
};

bool OWN::reserve(ERROR_HANDLER& eh, const STRUCTURE_ROW& row)
{
  const std::int64_t n = row.size;
  const bool diagonal = form_ == OwnForm::diagonal;
  const std::int64_t stored = diagonal ? n : n * n;
  if (inverse_.n == n && static_cast<std::int64_t>(ri_.size()) == stored) return true;
  const std::int64_t scratch = diagonal ? 0 : std::max(stored, n * tile);
  if (!assign(eh, ri_, stored) || !assign(eh, r_, stored) || !assign(eh, t_, scratch) ||
      !assign(eh, m_, scratch) || !assign(eh, score_part_, row.parameters))
    return false;
  inverse_ = {.shape = diagonal ? Shape::diagonal : Shape::dense, .n = n, .values = ri_.data()};
  return true;
}

/// The sum over all a, b of P(a, b) F(a, b), P packed and F full.
double OWN::inner_product(const std::vector<double>& packed, const double* full) const
{
  const std::int64_t n = inverse_.n;
  double sum = 0.0;
  for (std::int64_t i = 0; i < n; ++i) {
    const double* p = packed.data() + packed_size(i);
    const double* f = full + i * n;
    sum += 2.0 * ddot(i, p, 1, f, 1) + p[i] * f[i];
  }
  return sum;
}

/// With G as the program gives it and its derivatives Gdot:
///     plain    R = G,     d log|R| = tr(R^-1 Gdot)
///     inverse  R^-1 = G,  d log|R| = -tr(R Gdot)
Formed OWN::form(FORM_CONTEXT& context)
{
  ERROR_HANDLER& eh = context.eh;
  const Frame here{eh, __func__};
  if (!K4MOWN(eh, context.row, context.model, form_, own_) || !reserve(eh, context.row))
    return Formed::in_handler;
  const std::int64_t n = inverse_.n;
  log_determinant_ = 0.0;
  if (form_ == OwnForm::diagonal) {
    for (std::size_t i = 0; i < r_.size(); ++i) {
      r_[i] = given()[i];
      if (!(r_[i] > 0.0) || !std::isfinite(r_[i])) return Formed::in_handler;
      ri_[i] = 1.0 / r_[i];
      log_determinant_ += std::log(r_[i]);
    }
    for (std::size_t k = 0; k < score_part_.size(); ++k)
      score_part_[k] = ddot(n, ri_.data(), 1, derivative(k).data(), 1);
    return Formed::done;
  }

  const bool inverse = form_ == OwnForm::inverse;
  std::vector<double>& matrix = inverse ? ri_ : r_;
  std::vector<double>& other = inverse ? r_ : ri_;
  const PackedSymmetric<const double> g{given()};
  for (std::int64_t j = 0; j < n; ++j) {
    for (std::int64_t i = 0; i < n; ++i) matrix[static_cast<std::size_t>(i + j * n)] = g(i + 1, j + 1);
  }
  std::copy(matrix.begin(), matrix.end(), other.begin());
  if (dpotrf('L', n, other.data(), n) != 0) return Formed::in_handler;
  for (std::int64_t i = 0; i < n; ++i)
    log_determinant_ += 2.0 * std::log(other[static_cast<std::size_t>(i + i * n)]);
  if (inverse) log_determinant_ = -log_determinant_;
  if (!std::isfinite(log_determinant_) || dpotri('L', n, other.data(), n) != 0) return Formed::in_handler;
  mirror_lower(other.data(), n, n);
  for (std::size_t k = 0; k < score_part_.size(); ++k)
    score_part_[k] = (inverse ? -1.0 : 1.0) * inner_product(derivative(k), other.data());
  return Formed::done;
}

void OWN::contract(const double* s, double* out) const
{
  const std::int64_t n = inverse_.n;
  switch (form_) {
    case OwnForm::diagonal:
      for (std::size_t k = 0; k < score_part_.size(); ++k) {
        for (std::size_t i = 0; i < ri_.size(); ++i) out[k] += s[i] * derivative(k)[i] * ri_[i] * ri_[i];
      }
      return;
    case OwnForm::inverse:
      for (std::size_t k = 0; k < score_part_.size(); ++k) out[k] -= inner_product(derivative(k), s);
      return;
    case OwnForm::plain:
      dgemm('N', 'N', n, n, n, 1.0, ri_.data(), n, s, n, 0.0, t_.data(), n);
      dgemm('N', 'N', n, n, n, 1.0, t_.data(), n, ri_.data(), n, 0.0, m_.data(), n);
      for (std::size_t k = 0; k < score_part_.size(); ++k) out[k] += inner_product(derivative(k), m_.data());
      return;
  }
}

/// Rdot R^-1 x: Gdot (R^-1 x), or R (-Gdot x) where the program gives the inverse.
void OWN::working(std::int64_t k, const double* x, double* y, std::int64_t outer, std::int64_t inner) const
{
  const std::int64_t n = inverse_.n;
  const std::vector<double>& d = derivative(static_cast<std::size_t>(k));
  const bool inverse = form_ == OwnForm::inverse;
  for (std::int64_t o = 0; o < outer; ++o, x += n * inner, y += n * inner) {
    if (form_ == OwnForm::diagonal) {
      for (std::int64_t i = 0; i < n; ++i) {
        const double by = d[static_cast<std::size_t>(i)] * ri_[static_cast<std::size_t>(i)];
        for (std::int64_t c = i * inner; c < (i + 1) * inner; ++c) y[c] = by * x[c];
      }
      continue;
    }
    for (std::int64_t from = 0; from < inner; from += tile) {
      const std::int64_t width = std::min(tile, inner - from);
      // tiles are width x n by columns
      const auto by_derivative = [&](const double* a, std::int64_t lda, double alpha, double* b,
                                     std::int64_t ldb) {
        for (std::int64_t i = 0; i < n; ++i) std::fill(b + i * ldb, b + i * ldb + width, 0.0);
        for (std::int64_t i = 0; i < n; ++i) {
          for (std::int64_t j = 0; j <= i; ++j) {
            const double e = alpha * d[static_cast<std::size_t>(packed_size(i) + j)];
            for (std::int64_t c = 0; c < width; ++c) b[i * ldb + c] += e * a[j * lda + c];
            if (j == i) continue;
            for (std::int64_t c = 0; c < width; ++c) b[j * ldb + c] += e * a[i * lda + c];
          }
        }
      };
      if (inverse) {
        by_derivative(x + from, inner, -1.0, t_.data(), tile);
        dgemm('N', 'N', width, n, n, 1.0, t_.data(), tile, r_.data(), n, 0.0, y + from, inner);
      } else {
        dgemm('N', 'N', width, n, n, 1.0, x + from, inner, ri_.data(), n, 0.0, t_.data(), tile);
        by_derivative(t_.data(), tile, 1.0, y + from, inner);
      }
    }
  }
}

void OWN::covariance(double* r) const
{
  const std::int64_t n = inverse_.n;
  if (form_ != OwnForm::diagonal) {
    std::copy(r_.begin(), r_.end(), r);
    return;
  }
  std::fill(r, r + n * n, 0.0);
  for (std::int64_t i = 0; i < n; ++i) r[i * (n + 1)] = r_[static_cast<std::size_t>(i)];
}

}  // namespace

std::unique_ptr<COMPONENT_MATRIX> make_own(const STRUCTURE_ROW&, const VARIANCE_MODEL&)
{
  return std::make_unique<OWN>();
}

}  // namespace tolvan
