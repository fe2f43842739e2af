// What models with a full R and derivatives of low rank share.
#include "varstruct/dense_covariance.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "base/lapack.h"
#include "base/memory.h"
#include "varstruct/dense_matrix.h"

namespace tolvan {

namespace {

constexpr std::int64_t tile = 64;  // numbers of a row that working() takes at once

/// z[k] = sum over a of g[a] x(a, k), k < width, the rows of x being `inner` apart.
void combine(const double* g, std::int64_t n, const double* x, std::int64_t inner, std::int64_t width,
             double* z)
{
  if (width == 1) {
    z[0] = ddot(n, g, 1, x, inner);
    return;
  }
  std::fill(z, z + width, 0.0);
  for (std::int64_t a = 0; a < n; ++a) {
    const double* row = x + a * inner;
    for (std::int64_t k = 0; k < width; ++k) z[k] += g[a] * row[k];
  }
}

}  // namespace

bool DENSE_COVARIANCE::make_room(ERROR_HANDLER& eh, std::int64_t n, std::int64_t p, std::int64_t columns)
{
  if (inverse_.n == n && inverse_.values == ri_.data() && columns_ == columns &&
      derivatives_.size() == static_cast<std::size_t>(p))
    return true;
  std::int64_t square = 0;
  if (!fits_blas(n) || !multiply_sizes(n, n, square)) {
    eh.out_of_memory();
    return false;
  }
  const std::int64_t panel = n * columns;
  for (auto* a : {&r_, &ri_, &t_, &m_}) {
    if (!assign(eh, *a, square)) return false;
  }
  for (auto* a : {&w_, &riw_, &mw_}) {
    if (!assign(eh, *a, panel)) return false;
  }
  if (!assign(eh, derivatives_, p) || !assign(eh, score_part_, p)) return false;
  columns_ = columns;
  inverse_ = {.shape = Shape::dense, .n = n, .values = ri_.data()};
  return true;
}

std::int64_t DENSE_COVARIANCE::invert(double tolerance)
{
  std::copy(r_.begin(), r_.end(), ri_.begin());
  const std::int64_t minor = dpotrf('L', n(), ri_.data(), n());
  if (minor != 0) return minor;
  for (std::int64_t i = 0; i < n(); ++i) {
    const double c = ri_[static_cast<std::size_t>(i + i * n())];
    if (!(c * c > tolerance * r(i, i))) return i + 1;
  }
  return invert_factor();
}

std::int64_t DENSE_COVARIANCE::invert_factor()
{
  log_determinant_ = 0.0;
  for (std::int64_t i = 0; i < n(); ++i) {
    const double c = ri_[static_cast<std::size_t>(i + i * n())];
    if (!(c > 0.0) || !std::isfinite(c)) return i + 1;
    log_determinant_ += 2.0 * std::log(c);
  }
  const std::int64_t failed = dpotri('L', n(), ri_.data(), n());
  if (failed == 0) mirror_lower(ri_.data(), n(), n());
  return failed;
}

void DENSE_COVARIANCE::finish()
{
  if (columns_ > 0)
    dgemm('N', 'N', n(), columns_, n(), 1.0, ri_.data(), n(), w_.data(), n(), 0.0, riw_.data(), n());
  std::fill(score_part_.begin(), score_part_.end(), 0.0);
  add_traces(ri_.data(), riw_.data(), nullptr, score_part_.data());
}

/// out[k] += tr(M Rdot_k), for a symmetric M with M W and T = M R at hand; no T stands for the identity.
///     tr(M (e_i w' + w e_i')) = 2 (M w)_i,   tr(M w w') = w' M w
void DENSE_COVARIANCE::add_traces(const double* m, const double* mw, const double* t, double* out) const
{
  const std::int64_t n = inverse_.n;
  for (std::size_t k = 0; k < derivatives_.size(); ++k) {
    const RANK_TWO& d = derivatives_[k];
    if (d.i < 0) {
      out[k] += d.factor * ddot(n, w_.data() + d.c * n, 1, mw + d.c * n, 1);
      continue;
    }
    const std::int64_t at = d.i + d.c * n;
    const double product = d.source == RANK_TWO::Source::level    ? m[at]
                           : d.source == RANK_TWO::Source::factor ? mw[at]
                           : t != nullptr                         ? t[at]
                                                                  : static_cast<double>(d.i == d.c);
    out[k] += 2.0 * d.factor * product + d.diagonal * m[d.i + d.i * n];
  }
}

void DENSE_COVARIANCE::contract(const double* s, double* out) const
{
  const std::int64_t n = inverse_.n;
  dgemm('N', 'N', n, n, n, 1.0, ri_.data(), n, s, n, 0.0, t_.data(), n);
  dgemm('N', 'N', n, n, n, 1.0, t_.data(), n, ri_.data(), n, 0.0, m_.data(), n);
  if (columns_ > 0) dgemm('N', 'N', n, columns_, n, 1.0, m_.data(), n, w_.data(), n, 0.0, mw_.data(), n);
  add_traces(m_.data(), mw_.data(), t_.data(), out);
}

/// With z = R^-1 x:  Rdot z = factor (e_i (w'z) + w z_i) + diagonal e_i z_i, where w'z = (R^-1 w)'x; the rows
/// of x that a sum needs are run through a tile at a time.
void DENSE_COVARIANCE::working(std::int64_t k, const double* x, double* y, std::int64_t outer,
                               std::int64_t inner) const
{
  const std::int64_t n = inverse_.n;
  const RANK_TWO& d = derivatives_[static_cast<std::size_t>(k)];
  const bool level = d.source == RANK_TWO::Source::level;
  const bool matrix = d.source == RANK_TWO::Source::matrix;
  const double* row = d.i < 0 ? nullptr : ri_.data() + d.i * n;
  const double* w = level ? nullptr : matrix ? r_.data() + d.c * n : w_.data() + d.c * n;
  const double* g = level ? ri_.data() + d.c * n : matrix ? nullptr : riw_.data() + d.c * n;
  std::array<double, tile> wz, zi;
  for (std::int64_t o = 0; o < outer; ++o, x += n * inner, y += n * inner) {
    for (std::int64_t from = 0; from < inner; from += tile) {
      const std::int64_t width = std::min(tile, inner - from);
      if (g != nullptr) {
        combine(g, n, x + from, inner, width, wz.data());
      } else {
        std::copy_n(x + d.c * inner + from, width, wz.data());
      }
      if (row != nullptr) combine(row, n, x + from, inner, width, zi.data());
      const double* spread = row != nullptr ? zi.data() : wz.data();
      for (std::int64_t a = 0; a < n; ++a) {
        double* out = y + a * inner + from;
        const double by = d.factor * (level ? static_cast<double>(a == d.c) : w[a]);
        if (by == 0.0) {
          std::fill(out, out + width, 0.0);
        } else {
          for (std::int64_t t = 0; t < width; ++t) out[t] = by * spread[t];
        }
      }
      if (row == nullptr) continue;
      double* out = y + d.i * inner + from;
      for (std::int64_t t = 0; t < width; ++t) out[t] += d.factor * wz[static_cast<std::size_t>(t)];
      if (d.diagonal == 0.0) continue;
      for (std::int64_t t = 0; t < width; ++t) out[t] += d.diagonal * zi[static_cast<std::size_t>(t)];
    }
  }
}

void DENSE_COVARIANCE::covariance(double* r) const
{
  std::copy(r_.begin(), r_.end(), r);
}

}  // namespace tolvan
