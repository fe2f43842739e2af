// Correlations without an order of the levels or with one a distance: uniform, banded, general.  Routine:
// CORR.
#include <algorithm>
#include <cmath>

#include "base/lapack.h"
#include "base/memory.h"
#include "base/text.h"
#include "varstruct/correlation_models.h"
#include "varstruct/form_row.h"
#include "varstruct/model_catalogue.h"
#include "varstruct/toeplitz_matrix.h"

namespace tolvan {

namespace {

constexpr double near_one = 0.0001;
constexpr double almost_one = 0.999;
constexpr double shrink = wide(0.99f);
constexpr int most_shrinks = 1000;  // takes any correlation below 1 to less than 1e-4
constexpr double pivot_tolerance = 1e-12;
constexpr std::int64_t banded_selector = 5, general_selector = 6;

/// Inverts, and while that fails or a correlation is beyond 1 multiplies all of them by 0.99 and tries again.
template <class Attempt>
Formed invert_or_shrink(FORM_CONTEXT& context, std::int64_t count, Attempt&& invert)
{
  mark_correlations(context, count);
  std::int64_t bad = 0;
  for (int shrinks = 0; shrinks <= most_shrinks; ++shrinks) {
    bool beyond = false, number = true;
    for (std::int64_t k = 0; k < count; ++k) {
      const double r = parameter(context, k).value;
      beyond = beyond || std::fabs(r) > 1.0;
      number = number && std::isfinite(r);
    }
    bad = beyond || !number ? 2 : invert();
    if (bad == 0) {
      if (shrinks > 0) {
        context.eh.warning(text("Negative Definite CORG structure modified at iteration ", context.iteration,
                                ", model may not coverge to best solution"));  // sic
      }
      return Formed::done;
    }
    if (!number) break;
    for (std::int64_t k = 0; k < count; ++k) parameter(context, k).value *= shrink;
  }
  return failed_inversion(context.eh, "CORR structure", bad);
}

// R = (1 - r) I + r J in each piece of m levels, J all ones.  On the vector of ones R is 1 + (m - 1) r,
// across it 1 - r, and whatever is made of R and J - I is found on these two.
class UNIFORM final : public COMPONENT_MATRIX {
 public:
  UNIFORM(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model) : pieces_(pieces_of(row, model)) {}

  Formed form(FORM_CONTEXT& context) override
  {
    n_ = context.row.size;
    std::int64_t size = 0;
    if (!multiply_sizes(n_, n_, size)) context.eh.out_of_memory();
    if (context.eh.terminate() || !assign(context.eh, ri_, size, 0.0) ||
        !assign(context.eh, score_part_, 1, 0.0))
      return Formed::in_handler;
    inverse_ = {.shape = Shape::dense, .n = n_, .values = ri_.data()};
    double& r = parameter(context, 0).value;
    if (std::fabs(1.0 - std::fabs(r)) < near_one) r = std::copysign(almost_one, r);
    const Formed formed = invert_or_shrink(context, 1, [&] { return leading_minor(r); });
    if (formed == Formed::done) fill(r);
    return formed;
  }

  void contract(const double* s, double* out) const override
  {
    for_each_piece([&](std::int64_t from, std::int64_t m) {
      const SPLIT x = split(m);
      const double dri_across = x.rdot_across / (x.across * x.across);
      const double dri_along = x.rdot_along / (x.along * x.along);
      double trace = 0.0, sum = 0.0;
      for (std::int64_t j = from; j < from + m; ++j) {
        trace += s[j + j * n_];
        for (std::int64_t i = from; i < from + m; ++i) sum += s[i + j * n_];
      }
      const double mean = sum / static_cast<double>(m);
      out[0] += dri_across * (trace - mean) + dri_along * mean;
    });
  }

  void working(std::int64_t, const double* x, double* y, std::int64_t outer,
               std::int64_t inner) const override
  {
    for_each_slice(x, y, outer, inner, [](const SPLIT& s) {
      return std::pair{s.rdot_across / s.across, s.rdot_along / s.along};
    });
  }

  void apply_inverse(const double* x, double* y, std::int64_t outer, std::int64_t inner) const override
  {
    for_each_slice(x, y, outer, inner, [](const SPLIT& s) {
      return std::pair{1.0 / s.across, 1.0 / s.along};
    });
  }

