// Antedependence: the covariance matrix by its factors on the information scale, V^-1 = U D U'.
#include <algorithm>
#include <array>
#include <cmath>

#include "base/lapack.h"
#include "base/memory.h"
#include "base/packed.h"
#include "base/text.h"
#include "varstruct/covariance_models.h"
#include "varstruct/dense_matrix.h"
#include "varstruct/form_row.h"
#include "varstruct/hold_factors.h"
#include "varstruct/rescale_factors.h"

namespace tolvan {

namespace {

constexpr double diagonal_ratio = 1000000.0;  // largest to smallest D
constexpr double element_limit = 100000.0;    // of U
constexpr std::int64_t tile = 64;             // numbers of a row that working() takes at once

class ANTEDEPENDENCE : public COMPONENT_MATRIX {
 public:
  Formed form(FORM_CONTEXT& context) override;
  void contract(const double* s, double* out) const override;
  void working(std::int64_t k, const double* x, double* y, std::int64_t outer,
               std::int64_t inner) const override;
  void covariance(double* r) const override;

 private:
  bool reserve(ERROR_HANDLER& eh, const STRUCTURE_ROW& row);
  bool factorise(const PackedLower<VARIANCE_PARAMETER>& theta);
  /// Column j of U begins here.
  std::int64_t first(std::int64_t j) const { return std::max<std::int64_t>(0, j - inverse_.bandwidth); }
  double u(std::int64_t i, std::int64_t j) const { return u_[static_cast<std::size_t>(i + j * inverse_.n)]; }

