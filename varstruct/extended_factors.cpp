// The factor model whose factors are effects of their own.  Routine: US2XFA.
#include "varstruct/extended_factors.h"

#include <algorithm>
#include <cmath>

#include "base/lapack.h"
#include "base/memory.h"
#include "base/packed.h"
#include "base/text.h"
#include "varstruct/covariance_models.h"
#include "varstruct/form_row.h"

namespace tolvan {

namespace {

constexpr double least_specific = 1e-7;  // of a variance up to 1, by loadings, for larger ones absolute; far
// enough from 0 for the pivots of the factors
constexpr double least_eigenvalue = 0.05;
constexpr double least_share = 0.05;  // of the diagonal that US2XFA leaves as specific

/// In the notation of the header, with c_i = e_ui - sum over j of l_ij e_fj and a weight w_i that is 1/psi_i
/// or g:
///     R^-1 = sum w_i c_i c_i' + sum e_fj e_fj' + sum over Lagrangian rows (e_mi c_i' + c_i e_mi')
/// A Lagrangian row whose psi is no longer 0 stays, without effect: -1 on its diagonal.
class EXTENDED_FACTORS : public COMPONENT_MATRIX {
 public:
  Formed form(FORM_CONTEXT& context) override;
  void contract(const double* s, double* out) const override;
  void working(std::int64_t k, const double* x, double* y, std::int64_t outer,
               std::int64_t inner) const override;
  void covariance(double* r) const override;

 private:
  bool L_LAY_OUT(ERROR_HANDLER& eh, const STRUCTURE_ROW& row, const VARIANCE_MODEL& model);
  double loading(std::int64_t i, std::int64_t j) const
  {
    return loadings_[static_cast<std::size_t>(i + j * layout_.levels)];
  }
  /// Whether u = l'f holds exactly.
  bool exact(std::int64_t i) const
  {
    return row_of_[static_cast<std::size_t>(i)] >= 0 && psi_[static_cast<std::size_t>(i)] == 0.0;
  }
  double weight(std::int64_t i) const { return weight_[static_cast<std::size_t>(i)]; }

