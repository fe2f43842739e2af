// Autoregressive series, in independent pieces where the row has them.
#include <algorithm>
#include <array>
#include <cmath>

#include "base/text.h"
#include "varstruct/banded_matrix.h"
#include "varstruct/correlation_models.h"
#include "varstruct/form_row.h"
#include "varstruct/series_bounds.h"

namespace tolvan {

namespace {

constexpr int most = 3;  // terms of the longest recursion
constexpr std::int64_t sar_code = 14;

using Coefficients = std::array<double, most + 1>;  // from 1; [0] belongs to the level itself

// What is known of a level that has m levels before it in its piece, m up to q: its foretelling
//     x_t = c_1 x_{t-1} + ... + c_m x_{t-m} + error,   f_0 = 1, f_a = -c_a,
// with the variance v of the error, and the derivatives of f and log v by the parameter.
struct FORETELLING {
  Coefficients f{};
  double v = 1.0;
  std::array<Coefficients, most> df{};
  std::array<double, most> dlogv{};
};
using Foretellings = std::array<FORETELLING, most + 1>;

// The recursion's coefficients phi, and their derivatives by the parameters.
struct RECURSION {
  int q = 0;
  Coefficients phi{};
  std::array<Coefficients, most> dphi{};
};

RECURSION plain_recursion(const std::array<double, most>& theta, int order)
{
  RECURSION r{.q = order};
  for (int k = 0; k < order; ++k) {
    r.phi[k + 1] = theta[k];
    r.dphi[k][k + 1] = 1.0;
  }
  return r;
}

// (1 - p/2 B)^2, or (1 - g1 B)(1 - g2 B)^2, B the step back by one level.
RECURSION equal_root_recursion(const std::array<double, most>& theta, int order)
{
  RECURSION r{.q = order + 1};
  if (order == 1) {
    const double p = theta[0];
    r.phi = {0.0, p, -0.25 * p * p};
    r.dphi[0] = {0.0, 1.0, -0.5 * p};
  } else {
    const double g1 = theta[0], g2 = theta[1];
    r.phi = {0.0, g1 + 2.0 * g2, -(2.0 * g1 * g2 + g2 * g2), g1 * g2 * g2};
    r.dphi[0] = {0.0, 1.0, -2.0 * g2, g2 * g2};
    r.dphi[1] = {0.0, 2.0, -2.0 * (g1 + g2), 2.0 * g1 * g2};
  }
  return r;
}

// Levinson's recursion run backwards (Box and Jenkins, Time Series Analysis, A3.2; Monahan 1984): with w =
// c_m of order m, the partial autocorrelation,
//     c'_j = (c_j + w c_{m-j}) / (1 - w^2)  of order m - 1,   v = v' (1 - w^2);
// v is 1 at order 0 on the correlation scale, at order q on the innovation scale.  The order of the first
// leading minor that is not positive, 0 when all are.
std::int64_t foretell(const RECURSION& recursion, int parameters, bool innovation, Foretellings& out)
{
  const int q = recursion.q;
  Coefficients c = recursion.phi;
  auto dc = recursion.dphi;
  std::array<double, most + 1> one_less{};  // 1 - w^2 by order
  std::array<std::array<double, most>, most + 1> dlog{};
  for (int m = q; m >= 0; --m) {
    FORETELLING& level = out[m];
    level = {};
    level.f[0] = 1.0;
    for (int a = 1; a <= m; ++a) level.f[a] = -c[a];
    for (int k = 0; k < parameters; ++k)
      for (int a = 1; a <= m; ++a) level.df[k][a] = -dc[k][a];
    if (m == 0) break;
    const double w = c[m], s = 1.0 - w * w;
    one_less[m] = s;
    const Coefficients old = c;
    for (int j = 1; j < m; ++j) c[j] = (old[j] + w * old[m - j]) / s;
    for (int k = 0; k < parameters; ++k) {
      const Coefficients dold = dc[k];
      const double dw = dold[m];
      dlog[m][k] = -2.0 * w * dw / s;
      for (int j = 1; j < m; ++j)
        dc[k][j] = (dold[j] + dw * old[m - j] + w * dold[m - j]) / s - c[j] * dlog[m][k];
    }
  }
  std::int64_t bad = 0;
  for (int m = 1; m <= q; ++m) {
    out[m].v = out[m - 1].v * one_less[m];
    for (int k = 0; k < parameters; ++k) out[m].dlogv[k] = out[m - 1].dlogv[k] + dlog[m][k];
    if (bad == 0 && !(out[m].v > 0.0)) bad = m + 1;
  }
  if (bad != 0 || !innovation) return bad;
  const double v = out[q].v;
  const auto dlogv = out[q].dlogv;
  for (int m = 0; m <= q; ++m) {
    out[m].v /= v;
    for (int k = 0; k < parameters; ++k) out[m].dlogv[k] -= dlogv[k];
  }
  return 0;
}

class AUTOREGRESSIVE final : public BANDED_MATRIX {
 public:
  AUTOREGRESSIVE(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model)
      : pieces_(pieces_of(row, model)),
        order_(std::max<std::int64_t>(row.order, 1)),
        equal_roots_(row.model == sar_code),
        innovation_(row.sub_code == innovation_scale)
  {
  }