  std::vector<double> u_;       // U, unit upper triangular, n x n
  std::vector<double> d_;       // D
  std::vector<double> t_;       // T = U^-1', unit lower triangular, n x n
  std::vector<double> v_;       // V = T D^-1 T', n x n
  std::vector<double> scaled_;  // T D^-1/2
  std::vector<double> bands_;   // V^-1
  bool formed_ = false;         // before: the values that a fit starts with are the user's
  std::vector<int> at_bound_;   // how often in a row a D came back to its bound
};

bool ANTEDEPENDENCE::reserve(ERROR_HANDLER& eh, const STRUCTURE_ROW& row)
{
  const std::int64_t n = row.size;
  const std::int64_t band = std::clamp<std::int64_t>(row.order, 0, std::max<std::int64_t>(0, n - 1));
  if (inverse_.shape == Shape::banded && inverse_.n == n && inverse_.bandwidth == band) return true;
  std::int64_t square = 0;
  if (!fits_blas(n) || !multiply_sizes(n, n, square)) {
    eh.out_of_memory();
    return false;
  }
  for (auto* a : {&u_, &t_, &v_, &scaled_}) {
    if (!assign(eh, *a, square)) return false;
  }
  if (!assign(eh, d_, n) || !assign(eh, bands_, (band + 1) * n) || !assign(eh, score_part_, row.parameters))
    return false;
  inverse_ = {.shape = Shape::banded, .n = n, .bandwidth = band, .values = bands_.data()};
  return true;
}

/// U, D, T and V from the parameters, held to their limits; false if they are no numbers to work with.
bool ANTEDEPENDENCE::factorise(const PackedLower<VARIANCE_PARAMETER>& theta)
{
  const std::int64_t n = inverse_.n;
  double largest = 0.0;
  for (std::int64_t i = 1; i <= n; ++i) largest = std::max(largest, theta(i, i).value);
  std::fill(u_.begin(), u_.end(), 0.0);
  for (std::int64_t j = 0; j < n; ++j) {
    double& d = theta(j + 1, j + 1).value;
    d = std::max(d, largest / diagonal_ratio);
    if (!(d > 0.0)) return false;
    d_[static_cast<std::size_t>(j)] = d;
    u_[static_cast<std::size_t>(j + j * n)] = 1.0;
    for (std::int64_t i = first(j); i < j; ++i) {
      double& x = theta(j + 1, i + 1).value;
      x = std::clamp(x, -element_limit, element_limit);
      u_[static_cast<std::size_t>(i + j * n)] = x;
    }
  }
  v_ = u_;  // of the same size: no allocation
  if (dtrtri('U', 'U', n, v_.data(), n) != 0) return false;
  for (std::int64_t j = 0; j < n; ++j) {
    const double root = std::sqrt(d_[static_cast<std::size_t>(j)]);
    for (std::int64_t i = 0; i < n; ++i) {
      const double x = v_[static_cast<std::size_t>(j + i * n)];
      t_[static_cast<std::size_t>(i + j * n)] = x;
      scaled_[static_cast<std::size_t>(i + j * n)] = x / root;
    }
  }
  dsyrk('L', 'N', n, n, 1.0, scaled_.data(), n, 0.0, v_.data(), n);
  for (std::int64_t j = 0; j < n; ++j)
    if (!std::isfinite(v_[static_cast<std::size_t>(j + j * n)])) return false;
  mirror_lower(v_.data(), n, n);
  return true;
}

/// (V^-1)_ab = sum over j from max(a, b) to min(a, b) + band of U_aj D_j U_bj,   log|V| = -sum log D_i.
Formed ANTEDEPENDENCE::form(FORM_CONTEXT& context)
{
  ERROR_HANDLER& eh = context.eh;
  const Frame here{eh, __func__};
  const STRUCTURE_ROW& row = context.row;
  const std::int64_t n = row.size;
  if (!check_row_size(eh, row, packed_size(n))) return Formed::in_handler;
  if (!reserve(eh, row)) return Formed::in_handler;
  const PackedLower<VARIANCE_PARAMETER> theta{
      {context.model.parameters.data() + row.first, static_cast<std::size_t>(row.parameters)}};
  if (formed_) hold_precision_factors(theta, n, at_bound_);
  if (!factorise(theta) && !rescale_factors(context, theta, n, [&] { return factorise(theta); })) {
    std::int64_t minor = 1;  // the first level whose D or V is no positive number
    while (minor < n && theta(minor, minor).value > 0.0 &&
           std::isfinite(v_[static_cast<std::size_t>((minor - 1) * (n + 1))]))
      ++minor;
    eh.warning(text("failed to invert UDU' structure  (leading minor order=", minor, ")"));
    return Formed::in_handler;
  }

  std::fill(bands_.begin(), bands_.end(), 0.0);
  std::fill(score_part_.begin(), score_part_.end(), 0.0);
  log_determinant_ = 0.0;
  for (std::int64_t j = 0; j < n; ++j) {
    const double d = d_[static_cast<std::size_t>(j)];
    for (std::int64_t b = first(j); b <= j; ++b) {
      for (std::int64_t a = b; a <= j; ++a)
        bands_[static_cast<std::size_t>((a - b) * n + b)] += u(a, j) * d * u(b, j);
    }
    log_determinant_ -= std::log(d);
    score_part_[static_cast<std::size_t>(packed_size(j + 1) - 1)] = -1.0 / d;
  }
  formed_ = true;
  return Formed::done;
}

/// dRi = -(E_ij D U' + U D E_ji) = -(e_i w' + w e_i') with w = D_j U_.j for U_ij, and -U_.i U_.i' for D_i.
void ANTEDEPENDENCE::contract(const double* s, double* out) const
{
  const std::int64_t n = inverse_.n;
  const auto at = [&](std::int64_t a, std::int64_t b) { return s[std::abs(a - b) * n + std::min(a, b)]; };
  for (std::int64_t j = 0; j < n; ++j) {
    double quadratic = 0.0;  // U_.j' S U_.j
    for (std::int64_t i = first(j); i <= j; ++i) {
      double product = 0.0;  // (S U_.j)_i
      for (std::int64_t a = first(j); a <= j; ++a) product += at(i, a) * u(a, j);
      quadratic += u(i, j) * product;
      if (i < j) out[packed_size(j) + i] -= 2.0 * d_[static_cast<std::size_t>(j)] * product;
    }
    out[packed_size(j + 1) - 1] -= quadratic;
  }
}

/// Rdot R^-1 x = R dRi x, where R U_.j D_j = T_.j:  -(V_.i (w'x) + T_.j x_i) for U_ij, -T_.i (U_.i'x) / D_i
/// for D_i.
void ANTEDEPENDENCE::working(std::int64_t k, const double* x, double* y, std::int64_t outer,
                             std::int64_t inner) const
{
  const std::int64_t n = inverse_.n;
  std::int64_t j = 0;  // parameter k is element (j, i) of the packed triangle
  while (packed_size(j + 1) <= k) ++j;
  const std::int64_t i = k - packed_size(j);
  if (i < first(j)) {
    std::fill(y, y + outer * n * inner, 0.0);
    return;
  }
  const double d = d_[static_cast<std::size_t>(j)];
  const double* v = v_.data() + i * n;
  const double* t = t_.data() + j * n;
  std::array<double, tile> wx;
  for (std::int64_t o = 0; o < outer; ++o, x += n * inner, y += n * inner) {
    for (std::int64_t from = 0; from < inner; from += tile) {
      const std::int64_t width = std::min(tile, inner - from);
      wx.fill(0.0);
      for (std::int64_t a = first(j); a <= j; ++a) {
        const double by = i < j ? d * u(a, j) : u(a, j) / d;
        const double* row = x + a * inner + from;
        for (std::int64_t c = 0; c < width; ++c) wx[static_cast<std::size_t>(c)] += by * row[c];
      }
      const double* xi = x + i * inner + from;
      for (std::int64_t a = 0; a < n; ++a) {
        double* out = y + a * inner + from;
        const double v_part = i < j ? v[a] : t[a];
        const double t_part = i < j ? t[a] : 0.0;
        for (std::int64_t c = 0; c < width; ++c)
          out[c] = -(v_part * wx[static_cast<std::size_t>(c)] + t_part * xi[c]);
      }
    }
  }
}

void ANTEDEPENDENCE::covariance(double* r) const
{
  std::copy(v_.begin(), v_.end(), r);
}

}  // namespace

std::unique_ptr<COMPONENT_MATRIX> make_antedependence(const STRUCTURE_ROW&, const VARIANCE_MODEL&)
{
  return std::make_unique<ANTEDEPENDENCE>();
}

/// With b = (V_pp)^-1 v_pj, p the levels before j within the order:  U_pj = -b,  1 / D_j = v_jj - v_pj'b
/// (Gabriel 1962).
bool antedependence_from_covariance(std::int64_t n, std::int64_t order, std::span<double> packed)
{
  const PackedLower<double> v{packed};
  std::vector<double> factors, block, b;
  const bool room = attempt([&] {
    const std::int64_t m = std::min(order, n);
    factors.assign(packed.size(), 0.0);
    block.assign(static_cast<std::size_t>(m * m), 0.0);
    b.assign(static_cast<std::size_t>(m), 0.0);
  });
  if (!room) return false;
  const PackedLower<double> out{factors};
  for (std::int64_t j = 1; j <= n; ++j) {
    const std::int64_t from = std::max<std::int64_t>(1, j - order);
    const std::int64_t m = j - from;
    for (std::int64_t c = 0; c < m; ++c) {
      for (std::int64_t a = c; a < m; ++a) block[static_cast<std::size_t>(a + c * m)] = v(from + a, from + c);
      b[static_cast<std::size_t>(c)] = v(j, from + c);
    }
    double left = v(j, j);
    if (m > 0) {
      if (dpotrf('L', m, block.data(), m) != 0) return false;
      dtrsm('L', 'L', 'N', 'N', m, 1, 1.0, block.data(), m, b.data(), m);
      left -= ddot(m, b.data(), 1, b.data(), 1);
      dtrsm('L', 'L', 'T', 'N', m, 1, 1.0, block.data(), m, b.data(), m);
    }
    if (!(left > 0.0)) return false;
    for (std::int64_t c = 0; c < m; ++c) out(j, from + c) = -b[static_cast<std::size_t>(c)];
    out(j, j) = 1.0 / left;
  }
  std::copy(factors.begin(), factors.end(), packed.begin());
  return true;
}

}  // namespace tolvan