  EXTENDED_LAYOUT layout_;
  std::vector<std::int64_t> row_of_;  // of a level: its Lagrangian row from 0 among those, or -1
  std::vector<double> psi_, weight_;
  std::vector<double> loadings_;  // levels x factors, factor after factor
  std::vector<double> values_;    // as SYMMETRIC lays out a sparse matrix, with the two below
  std::vector<std::int64_t> start_;
  std::vector<std::int32_t> row_;
};

/// L_LAY_OUT: makes the pattern of the extended inverse, which stays.  Column u_i: itself, the factors, its
/// Lagrangian row; column f_j: the factors from itself on, all Lagrangian rows; column m_i: itself.
bool EXTENDED_FACTORS::L_LAY_OUT(ERROR_HANDLER& eh, const STRUCTURE_ROW& row, const VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  if (!attempt([&] { layout_ = extended_layout(row, model); })) {
    eh.out_of_memory();
    return false;
  }
  const std::int64_t m = layout_.levels, k = layout_.factors, z = layout_.lagrangian();
  const std::int64_t elements = m * (k + 1) + z + k * (k + 1) / 2 + k * z + z;
  if (!assign<std::int64_t>(eh, row_of_, m, -1) || !assign(eh, psi_, m) || !assign(eh, weight_, m) ||
      !assign(eh, loadings_, m * k) || !assign(eh, values_, elements) || !reserve(eh, row_, elements) ||
      !reserve(eh, start_, layout_.size() + 1) || !assign(eh, score_part_, row.parameters))
    return false;
  lagrangian_.clear();
  for (std::int64_t t = 0; t < z; ++t) {
    const std::int64_t level = layout_.lagrangian_levels[static_cast<std::size_t>(t)];
    row_of_[static_cast<std::size_t>(level)] = t;
    lagrangian_.emplace_back(m + k + t, level);
  }

  const auto add = [&](std::int64_t r) { row_.push_back(static_cast<std::int32_t>(r)); };
  start_.clear();
  row_.clear();
  for (std::int64_t i = 0; i < m; ++i) {
    start_.push_back(static_cast<std::int64_t>(row_.size()));
    add(i);
    for (std::int64_t j = 0; j < k; ++j) add(m + j);
    const std::int64_t t = row_of_[static_cast<std::size_t>(i)];
    if (t >= 0) add(m + k + t);
  }
  for (std::int64_t j = 0; j < k; ++j) {
    start_.push_back(static_cast<std::int64_t>(row_.size()));
    for (std::int64_t c = j; c < k; ++c) add(m + c);
    for (std::int64_t t = 0; t < z; ++t) add(m + k + t);
  }
  for (std::int64_t t = 0; t < z; ++t) {
    start_.push_back(static_cast<std::int64_t>(row_.size()));
    add(m + k + t);
  }
  start_.push_back(static_cast<std::int64_t>(row_.size()));
  inverse_ = {.shape = Shape::sparse,
              .n = layout_.size(),
              .values = values_.data(),
              .start = start_.data(),
              .row = row_.data()};
  return true;
}

Formed EXTENDED_FACTORS::form(FORM_CONTEXT& context)
{
  ERROR_HANDLER& eh = context.eh;
  const Frame here{eh, __func__};
  const STRUCTURE_ROW& row = context.row;
  const bool fits = row.order >= 1 && row.parameters >= 1 && row.parameters % (row.order + 1) == 0;
  if (!check_row_size(eh, row, fits ? row.parameters : -1)) return Formed::in_handler;
  const bool first = values_.empty();
  if (first && !L_LAY_OUT(eh, row, context.model)) return Formed::in_handler;
  const std::int64_t m = layout_.levels, k = layout_.factors, z = layout_.lagrangian();
  VARIANCE_PARAMETER* theta = context.model.parameters.data() + row.first;
  for (std::int64_t i = 0; i < m * k; ++i) loadings_[static_cast<std::size_t>(i)] = theta[m + i].value;

  std::fill(values_.begin(), values_.end(), 0.0);
  std::fill(score_part_.begin(), score_part_.end(), 0.0);
  log_determinant_ = 0.0;
  negative_ = z;
  double* factors =
      values_.data() + start_[static_cast<std::size_t>(m)];  // columns of the factors, one after the other
  const auto factor_column = [&](std::int64_t j) { return factors + j * (k + z) - j * (j - 1) / 2; };
  for (std::int64_t j = 0; j < k; ++j) factor_column(j)[0] = 1.0;

  for (std::int64_t i = 0; i < m; ++i) {
    const auto at = static_cast<std::size_t>(i);
    double communality = 0.0;
    for (std::int64_t j = 0; j < k; ++j) communality += loading(i, j) * loading(i, j);
    const std::int64_t t = row_of_[at];
    if (t < 0 || theta[i].value != 0.0) {
      const double least = least_specific * (communality > 0.0 ? std::min(1.0, communality) : 1.0);
      const bool may_be_negative = theta[i].constraint == Constraint::U;
      if (!((may_be_negative ? std::fabs(theta[i].value) : theta[i].value) >= least)) theta[i].value = least;
    }
    psi_[at] = theta[i].value;
    if (exact(i)) {
      // Near the reciprocal of the communality, and the same number over a range of it: its derivative is 0.
      weight_[at] = communality > 0.0 && std::isfinite(communality)
                        ? std::exp2(-std::round(std::log2(communality)))
                        : 1.0;
    } else {
      weight_[at] = 1.0 / psi_[at];
      log_determinant_ += std::log(std::fabs(psi_[at]));
      score_part_[at] = weight_[at];
      if (psi_[at] < 0.0) ++negative_;
    }

    double* column = values_.data() + start_[at];
    const double w = weight_[at];
    column[0] = w;
    for (std::int64_t j = 0; j < k; ++j) {
      column[1 + j] = -w * loading(i, j);
      for (std::int64_t c = j; c < k; ++c) factor_column(j)[c - j] += w * loading(i, j) * loading(i, c);
    }
    if (t < 0) continue;
    if (exact(i)) {
      column[1 + k] = 1.0;
      for (std::int64_t j = 0; j < k; ++j) factor_column(j)[k - j + t] = -loading(i, j);
    } else {
      values_[static_cast<std::size_t>(start_[static_cast<std::size_t>(m + k + t)])] = -1.0;
    }
  }
  return Formed::done;
}

/// With S c_i at hand, S(c_i, v) = S(u_i, v) - sum over j of l_ij S(f_j, v):
///     l_ij       dRi = w_i (e_fj c_i' + c_i e_fj') + (e_fj e_mi' + e_mi e_fj'):  2 w_i S(c_i, f_j) + 2
///     S(m_i, f_j) psi_i > 0  dRi = w_i^2 c_i c_i':                                           w_i^2 S(c_i,
///     c_i) psi_i = 0  from -psi_i at (m_i, m_i):  S(h, h), h = m_i + w_i c_i / 2
void EXTENDED_FACTORS::contract(const double* s, double* out) const
{
  const std::int64_t m = layout_.levels, k = layout_.factors, z = layout_.lagrangian();
  const double* factors = s + start_[static_cast<std::size_t>(m)];
  const auto at = [&](std::int64_t a, std::int64_t b) {  // S(f_a, f_b), a at most b
    return factors[a * (k + z) - a * (a - 1) / 2 + b - a];
  };
  for (std::int64_t i = 0; i < m; ++i) {
    const double* column = s + start_[static_cast<std::size_t>(i)];
    const double w = weight(i);
    const std::int64_t t = row_of_[static_cast<std::size_t>(i)];
    double cc = column[0];  // S(c_i, c_i) = S(c_i, u_i) - sum l_ij S(c_i, f_j)
    double cm = t >= 0 ? column[1 + k] : 0.0;
    for (std::int64_t j = 0; j < k; ++j) {
      double cf = column[1 + j];
      for (std::int64_t c = 0; c < k; ++c) cf -= loading(i, c) * at(std::min(j, c), std::max(j, c));
      cc -= loading(i, j) * (column[1 + j] + cf);
      double sum = w * cf;
      if (exact(i)) {
        const double fm = at(j, k + t);
        sum += fm;
        cm -= loading(i, j) * fm;
      }
      out[m + i + j * m] += 2.0 * sum;
    }
    if (exact(i)) {
      const double mm = s[start_[static_cast<std::size_t>(m + k + t)]];
      out[i] += mm + w * cm + 0.25 * w * w * cc;
    } else {
      out[i] += w * w * cc;
    }
  }
}

/// With v_i = w_i (u_i - sum l_ij f_j) + m_i, x = (u, f, m):
///     l_ij       e_ui f_j + (sum over a of l_aj e_ua + e_fj) v_i
///     psi_i > 0  e_ui v_i
///     psi_i = 0  (e_ui - w_i/2 e_mi) (v_i - w_i (u_i - sum l_ij f_j) / 2)
void EXTENDED_FACTORS::working(std::int64_t k, const double* x, double* y, std::int64_t outer,
                               std::int64_t inner) const
{
  const std::int64_t m = layout_.levels, n = layout_.size();
  const std::int64_t factor = k / m - 1;  // -1: a specific variance
  const std::int64_t i = k % m;
  const bool lagrangian = exact(i);
  const std::int64_t row_m = m + layout_.factors + row_of_[static_cast<std::size_t>(i)];
  const double w = factor < 0 && lagrangian ? 0.5 * weight(i) : weight(i);
  const auto add = [inner](double* to, double by, const double* from) {
    for (std::int64_t c = 0; c < inner; ++c) to[c] += by * from[c];
  };
  for (std::int64_t o = 0; o < outer; ++o, x += n * inner, y += n * inner) {
    double* u = y + i * inner;
    std::fill(y, y + n * inner, 0.0);
    // v_i goes to the row of its own level first
    add(u, w, x + i * inner);
    for (std::int64_t j = 0; j < layout_.factors; ++j) add(u, -w * loading(i, j), x + (m + j) * inner);
    if (lagrangian) add(u, 1.0, x + row_m * inner);
    if (factor < 0) {
      if (lagrangian) add(y + row_m * inner, -0.5 * weight(i), u);
      continue;
    }
    for (std::int64_t a = 0; a < m; ++a) {
      if (a != i && loading(a, factor) != 0.0) add(y + a * inner, loading(a, factor), u);
    }
    add(y + (m + factor) * inner, 1.0, u);
    const double own = loading(i, factor);
    const double* f = x + (m + factor) * inner;
    for (std::int64_t c = 0; c < inner; ++c) u[c] = own * u[c] + f[c];
  }
}

/// var(u) = L L' + Psi, cov(u, f) = L, var(f) = I; of a Lagrangian row: 1 with its level, -g on the diagonal.
void EXTENDED_FACTORS::covariance(double* r) const
{
  const std::int64_t m = layout_.levels, k = layout_.factors, n = layout_.size();
  std::fill(r, r + n * n, 0.0);
  for (std::int64_t i = 0; i < m; ++i) {
    for (std::int64_t a = 0; a < m; ++a) {
      double sum = a == i ? psi_[static_cast<std::size_t>(i)] : 0.0;
      for (std::int64_t j = 0; j < k; ++j) sum += loading(i, j) * loading(a, j);
      r[a + i * n] = sum;
    }
    for (std::int64_t j = 0; j < k; ++j) r[i + (m + j) * n] = r[m + j + i * n] = loading(i, j);
    const std::int64_t t = row_of_[static_cast<std::size_t>(i)];
    if (t < 0) continue;
    const std::int64_t row = m + k + t;
    r[row + row * n] = exact(i) ? -weight(i) : -1.0;
    if (exact(i)) r[i + row * n] = r[row + i * n] = 1.0;
  }
  for (std::int64_t j = m; j < m + k; ++j) r[j + j * n] = 1.0;
}

}  // namespace

EXTENDED_LAYOUT extended_layout(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model)
{
  EXTENDED_LAYOUT out;
  out.factors = std::max<std::int64_t>(1, row.order);
  out.levels = row.parameters / (out.factors + 1);
  std::int64_t room = row.size - out.levels - out.factors;
  for (const bool zero : {true, false}) {  // levels that need a row, then others while there are rows
    for (std::int64_t i = 0; i < out.levels && room > 0; ++i) {
      if ((model.parameters[static_cast<std::size_t>(row.first + i)].value == 0.0) != zero) continue;
      out.lagrangian_levels.push_back(i);
      --room;
    }
  }
  std::sort(out.lagrangian_levels.begin(), out.lagrangian_levels.end());
  return out;
}

bool US2XFA(ERROR_HANDLER& eh, std::span<const double> packed, std::int64_t n, std::int64_t k,
            std::span<double> specific, std::span<double> loadings)
{
  const Frame here{eh, __func__};
  const PackedSymmetric<const double> v{packed};
  std::vector<double> a, e, sd, work;
  std::vector<std::int32_t> iwork;
  if (!assign(eh, a, n * n) || !assign(eh, e, n) || !assign(eh, sd, n)) return false;
  for (std::int64_t i = 0; i < n; ++i) {
    if (!(v(i + 1, i + 1) > 0.0)) {
      eh.warning("US matrix is not positive definite!");
      return false;
    }
    sd[static_cast<std::size_t>(i)] = std::sqrt(v(i + 1, i + 1));
    for (std::int64_t j = 0; j <= i; ++j)
      a[static_cast<std::size_t>(i + j * n)] =
          v(i + 1, j + 1) / (sd[static_cast<std::size_t>(i)] * sd[static_cast<std::size_t>(j)]);
  }
  std::int64_t info = 0;
  if (!attempt([&] { info = dsyevd('V', 'L', n, a.data(), n, e.data(), work, iwork); })) {
    eh.out_of_memory();
    return false;
  }
  if (info != 0) {
    eh.warning("US matrix is not positive definite!");
    return false;
  }
  for (std::int64_t j = 0; j < k; ++j) {
    const std::int64_t from = n - 1 - j;  // LAPACK's eigenvalues ascend
    const double root =
        from < 0 ? 0.0 : std::sqrt(std::max(e[static_cast<std::size_t>(from)] - 1.0, least_eigenvalue));
    for (std::int64_t i = 0; i < n; ++i)
      loadings[static_cast<std::size_t>(i + j * n)] =
          from < 0 ? 0.0 : root * a[static_cast<std::size_t>(i + from * n)] * sd[static_cast<std::size_t>(i)];
  }
  for (std::int64_t i = 0; i < n; ++i) {
    const double diagonal = v(i + 1, i + 1);
    double left = diagonal;
    for (std::int64_t j = 0; j < k; ++j)
      left -= loadings[static_cast<std::size_t>(i + j * n)] * loadings[static_cast<std::size_t>(i + j * n)];
    specific[static_cast<std::size_t>(i)] = std::max(left, least_share * diagonal);
  }
  return true;
}

std::unique_ptr<COMPONENT_MATRIX> make_extended_factors(const STRUCTURE_ROW&, const VARIANCE_MODEL&)
{
  return std::make_unique<EXTENDED_FACTORS>();
}

}  // namespace tolvan
