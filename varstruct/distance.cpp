// Correlations by the distance of points in one or two dimensions.  Routines: K4MVDG, POWEXP.
#include <algorithm>
#include <array>
#include <cmath>

#include "base/lapack.h"
#include "base/memory.h"
#include "base/text.h"
#include "varstruct/correlation_models.h"
#include "varstruct/dense_matrix.h"
#include "varstruct/form_row.h"
#include "varstruct/make_component.h"
#include "varstruct/matern.h"

namespace tolvan {

namespace {

enum Metric : std::int64_t { EXP = 1, GAU = 2, EUC = 3, SPH = 4, CIR = 5, LIN = 6, LVR = 7, MAT = 9 };

constexpr double smallest_power = 1e-7, largest_power = 0.999;
constexpr double same_point = 1e-12;         // separations up to this are none
constexpr double first_separation = 1e10;    // before any is known
constexpr double share_moved = wide(0.01f);  // of the smallest separation so far
constexpr int times_to_fix = 3;              // that a power is taken back to its limit
constexpr int most_moves = 100;              // of one point
constexpr double two_over_pi = 0.6366197722844561;
constexpr double pivot_tolerance = 1e-12;  // times the mean of the first five diagonal elements, which are 1
constexpr std::int64_t most_parameters = 5;

// What is summed in the exponent of a power model for two points that lie dx and dy apart.
using Separations = std::array<double, 2>;

Separations separations(std::int64_t metric, std::int64_t parameters, bool plane, double dx, double dy)
{
  if (metric == EUC) return {std::sqrt(dx * dx + dy * dy), 0.0};
  Separations d = metric == GAU ? Separations{dx * dx, dy * dy} : Separations{std::fabs(dx), std::fabs(dy)};
  if (!plane) d[1] = 0.0;
  if (parameters == 1) d = {d[0] + d[1], 0.0};
  return d;
}

// A range model at distance d (spherical, circular: Cressie, Statistics for Spatial Data, 2.3.1): f, and df
// by the range a.
struct RANGE_VALUE {
  double f = 0.0, df = 0.0;
};

RANGE_VALUE range_value(std::int64_t metric, double d, double a)
{
  if (metric == LIN) {  // a is a slope, and the range 1/a
    if (a > 0.0 && d >= 1.0 / a) return {};
    return {1.0 - d * a, -d};
  }
  if (d >= a) return {};
  const double u = d / a;
  switch (metric) {
    case SPH:
      return {1.0 - 0.5 * u * (3.0 - u * u), (1.0 - u * u) * 1.5 * d / (a * a)};
    case CIR: {
      const double root = std::sqrt(1.0 - u * u);
      return {1.0 - two_over_pi * (u * root + std::asin(u)), 2.0 * root * u * two_over_pi / a};
    }
    default:  // LVR
      return {1.0 - u, d / (a * a)};
  }
}

class METRIC final : public DENSE_MATRIX {
 public:
  METRIC(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model, std::int64_t own)
      : starts_(pieces_of(row, model)), metric_(row.sub_code), parameters_(own)
  {
  }

  Formed form(FORM_CONTEXT& context) override { return K4MVDG(context); }

  void working(std::int64_t k, const double* x, double* y, std::int64_t outer,
               std::int64_t inner) const override
  {
    const std::vector<double>& rdot = rdot_[static_cast<std::size_t>(k)];
    if (rdot.empty()) {
      std::fill(y, y + outer * n_ * inner, 0.0);
      return;
    }
    work_in_steps(x, y, outer, inner, [&](const double* z, double* part, std::int64_t slices) {
      dense_times(rdot.data(), n_, 1.0, z, part, slices, inner);
    });
  }

  void covariance(double* r) const override
  {
    std::fill(r, r + n_ * n_, 0.0);
    std::array<double, most_parameters> d{};
    for_each_pair([&](std::int64_t i, std::int64_t j) {
      r[i + j * n_] = r[j + i * n_] = value(at_.x[i] - at_.x[j], height(i) - height(j), false, d);
    });
    for (std::int64_t i = 0; i < n_; ++i) r[i * (n_ + 1)] = 1.0;
  }

