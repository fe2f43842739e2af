// Moving averages, alone and with one autoregressive term.
#include <algorithm>
#include <array>
#include <cmath>

#include "base/memory.h"
#include "varstruct/correlation_models.h"
#include "varstruct/form_row.h"
#include "varstruct/series_bounds.h"
#include "varstruct/toeplitz_matrix.h"

namespace tolvan {

namespace {

constexpr std::int64_t arma_code = 3;

// Lags and their derivatives by two parameters, on the scale of unit innovation variance.
struct SERIES {
  double lag = 0.0;
  std::array<double, 2> d{};
};

class MOVING_AVERAGE final : public TOEPLITZ_MATRIX {
 public:
  MOVING_AVERAGE(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model)
      : piece_starts_(pieces_of(row, model)),
        parameters_(row.model == arma_code || row.order >= 2 ? 2 : 1),
        arma_(row.model == arma_code),
        innovation_(row.sub_code == innovation_scale)
  {
  }

  Formed form(FORM_CONTEXT& context) override { return arma_ ? form_arma(context) : form_ma(context); }

 private:
  // y_t = e_t - a e_{t-1} - b e_{t-2}:  gamma_0 = 1 + a^2 + b^2,  gamma_1 = -a (1 - b),  gamma_2 = -b
  Formed form_ma(FORM_CONTEXT& context)
  {
    mark_correlations(context, parameters_);
    double& a = parameter(context, 0).value;
    double b = 0.0;
    if (parameters_ == 1) {
      bound_ma1(a);
    } else {
      bound_pair(a, parameter(context, 1).value);
      b = parameter(context, 1).value;
    }
    const std::array<SERIES, 3> gamma = {SERIES{1.0 + a * a + b * b, {2.0 * a, 2.0 * b}},
                                         SERIES{-a * (1.0 - b), {b - 1.0, a}}, SERIES{-b, {0.0, -1.0}}};
    if (!size(context)) return Formed::in_handler;
    for (std::int64_t l = 0; l < lags_; ++l) set_lag(l, gamma[static_cast<std::size_t>(l)], gamma[0]);
    return finish(context);
  }

  // y_t = phi y_{t-1} + e_t - theta e_{t-1} (Box and Jenkins, Time Series Analysis, 3.4.3):
  //     gamma_0 = (1 + theta^2 - 2 phi theta) / (1 - phi^2),  gamma_1 = (1 - phi theta)(phi - theta) / (1 -
  //     phi^2), gamma_k = phi gamma_{k-1}
  Formed form_arma(FORM_CONTEXT& context)
  {
    mark_correlations(context, parameters_);
    bound_arma(parameter(context, 0).value, parameter(context, 1).value, context.iteration <= 1);
    const double phi = parameter(context, 0).value, theta = parameter(context, 1).value;
    if (!size(context)) return Formed::in_handler;
    const double s = 1.0 - phi * phi;
    const auto over_s = [&](double x, double dx_phi, double dx_theta) {
      return SERIES{x / s, {(dx_phi + 2.0 * phi * x / s) / s, dx_theta / s}};
    };
    const SERIES gamma0 = over_s(1.0 + theta * theta - 2.0 * phi * theta, -2.0 * theta, 2.0 * (theta - phi));
    SERIES gamma = over_s((1.0 - phi * theta) * (phi - theta), 1.0 - 2.0 * phi * theta + theta * theta,
                          2.0 * phi * theta - phi * phi - 1.0);
    set_lag(0, gamma0, gamma0);
    for (std::int64_t l = 1; l < lags_; ++l) {
      set_lag(l, gamma, gamma0);
      gamma = {phi * gamma.lag, {gamma.lag + phi * gamma.d[0], phi * gamma.d[1]}};
    }
    return finish(context);
  }

  bool size(FORM_CONTEXT& context)
  {
    const std::int64_t n = context.row.size;
    lags_ = arma_ ? n : std::min<std::int64_t>(n, parameters_ + 1);
    check_pieces(context.eh, piece_starts_);
    return size_toeplitz(context.eh, piece_starts_, parameters_) &&
           assign(context.eh, dlag_, parameters_ * lags_, 0.0);
  }

  void set_lag(std::int64_t l, const SERIES& gamma, const SERIES& gamma0)
  {
    SERIES x = gamma;
    if (!innovation_) {  // gamma_l / gamma_0
      x.lag /= gamma0.lag;
      for (std::size_t k = 0; k < 2; ++k) x.d[k] = l == 0 ? 0.0 : (x.d[k] - x.lag * gamma0.d[k]) / gamma0.lag;
    }
    lag_[static_cast<std::size_t>(l)] = x.lag;
    for (std::int64_t k = 0; k < parameters_; ++k)
      dlag_[static_cast<std::size_t>(k * lags_ + l)] = x.d[static_cast<std::size_t>(k)];
  }

  Formed finish(FORM_CONTEXT& context)
  {
    const std::int64_t bad = invert_lags(0.0);
    if (bad != 0) return failed_inversion(context.eh, "ARMA structure", bad);
    return form_score_parts(context.eh) ? Formed::done : Formed::in_handler;
  }

  LAGS derivative(std::int64_t k) const override { return {0, lags_, dlag_.data() + k * lags_}; }

  std::vector<std::int64_t> piece_starts_;
  std::int64_t parameters_;
  bool arma_;
  bool innovation_;
  std::int64_t lags_ = 0;     // that the derivatives reach
  std::vector<double> dlag_;  // of parameter k at k * lags_ + lag
};

}  // namespace

std::unique_ptr<COMPONENT_MATRIX> make_moving_average(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model)
{
  return std::make_unique<MOVING_AVERAGE>(row, model);
}

}  // namespace tolvan