  void covariance(double* r) const override
  {
    std::fill(r, r + n_ * n_, 0.0);
    for_each_piece([&](std::int64_t from, std::int64_t m) {
      for (std::int64_t j = from; j < from + m; ++j)
        for (std::int64_t i = from; i < from + m; ++i) r[i + j * n_] = i == j ? 1.0 : r_;
    });
  }

 private:
  // Eigenvalues across and along the vector of ones, of R and of Rdot = J - I.
  struct SPLIT {
    double across, along, rdot_across, rdot_along;
  };
  SPLIT split(std::int64_t m) const
  {
    const auto others = static_cast<double>(m - 1);
    return {1.0 - r_, 1.0 + others * r_, m > 1 ? -1.0 : 0.0, others};
  }

  std::int64_t leading_minor(double r) const
  {
    for (std::size_t piece = 0; piece + 1 < pieces_.size(); ++piece) {
      const std::int64_t m = pieces_[piece + 1] - pieces_[piece];
      if (m < 2) continue;
      if (!(1.0 - r > 0.0)) return pieces_[piece] + 2;
      // 1 + (k - 1) r first fails at the least k that makes it negative
      if (!(1.0 + static_cast<double>(m - 1) * r > 0.0))
        return pieces_[piece] + static_cast<std::int64_t>(std::ceil(1.0 - 1.0 / r));
    }
    return 0;
  }

  void fill(double r)
  {
    r_ = r;
    log_determinant_ = 0.0;
    for_each_piece([&](std::int64_t from, std::int64_t m) {
      const auto others = static_cast<double>(m - 1);
      const SPLIT x = split(m);
      // diagonal a + b, off the diagonal b, with a = 1/(1 - r), b = -a r / (1 + (m - 1) r)
      const double a = m > 1 ? 1.0 / x.across : 1.0;
      const double b = m > 1 ? -a * r / x.along : 0.0;
      for (std::int64_t j = from; j < from + m; ++j)
        for (std::int64_t i = from; i < from + m; ++i)
          ri_[static_cast<std::size_t>(i + j * n_)] = i == j ? a + b : b;
      if (m < 2) return;
      log_determinant_ += others * std::log(x.across) + std::log(x.along);
      score_part_[0] += others * (x.rdot_across / x.across) + x.rdot_along / x.along;
    });
  }

  template <class Work>
  void for_each_piece(Work&& work) const
  {
    for (std::size_t piece = 0; piece + 1 < pieces_.size(); ++piece)
      work(pieces_[piece], pieces_[piece + 1] - pieces_[piece]);
  }

  // y = across (x - mean) + along mean in every piece of every slice.
  template <class Values>
  void for_each_slice(const double* x, double* y, std::int64_t outer, std::int64_t inner,
                      Values&& values) const
  {
    for (std::int64_t o = 0; o < outer; ++o) {
      for_each_piece([&](std::int64_t from, std::int64_t m) {
        const auto [across, along] = values(split(m));
        const std::int64_t at = (o * n_ + from) * inner;
        double* first = y + at;  // gathers the sums, then is overwritten last
        std::copy(x + at, x + at + inner, first);
        for (std::int64_t i = 1; i < m; ++i)
          for (std::int64_t k = 0; k < inner; ++k) first[k] += x[at + i * inner + k];
        for (std::int64_t k = 0; k < inner; ++k) first[k] *= (along - across) / static_cast<double>(m);
        for (std::int64_t i = m - 1; i >= 0; --i)
          for (std::int64_t k = 0; k < inner; ++k)
            y[at + i * inner + k] = across * x[at + i * inner + k] + first[k];
      });
    }
  }

  std::int64_t n_ = 0;
  std::vector<std::int64_t> pieces_;
  std::vector<double> ri_;
  double r_ = 0.0;
};

// One correlation a distance of levels.
class BANDED_CORRELATION final : public TOEPLITZ_MATRIX {
 public:
  BANDED_CORRELATION(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model) : starts_(pieces_of(row, model))
  {
  }