 private:
  /// K4MVDG: forms a row whose correlations depend on distances.
  Formed K4MVDG(FORM_CONTEXT& context)
  {
    ERROR_HANDLER& eh = context.eh;
    const Frame here{eh, __func__};
    const std::int64_t n = context.row.size;
    if (!take_coordinates(context)) return Formed::in_handler;
    if (metric_ <= EUC) {
      POWEXP(context);
    } else if (metric_ == MAT) {
      matern_.take(context, parameters_);
    }
    if (eh.terminate()) return Formed::in_handler;
    for (std::int64_t k = 0; k < parameters_; ++k)
      theta_[static_cast<std::size_t>(k)] = parameter(context, k).value;
    check_pieces(eh, starts_);
    if (!size_dense(eh, starts_, parameters_)) return Formed::in_handler;
    if (!resize(eh, rdot_, parameters_)) return Formed::in_handler;
    for (std::int64_t k = 0; k < parameters_; ++k) {
      const bool needed = metric_ != MAT || matern_.has_derivative(k);
      if (!assign(eh, rdot_[static_cast<std::size_t>(k)], needed ? n * n : 0, 0.0)) return Formed::in_handler;
    }
    fill();
    const std::int64_t bad = invert(pivot_tolerance);
    if (bad != 0) {
      const bool blocked = pieces_.size() > 2;
      return failed_inversion(eh, blocked ? "blocked spartial R matrix" : "spatial R matrix ", bad);  // sic
    }
    return form_score_parts(eh) ? Formed::done_by_metric : Formed::in_handler;
  }

  bool take_coordinates(FORM_CONTEXT& context)
  {
    const std::int64_t at = context.row.coordinates, n = context.row.size;
    if (at >= 0 && at < static_cast<std::int64_t>(context.model.coordinates.size())) {
      const COORDINATES& kept = context.model.coordinates[static_cast<std::size_t>(at)];
      if (!attempt([&] { at_ = kept; })) {
        context.eh.out_of_memory();
        return false;
      }
      const auto nx = static_cast<std::int64_t>(at_.x.size()), ny = static_cast<std::int64_t>(at_.y.size());
      if (nx == n && (ny == n || ny == 0)) return true;
    }
    context.eh.internal(text("a distance model of ", n, " levels has no coordinates for them"));
    return false;
  }

  /// POWEXP: holds the powers in their range and moves points apart that lie at one place.
  void POWEXP(FORM_CONTEXT& context)
  {
    const Frame here{context.eh, __func__};
    for (std::int64_t k = 0; k < parameters_; ++k) {
      VARIANCE_PARAMETER& rho = parameter(context, k);
      const double held = std::min(std::max(rho.value, smallest_power), largest_power);
      int& times = times_held_[static_cast<std::size_t>(k)];
      times = held == rho.value ? 0 : times + 1;
      rho.value = held;
      // Pulled beyond its limit again and again it is there to stay.
      if (times >= times_to_fix && is_free(rho.constraint)) rho.constraint = Constraint::B;
    }
    COORDINATES& kept = context.model.coordinates[static_cast<std::size_t>(context.row.coordinates)];
    double smallest = first_separation;
    bool moved = false;
    for (std::size_t piece = 0; piece + 1 < starts_.size(); ++piece) {
      for (std::int64_t i = starts_[piece]; i < starts_[piece + 1]; ++i) {
        int moves = 0;
        for (std::int64_t j = starts_[piece]; j < i; ++j) {
          const Separations d =
              separations(metric_, parameters_, plane(), at_.x[i] - at_.x[j], height(i) - height(j));
          const double apart = d[0] + d[1];
          if (apart > same_point) {
            smallest = std::min(smallest, apart);
            continue;
          }
          if (!plane() || ++moves > most_moves) {
            context.eh.error("Repeated point in spatial layout");
            return;
          }
          context.eh.EH_ADD_MESSAGE(
              {.text = "Repeated point in spatial layout", .etype = Etype::warning, .unique = true});
          at_.x[i] += share_moved * smallest;
          moved = true;
          j = starts_[piece] - 1;  // it may have come upon an earlier point
        }
      }
    }
    if (moved) {  // of the same lengths: nothing is allocated
      std::copy(at_.x.begin(), at_.x.end(), kept.x.begin());
    }
  }

