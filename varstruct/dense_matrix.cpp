// A component whose inverse is dense: inversion, derivatives against a matrix.
#include "varstruct/dense_matrix.h"

#include <algorithm>
#include <cmath>

#include "base/lapack.h"
#include "base/memory.h"

namespace tolvan {

namespace {

constexpr std::int64_t panel = 128;  // columns of W at a time
constexpr std::int64_t tile = 32;    // of a transposition

}  // namespace

void mirror_lower(double* a, std::int64_t n, std::int64_t ld)
{
  for (std::int64_t j0 = 0; j0 < n; j0 += tile) {
    for (std::int64_t i0 = j0; i0 < n; i0 += tile) {
      for (std::int64_t j = j0; j < std::min(n, j0 + tile); ++j)
        for (std::int64_t i = std::max(i0, j + 1); i < std::min(n, i0 + tile); ++i)
          a[j + i * ld] = a[i + j * ld];
    }
  }
}

bool DENSE_MATRIX::size_dense(ERROR_HANDLER& eh, const std::vector<std::int64_t>& pieces, std::int64_t p)
{
  n_ = pieces.back();
  std::int64_t size = 0;
  if (!fits_blas(n_) || !multiply_sizes(n_, n_, size)) {
    eh.out_of_memory();
    return false;
  }
  if (!assign<std::int64_t>(eh, pieces_, static_cast<std::int64_t>(pieces.size())) ||
      !assign(eh, ri_, size, 0.0) || !assign(eh, score_part_, p, 0.0))
    return false;
  std::copy(pieces.begin(), pieces.end(), pieces_.begin());
  inverse_ = {.shape = Shape::dense, .n = n_, .values = ri_.data()};
  return true;
}

std::int64_t DENSE_MATRIX::invert(double tolerance)
{
  log_determinant_ = 0.0;
  for (std::size_t piece = 0; piece + 1 < pieces_.size(); ++piece) {
    const std::int64_t from = pieces_[piece];
    const std::int64_t m = pieces_[piece + 1] - from;
    double* a = ri_.data() + from * (n_ + 1);
    std::int64_t info = dpotrf('L', m, a, n_);
    for (std::int64_t j = 0; j < m && (info == 0 || j < info - 1); ++j) {
      const double pivot = a[j * (n_ + 1)];
      if (!(pivot * pivot > tolerance)) info = j + 1;  // not a number fails as well
    }
    if (info != 0) return from + info;
    for (std::int64_t j = 0; j < m; ++j) log_determinant_ += 2.0 * std::log(a[j * (n_ + 1)]);
    info = dpotri('L', m, a, n_);
    if (info != 0) return from + info;
    mirror_lower(a, m, n_);
  }
  return 0;
}

bool DENSE_MATRIX::form_score_parts(ERROR_HANDLER& eh)
{
  std::fill(score_part_.begin(), score_part_.end(), 0.0);
  const bool room = attempt([&] {
    for (std::size_t piece = 0; piece + 1 < pieces_.size(); ++piece) {
      const std::int64_t from = pieces_[piece], end = pieces_[piece + 1];
      contract_columns({ri_.data() + from * (n_ + 1), n_, from, end, end}, score_part_.data());
    }
  });
  if (!room) eh.out_of_memory();
  return room;
}

void DENSE_MATRIX::contract(const double* s, double* out) const
{
  std::vector<double> product, w;
  for (std::size_t piece = 0; piece + 1 < pieces_.size(); ++piece) {
    const std::int64_t start = pieces_[piece], end = pieces_[piece + 1], m = end - start;
    const double* ri = ri_.data() + start * n_;
    product.resize(static_cast<std::size_t>(m * std::min(m, panel)));
    w.resize(product.size());
    for (std::int64_t from = start; from < end; from += panel) {
      const std::int64_t to = std::min(end, from + panel), width = to - from, below = end - from;
      // S R^-1 for these columns, then R^-1 S R^-1 from the first of them down
      dgemm('N', 'N', m, width, m, 1.0, s + start * (n_ + 1), n_, ri_.data() + start + from * n_, n_, 0.0,
            product.data(), m);
      dgemm('N', 'N', below, width, m, 1.0, ri + from, n_, product.data(), m, 0.0, w.data(), below);
      contract_columns({w.data(), below, from, to, end}, out);
    }
  }
}

}  // namespace tolvan
