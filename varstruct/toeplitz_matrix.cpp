// A component whose matrix is the same along each diagonal: inversion and derivatives by lags.
#include "varstruct/toeplitz_matrix.h"

#include <algorithm>
#include <cmath>

#include "base/lapack.h"
#include "base/memory.h"

namespace tolvan {

namespace {

constexpr std::size_t few_parameters =
    8;  // for which their derivatives cost less than one product of matrices for all

}  // namespace

bool TOEPLITZ_MATRIX::size_toeplitz(ERROR_HANDLER& eh, const std::vector<std::int64_t>& pieces,
                                    std::int64_t p)
{
  return size_dense(eh, pieces, p) && assign(eh, lag_, n_, 0.0) && assign(eh, a_, n_, 0.0) &&
         assign(eh, old_, n_, 0.0);
}

// Levinson's recursion for the foretelling u = (1, -a_1, -a_2, ...) of a level from all others of its piece
// and the variance v of its error, then Trench's for the inverse (Golub and Van Loan, Matrix
// Computations, 4.7):
//     R^-1(i, 0) = u_i / v,   R^-1(i, j) = R^-1(i - 1, j - 1) + (u_i u_j - u_{m-i} u_{m-j}) / v.
std::int64_t TOEPLITZ_MATRIX::invert_lags(double tolerance)
{
  log_determinant_ = 0.0;
  for (std::size_t piece = 0; piece + 1 < pieces_.size(); ++piece) {
    const std::int64_t from = pieces_[piece], m = pieces_[piece + 1] - from;
    double* u = a_.data();
    double v = lag_[0];
    u[0] = 1.0;
    for (std::int64_t t = 0;; ++t) {
      if (!(v > tolerance)) return from + t + 1;
      log_determinant_ += std::log(v);
      if (t + 1 == m) break;
      double w = 0.0;  // -v times the next partial correlation
      for (std::int64_t j = 0; j <= t; ++j) w += u[j] * lag_[static_cast<std::size_t>(t + 1 - j)];
      w /= -v;
      std::copy(u, u + t + 1, old_.begin());
      for (std::int64_t j = 1; j <= t; ++j) u[j] += w * old_[static_cast<std::size_t>(t + 1 - j)];
      u[t + 1] = w;
      v *= 1.0 - w * w;
    }
    double* ri = ri_.data() + from * (n_ + 1);
    for (std::int64_t i = 0; i < m; ++i) ri[i] = u[i] / v;
    for (std::int64_t j = 1; j < m; ++j) {
      const double uj = u[j] / v, vj = u[m - j] / v;
      for (std::int64_t i = j; i < m; ++i)
        ri[i + j * n_] = ri[i - 1 + (j - 1) * n_] + (u[i] * uj - u[m - i] * vj);
    }
    mirror_lower(ri, m, n_);
  }
  return 0;
}

void TOEPLITZ_MATRIX::contract(const double* s, double* out) const
{
  if (score_part_.size() > few_parameters) {
    DENSE_MATRIX::contract(s, out);
    return;
  }
  for (std::size_t k = 0; k < score_part_.size(); ++k)
    out[k] += contract_derivative(derivative(static_cast<std::int64_t>(k)), s);
}

// With x the first column of R^-1, dx = -R^-1 Rdot x its derivative, invert_lags()'s recursion gives that of
// the inverse, column by column from the one before:
//     R^-1(i, j) = R^-1(i - 1, j - 1) + (x_i x_j - x_{m-i} x_{m-j}) / x_0.
double TOEPLITZ_MATRIX::contract_derivative(const LAGS& lags, const double* s) const
{
  const auto n = static_cast<std::size_t>(n_);
  std::vector<double> rdot_x(n), dx(n), column(n);
  const auto first_columns = [&](std::int64_t from) { return ri_.data() + from * (n_ + 1); };
  // the first columns of all pieces one below the other make one vector
  for (std::size_t piece = 0; piece + 1 < pieces_.size(); ++piece)
    std::copy_n(first_columns(pieces_[piece]), pieces_[piece + 1] - pieces_[piece],
                column.begin() + pieces_[piece]);
  derivative_times(lags, column.data(), rdot_x.data(), 1, 1);
  apply_inverse(rdot_x.data(), dx.data(), 1, 1);

  double sum = 0.0;
  for (std::size_t piece = 0; piece + 1 < pieces_.size(); ++piece) {
    const std::int64_t from = pieces_[piece], m = pieces_[piece + 1] - from;
    const double* x = first_columns(from);
    const double* e = dx.data() + from;      // -dx
    double* d = column.data();               // the column of dRi
    const double* sj = s + from * (n_ + 1);  // from the diagonal element down
    std::copy(e, e + m, d);
    for (std::int64_t j = 0; j < m; ++j, sj += n_ + 1) {
      if (j > 0) {
        const double xj = x[j] / x[0], yj = x[m - j] / x[0];
        const double ej = (e[j] - e[0] * xj) / x[0], fj = (e[m - j] - e[0] * yj) / x[0];
        for (std::int64_t i = m - 1; i >= j; --i)
          d[i] = d[i - 1] + ((e[i] * xj + x[i] * ej) - (e[m - i] * yj + x[m - i] * fj));
      }
      sum += 2.0 * ddot(m - j, sj, 1, d + j, 1) - sj[0] * d[j];
    }
  }
  return sum;
}

void TOEPLITZ_MATRIX::covariance(double* r) const
{
  std::fill(r, r + n_ * n_, 0.0);
  for (std::size_t piece = 0; piece + 1 < pieces_.size(); ++piece) {
    for (std::int64_t j = pieces_[piece]; j < pieces_[piece + 1]; ++j)
      for (std::int64_t i = pieces_[piece]; i < pieces_[piece + 1]; ++i)
        r[i + j * n_] = lag_[static_cast<std::size_t>(std::abs(i - j))];
  }
}

void TOEPLITZ_MATRIX::contract_columns(const COLUMNS& w, double* out) const
{
  std::vector<double> sum(static_cast<std::size_t>(w.end - w.from), 0.0);  // of W along each diagonal
  for (std::int64_t j = w.from; j < w.to; ++j) {
    const double* column = w.down(j);
    sum[0] += column[0];
    for (std::int64_t l = 1; l < w.end - j; ++l) sum[static_cast<std::size_t>(l)] += 2.0 * column[l];
  }
  const std::int64_t lags = w.end - w.from;
  for (std::size_t k = 0; k < score_part_.size(); ++k) {
    const LAGS d = derivative(static_cast<std::int64_t>(k));
    for (std::int64_t l = 0; l < d.count && d.first + l < lags; ++l)
      out[k] += d.value[l] * sum[static_cast<std::size_t>(d.first + l)];
  }
}

void TOEPLITZ_MATRIX::working(std::int64_t k, const double* x, double* y, std::int64_t outer,
                              std::int64_t inner) const
{
  const LAGS lags = derivative(k);
  work_in_steps(x, y, outer, inner, [&](const double* z, double* part, std::int64_t slices) {
    derivative_times(lags, z, part, slices, inner);
  });
}

// y = Rdot z
void TOEPLITZ_MATRIX::derivative_times(const LAGS& d, const double* z, double* y, std::int64_t outer,
                                       std::int64_t inner) const
{
  std::fill(y, y + outer * n_ * inner, 0.0);
  for (std::int64_t o = 0; o < outer; ++o) {
    for (std::size_t piece = 0; piece + 1 < pieces_.size(); ++piece) {
      const std::int64_t m = pieces_[piece + 1] - pieces_[piece];
      const std::int64_t at = (o * n_ + pieces_[piece]) * inner;
      for (std::int64_t l = d.first; l < std::min(m, d.first + d.count); ++l) {
        const double value = d.value[l - d.first];
        const std::int64_t gap = l * inner, length = m * inner - gap;
        daxpy(length, value, z + at, 1, y + at + gap, 1);
        if (l > 0) daxpy(length, value, z + at + gap, 1, y + at, 1);
      }
    }
  }
}

}  // namespace tolvan