  Formed form(FORM_CONTEXT& context) override
  {
    const std::int64_t bands = context.row.size - 1;
    if (!size_toeplitz(context.eh, starts_, bands)) return Formed::in_handler;
    const Formed formed = invert_or_shrink(context, bands, [&] {
      lag_[0] = 1.0;
      for (std::int64_t k = 0; k < bands; ++k)
        lag_[static_cast<std::size_t>(k) + 1] = parameter(context, k).value;
      return invert_lags(pivot_tolerance);
    });
    if (formed == Formed::done && !form_score_parts(context.eh)) return Formed::in_handler;
    return formed;
  }

 private:
  LAGS derivative(std::int64_t k) const override
  {
    static constexpr double one = 1.0;
    return {k + 1, 1, &one};
  }

  std::vector<std::int64_t> starts_;
};

// One correlation a pair of levels: row by row of the lower triangle.
class GENERAL_CORRELATION final : public DENSE_MATRIX {
 public:
  GENERAL_CORRELATION(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model) : starts_(pieces_of(row, model))
  {
  }

  Formed form(FORM_CONTEXT& context) override
  {
    const std::int64_t n = context.row.size, pairs = n * (n - 1) / 2;
    if (!size_dense(context.eh, starts_, pairs) || !assign(context.eh, r_, pairs, 0.0))
      return Formed::in_handler;
    const Formed formed = invert_or_shrink(context, pairs, [&] {
      for (std::int64_t k = 0; k < pairs; ++k) r_[static_cast<std::size_t>(k)] = parameter(context, k).value;
      covariance(ri_.data());
      return invert(pivot_tolerance);
    });
    if (formed == Formed::done && !form_score_parts(context.eh)) return Formed::in_handler;
    return formed;
  }

  // Rdot of a pair (i, j) swaps two rows of R^-1 x and leaves nothing of the others: only these two are
  // formed.
  void working(std::int64_t k, const double* x, double* y, std::int64_t outer,
               std::int64_t inner) const override
  {
    std::fill(y, y + outer * n_ * inner, 0.0);
    auto i = static_cast<std::int64_t>(0.5 * (1.0 + std::sqrt(1.0 + 8.0 * static_cast<double>(k))));
    while (i * (i - 1) / 2 > k) --i;
    while ((i + 1) * i / 2 <= k) ++i;
    const std::int64_t j = k - i * (i - 1) / 2;
    if (!same_piece(i, j)) return;
    const std::int64_t slice = n_ * inner;
    for (const auto& [to, of] : {std::pair{i, j}, std::pair{j, i}}) {
      const double* ri = ri_.data() + of * n_;
      if (inner == 1) {
        dgemv('T', n_, outer, 1.0, x, n_, ri, 1, 0.0, y + to, n_);
      } else {
        for (std::int64_t o = 0; o < outer; ++o)
          dgemv('N', inner, n_, 1.0, x + o * slice, inner, ri, 1, 0.0, y + o * slice + to * inner, 1);
      }
    }
  }

  void covariance(double* r) const override
  {
    std::fill(r, r + n_ * n_, 0.0);
    std::size_t k = 0;
    for (std::int64_t i = 0; i < n_; ++i) {
      for (std::int64_t j = 0; j < i; ++j, ++k)
        if (same_piece(i, j)) r[i + j * n_] = r[j + i * n_] = r_[k];
      r[i + i * n_] = 1.0;
    }
  }

 private:
  bool same_piece(std::int64_t i, std::int64_t j) const
  {
    return std::upper_bound(pieces_.begin(), pieces_.end(), i) ==
           std::upper_bound(pieces_.begin(), pieces_.end(), j);
  }

  void contract_columns(const COLUMNS& w, double* out) const override
  {
    for (std::int64_t j = w.from; j < w.to; ++j) {
      const double* column = w.down(j) - j;
      for (std::int64_t i = j + 1; i < w.end; ++i) out[i * (i - 1) / 2 + j] += 2.0 * column[i];
    }
  }

  std::vector<std::int64_t> starts_;
  std::vector<double> r_;  // the correlations, packed
};

}  // namespace

std::unique_ptr<COMPONENT_MATRIX> make_correlation(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model)
{
  if (row.selector == general_selector) return std::make_unique<GENERAL_CORRELATION>(row, model);
  if (row.selector == banded_selector) return std::make_unique<BANDED_CORRELATION>(row, model);
  return std::make_unique<UNIFORM>(row, model);
}

}  // namespace tolvan
