// The covariance matrix by its factors on the variance scale, V = L D L'.
#include <algorithm>
#include <cmath>
#include <vector>

#include "base/lapack.h"
#include "base/packed.h"
#include "varstruct/covariance_models.h"
#include "varstruct/dense_covariance.h"
#include "varstruct/form_row.h"
#include "varstruct/hold_factors.h"
#include "varstruct/rescale_factors.h"

namespace tolvan {

namespace {

constexpr double least_d = 1e-6;  // a D at fault is held here
constexpr double unexplained =
    2.2204460492503131e-16;  // D_i / V_ii of a level that rounding alone tells from the others

class CHOLESKY : public DENSE_COVARIANCE {
 public:
  Formed form(FORM_CONTEXT& context) override;

 private:
  bool factorise(const PackedLower<VARIANCE_PARAMETER>& theta);

  bool formed_ = false;        // before: the values that a fit starts with are the user's
  std::vector<int> at_bound_;  // how often in a row a D came back to its bound
};

/// V = C C' with C = L sqrt(D), and its inverse; false if it has none.
bool CHOLESKY::factorise(const PackedLower<VARIANCE_PARAMETER>& theta)
{
  std::fill(ri_.begin(), ri_.end(), 0.0);
  for (std::int64_t j = 0; j < n(); ++j) {
    const double d = theta(j + 1, j + 1).value;
    if (!(d > 0.0)) return false;
    const double root = std::sqrt(d);
    w(j, j) = 1.0;
    ri_[static_cast<std::size_t>(j + j * n())] = root;
    for (std::int64_t i = j + 1; i < n(); ++i) {
      w(i, j) = theta(i + 1, j + 1).value;
      ri_[static_cast<std::size_t>(i + j * n())] = w(i, j) * root;
    }
  }
  dsyrk('L', 'N', n(), n(), 1.0, ri_.data(), n(), 0.0, r_.data(), n());
  for (std::int64_t i = 0; i < n(); ++i) {
    if (!std::isfinite(r(i, i)) || theta(i + 1, i + 1).value <= unexplained * r(i, i)) return false;
    for (std::int64_t j = 0; j < i; ++j) r(j, i) = r(i, j);
  }
  return invert_factor() == 0;
}

/// dV/dL_ij = E_ij D L' + L D E_ji = D_j (e_i L_.j' + L_.j e_i'),   dV/dD_i = L_.i L_.i',   log|V| = sum log
/// D_i.
Formed CHOLESKY::form(FORM_CONTEXT& context)
{
  ERROR_HANDLER& eh = context.eh;
  const Frame here{eh, __func__};
  const STRUCTURE_ROW& row = context.row;
  const std::int64_t levels = row.size;
  if (!check_row_size(eh, row, packed_size(levels))) return Formed::in_handler;
  if (!make_room(eh, levels, row.parameters, levels)) return Formed::in_handler;
  const PackedLower<VARIANCE_PARAMETER> theta{
      {context.model.parameters.data() + row.first, static_cast<std::size_t>(row.parameters)}};

  if (formed_) hold_cholesky_factors(theta, levels, at_bound_);
  if (!factorise(theta)) {
    for (std::int64_t i = 1; i <= levels; ++i) {
      if (theta(i, i).value >= least_d) continue;
      theta(i, i).value = least_d;
      if (is_free(theta(i, i).constraint) || theta(i, i).constraint == Constraint::B)
        theta(i, i).constraint = Constraint::P;
    }
    const bool formed =
        factorise(theta) || rescale_factors(context, theta, levels, [&] { return factorise(theta); });
    if (!formed) return Formed::in_handler;
  }

  std::size_t k = 0;
  for (std::int64_t i = 0; i < levels; ++i) {
    for (std::int64_t j = 0; j < i; ++j)
      derivatives_[k++] = {
          .source = RANK_TWO::Source::factor, .i = i, .c = j, .factor = theta(j + 1, j + 1).value};
    derivatives_[k++] = {.source = RANK_TWO::Source::factor, .i = -1, .c = i};
  }
  finish();
  // The traces are known exactly.
  std::fill(score_part_.begin(), score_part_.end(), 0.0);
  for (std::int64_t i = 1; i <= levels; ++i)
    score_part_[static_cast<std::size_t>(packed_size(i) - 1)] = 1.0 / theta(i, i).value;
  formed_ = true;
  return Formed::done;
}

}  // namespace

std::unique_ptr<COMPONENT_MATRIX> make_cholesky(const STRUCTURE_ROW&, const VARIANCE_MODEL&)
{
  return std::make_unique<CHOLESKY>();
}

}  // namespace tolvan