  Formed form(FORM_CONTEXT& context) override { return equal_roots_ ? form_sar(context) : form_ar(context); }

 private:
  Formed form_ar(FORM_CONTEXT& context)
  {
    return form_series(context, plain_recursion, [&] {
      if (order_ == 1) bound_ar1(context, parameter(context, 0));
      if (order_ == 2) bound_pair(parameter(context, 0).value, parameter(context, 1).value);
      if (order_ == 3)
        bound_triple(parameter(context, 0).value, parameter(context, 1).value, parameter(context, 2).value);
    });
  }

  Formed form_sar(FORM_CONTEXT& context)
  {
    return form_series(context, equal_root_recursion, [&] {
      for (std::int64_t k = 0; k < order_; ++k) bound_root(parameter(context, k).value);
    });
  }

  template <class Recursion, class Bound>
  Formed form_series(FORM_CONTEXT& context, Recursion&& recursion, Bound&& bound)
  {
    mark_correlations(context, order_);
    if (context.row.size == 1) {
      step_down(context);
      return Formed::again;
    }
    bound();
    std::array<double, most> theta{};
    for (std::int64_t k = 0; k < order_; ++k)
      theta[static_cast<std::size_t>(k)] = parameter(context, k).value;
    const RECURSION r = recursion(theta, static_cast<int>(order_));
    check_pieces(context.eh, pieces_);
    const std::int64_t n = context.row.size;
    if (!size_bands(context.eh, n, std::clamp<std::int64_t>(n - 1, 0, r.q), order_)) return Formed::in_handler;
    Foretellings levels{};
    const std::int64_t bad = foretell(r, static_cast<int>(order_), innovation_, levels);
    if (bad != 0)
      return failed_inversion(context.eh,
                              equal_roots_ ? text("SAR3 structure") : text("AR", order_, " structure"), bad);
    fill(r.q, levels);
    return Formed::done;
  }

  // R^-1(i, i - d) = sum over t of F(t, i) F(t, i - d) / v_t, t from i to i - d + q in the piece; dRi is
  // minus its derivative.
  void fill(int q, const Foretellings& levels)
  {
    log_determinant_ = 0.0;
    std::array<double, most + 1> log_v{};
    for (int m = 0; m <= q; ++m) log_v[m] = std::log(levels[m].v);
    const int p = static_cast<int>(order_);
    for (std::size_t piece = 0; piece + 1 < pieces_.size(); ++piece) {
      const std::int64_t start = pieces_[piece], end = pieces_[piece + 1];
      for (std::int64_t t = start; t < end; ++t) {
        const int m = static_cast<int>(std::min<std::int64_t>(t - start, q));
        const FORETELLING& level = levels[m];
        e_[static_cast<std::size_t>(t)] = 1.0 / level.v;
        for (int a = 1; a <= m; ++a) f_[static_cast<std::size_t>((a - 1) * n_ + t)] = level.f[a];
        log_determinant_ += log_v[m];
        for (int k = 0; k < p; ++k) score_part_[k] += level.dlogv[k];
      }
      ELEMENT inside[most + 1];  // the same for every element away from both ends
      for (int d = 0; d <= q; ++d) inside[d] = element(q, levels, q, d, q - d);
      for (std::int64_t i = start; i < end; ++i) {
        for (std::int64_t d = 0; d <= std::min<std::int64_t>(q, i - start); ++d) {
          const std::int64_t last = std::min(end - 1, i - d + q);
          const int dd = static_cast<int>(d), reach = static_cast<int>(last - i);
          const bool away = i - start >= q && i - d + q < end;
          const ELEMENT x = away ? inside[d] : element(q, levels, i - start, dd, reach);
          ri_[static_cast<std::size_t>(d * n_ + i - d)] = x.value;
          for (int k = 0; k < p; ++k)
            dri_[static_cast<std::size_t>((k * (b_ + 1) + d) * n_ + i - d)] = x.derivative[k];
        }
      }
    }
  }

  struct ELEMENT {
    double value = 0.0;
    std::array<double, most> derivative{};
  };

  // Element (i, i - d), i with `before` levels before it in its piece, over the levels from i to i + reach.
  static ELEMENT element(int q, const Foretellings& levels, std::int64_t before, int d, int reach)
  {
    ELEMENT x;
    for (int a = 0; a <= reach; ++a) {
      const FORETELLING& level = levels[std::min<std::int64_t>(before + a, q)];
      const double f = level.f[a], g = level.f[a + d];
      x.value += f * g / level.v;
      for (int k = 0; k < most; ++k)
        x.derivative[k] -= (level.df[k][a] * g + f * level.df[k][a + d] - f * g * level.dlogv[k]) / level.v;
    }
    return x;
  }

  std::vector<std::int64_t> pieces_;
  std::int64_t order_;
  bool equal_roots_;
  bool innovation_;
};

}  // namespace

std::unique_ptr<COMPONENT_MATRIX> make_autoregressive(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model)
{
  const bool equal_roots = row.model == sar_code;
  // An order out of range steps down all the same when the row has but one level.
  if (row.order > (equal_roots ? 2 : 3) && row.size != 1) return nullptr;
  return std::make_unique<AUTOREGRESSIVE>(row, model);
}

}  // namespace tolvan
