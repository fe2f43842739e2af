// Factor analytic covariance matrices: on the correlation scale (FA) and on the covariance scale (FACV).
// Routine: K4MVFA.
#include <algorithm>
#include <cmath>

#include "base/lapack.h"
#include "base/memory.h"
#include "base/numbers.h"
#include "base/text.h"
#include "varstruct/covariance_models.h"
#include "varstruct/dense_covariance.h"
#include "varstruct/dense_matrix.h"
#include "varstruct/form_row.h"

namespace tolvan {

namespace {

constexpr std::int64_t on_correlations = 10;  // model codes; the other one is 13
constexpr double least_specific = 1e-8;       // of a variance up to 1, by loadings; for larger ones absolute
constexpr double communality_limit = 0.999;
constexpr double communality_target = wide(0.999F);

class FACTOR_ANALYTIC : public DENSE_COVARIANCE {
 public:
  Formed form(FORM_CONTEXT& context) override;

 private:
  Formed L_STEP_DOWN(FORM_CONTEXT& context);
  void K4MVFA(FORM_CONTEXT& context, std::int64_t factors);

  std::vector<double> d_;  // standard deviations; 1 on the covariance scale
};

/// L_STEP_DOWN: leaves a row of one level its variance alone: it has no use for a factor.
Formed FACTOR_ANALYTIC::L_STEP_DOWN(FORM_CONTEXT& context)
{
  const Frame here{context.eh, __func__};
  STRUCTURE_ROW& row = context.row;
  VARIANCE_PARAMETER* theta = context.model.parameters.data() + row.first;
  for (std::int64_t k = 0; k + 1 < row.parameters; ++k) {
    theta[k].value = 0.0;
    theta[k].constraint = Constraint::F;
  }
  row.first += row.parameters - 1;
  row.parameters = 1;
  row.order = 0;
  return Formed::again;
}

/// K4MVFA: holds the parameters of a factor model in their space and forms R with what its derivatives need.
/// W = D L,
///     FA    dV/dl_ij = D (e_i l_j' + l_j e_i' without its diagonal cell) D,  dV/dD_i^2 = (e_i V_i.' + V_i.
///     e_i') / (2 D_i^2) FACV  dV/dl_ij = e_i l_j' + l_j e_i',                                   dV/dpsi_i =
///     e_i e_i'
void FACTOR_ANALYTIC::K4MVFA(FORM_CONTEXT& context, std::int64_t factors)
{
  const Frame here{context.eh, __func__};
  const bool correlations = context.row.model == on_correlations;
  const std::int64_t levels = n();
  VARIANCE_PARAMETER* theta = context.model.parameters.data() + context.row.first;
  const auto loading = [&](std::int64_t i, std::int64_t j) -> double& { return theta[i + j * levels].value; };

  for (std::int64_t i = 0; i < levels; ++i) {
    double communality = 0.0;
    for (std::int64_t j = 0; j < factors; ++j) communality += loading(i, j) * loading(i, j);
    VARIANCE_PARAMETER& last = theta[i + factors * levels];
    double specific = 0.0;
    if (correlations) {
      if (communality > communality_limit) {
        const double by = std::sqrt(communality_target / communality);
        for (std::int64_t j = 0; j < factors; ++j) loading(i, j) *= by;
        communality = communality_target;
      }
      specific = std::max(1.0 - communality, least_specific);
      floor_variance(last);
      d_[static_cast<std::size_t>(i)] = std::sqrt(last.value);
    } else {
      const double least = least_specific * (communality > 0.0 ? std::min(1.0, communality) : 1.0);
      if (!(last.value > least)) last.value = least;
      specific = last.value;
      d_[static_cast<std::size_t>(i)] = 1.0;
    }
    const double d = d_[static_cast<std::size_t>(i)];
    for (std::int64_t j = 0; j < factors; ++j) w(i, j) = d * loading(i, j);
    r(i, i) = d * d * specific;
  }

  // R = W W' + the specifics, which are on the diagonal by now
  for (std::int64_t j = 0; j < levels; ++j) std::fill(&r(j, j) + 1, r_.data() + (j + 1) * levels, 0.0);
  if (factors > 0) dsyrk('L', 'N', levels, factors, 1.0, w_.data(), levels, 1.0, r_.data(), levels);
  mirror_lower(r_.data(), levels, levels);

  std::size_t k = 0;
  for (std::int64_t j = 0; j < factors; ++j) {
    for (std::int64_t i = 0; i < levels; ++i) {
      const double d = d_[static_cast<std::size_t>(i)];
      derivatives_[k++] = {.source = RANK_TWO::Source::factor,
                           .i = i,
                           .c = j,
                           .factor = d,
                           .diagonal = correlations ? -2.0 * d * w(i, j) : 0.0};
    }
  }
  for (std::int64_t i = 0; i < levels; ++i) {
    const double d = d_[static_cast<std::size_t>(i)];
    if (correlations) {
      derivatives_[k++] = {.source = RANK_TWO::Source::matrix, .i = i, .c = i, .factor = 0.5 / (d * d)};
    } else {
      derivatives_[k++] = {.i = i, .c = i, .factor = 0.5};
    }
  }
}

Formed FACTOR_ANALYTIC::form(FORM_CONTEXT& context)
{
  ERROR_HANDLER& eh = context.eh;
  const Frame here{eh, __func__};
  const std::int64_t levels = context.row.size;
  const std::int64_t parameters = context.row.parameters;
  const bool fits = levels >= 1 && parameters >= levels && parameters % levels == 0;
  if (!check_row_size(eh, context.row, fits ? parameters : -1)) return Formed::in_handler;
  const std::int64_t factors = parameters / levels - 1;
  if (levels == 1 && factors > 0) return L_STEP_DOWN(context);
  if (!make_room(eh, levels, parameters, factors) || !resize(eh, d_, levels)) return Formed::in_handler;
  K4MVFA(context, factors);
  if (invert() != 0) return Formed::in_handler;
  finish();
  return Formed::done;
}

}  // namespace

std::unique_ptr<COMPONENT_MATRIX> make_factor_analytic(const STRUCTURE_ROW&, const VARIANCE_MODEL&)
{
  return std::make_unique<FACTOR_ANALYTIC>();
}

}  // namespace tolvan