  bool plane() const { return !at_.y.empty(); }
  double height(std::int64_t i) const { return at_.y.empty() ? 0.0 : at_.y[static_cast<std::size_t>(i)]; }

  // Two points dx and dy apart: the element of R, and where asked for the derivatives d by the parameters.
  double value(double dx, double dy, bool derivatives, std::array<double, most_parameters>& d) const
  {
    if (metric_ == MAT) return matern_.value(dx, dy, derivatives, d);
    if (metric_ <= EUC) {  // rho_1^d_1 rho_2^d_2
      const Separations s = separations(metric_, parameters_, plane(), dx, dy);
      const double r = std::exp(log_power_[0] * s[0] + log_power_[1] * s[1]);
      d[0] = s[0] * r / theta_[0];
      if (parameters_ > 1) d[1] = s[1] * r / theta_[1];
      return r;
    }
    const RANGE_VALUE f = range_value(metric_, std::sqrt(dx * dx + dy * dy), theta_[0]);
    const double sill = parameters_ > 1 ? theta_[1] : 1.0;
    d[0] = sill * f.df;
    d[1] = f.f;
    return sill * f.f;
  }

  // The lower triangle of R into the inverse's room, and the derivatives.
  void fill()
  {
    for (std::size_t k = 0; k < log_power_.size(); ++k)
      log_power_[k] = static_cast<std::int64_t>(k) < parameters_ ? std::log(theta_[k]) : 0.0;
    std::array<double, most_parameters> d{};
    for_each_pair([&](std::int64_t i, std::int64_t j) {
      const auto at = static_cast<std::size_t>(i + j * n_);
      ri_[at] = value(at_.x[i] - at_.x[j], height(i) - height(j), true, d);
      for (std::size_t k = 0; k < rdot_.size(); ++k)
        if (!rdot_[k].empty()) rdot_[k][at] = d[k];
    });
    for (std::int64_t i = 0; i < n_; ++i) ri_[static_cast<std::size_t>(i * (n_ + 1))] = 1.0;
    for (std::vector<double>& rdot : rdot_)
      if (!rdot.empty()) mirror_lower(rdot.data(), n_, n_);
  }

  // The pairs i above j of each piece, down the columns.
  template <class Work>
  void for_each_pair(Work&& work) const
  {
    for (std::size_t piece = 0; piece + 1 < starts_.size(); ++piece) {
      for (std::int64_t j = starts_[piece]; j < starts_[piece + 1]; ++j)
        for (std::int64_t i = j + 1; i < starts_[piece + 1]; ++i) work(i, j);
    }
  }

  void contract_columns(const COLUMNS& w, double* out) const override
  {
    for (std::size_t k = 0; k < rdot_.size(); ++k) {
      if (rdot_[k].empty()) continue;
      double sum = 0.0;  // the diagonal of Rdot is 0
      for (std::int64_t j = w.from; j < w.to; ++j)
        sum += ddot(w.end - j - 1, w.down(j) + 1, 1, rdot_[k].data() + j * (n_ + 1) + 1, 1);
      out[k] += 2.0 * sum;
    }
  }

  std::vector<std::int64_t> starts_;
  std::int64_t metric_;
  std::int64_t parameters_;
  COORDINATES at_;
  MATERN matern_;
  std::array<double, most_parameters> theta_{};
  std::array<double, 2> log_power_{};
  std::array<int, 2> times_held_{};  // forms in a row that held a power at its limit
  std::vector<std::vector<double>>
      rdot_;  // n x n each, both triangles; empty for a parameter without a derivative
};

}  // namespace

std::unique_ptr<COMPONENT_MATRIX> make_metric(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model)
{
  const std::int64_t own = std::min(row_parameters(row).own, most_parameters);
  const bool known = (row.sub_code >= EXP && row.sub_code <= LVR) || row.sub_code == MAT;
  if (!known || own < 1) return nullptr;
  return std::make_unique<METRIC>(row, model, own);
}

}  // namespace tolvan
