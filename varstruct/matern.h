// The Matern correlation of two points, with its derivatives.
#pragma once

#include <array>
#include <cstdint>

#include "varstruct/component_matrix.h"

namespace tolvan {

/// With z = d / phi, d the distance in rotated and stretched coordinates,
///     M = z^nu K_nu(z) 2^(1-nu) / Gamma(nu),   M = 1 at z = 0   (Stein 1999, Interpolation of Spatial
///     Data, 2.10), hx' = cos(alpha) hx + sin(alpha) hy,   hy' = -sin(alpha) hx + cos(alpha) hy, d = (delta
///     |hx'|^lambda + |hy'|^lambda / delta)^(1 / lambda).
/// Parameters in the order phi, nu, delta, alpha, lambda; those that a row leaves out stand at 0.5, 1, 0, 2.
class MATERN {
 public:
  /// Takes the first count values of a row, held within their limits there and here.  A lambda that is not 1
  /// is 2.
  void take(FORM_CONTEXT& context, std::int64_t count);
  /// Whether M changes with the parameter: lambda is a choice, not a quantity, and one with code F stays as
  /// it is.
  bool has_derivative(std::int64_t k) const { return derivative_[static_cast<std::size_t>(k)]; }
  /// M for two points hx and hy apart, and where asked for its derivatives d.
  double value(double hx, double hy, bool derivatives, std::array<double, 5>& d) const;

 private:
  double phi_ = 1.0, nu_ = 0.5, delta_ = 1.0, cosine_ = 1.0, sine_ = 0.0;
  std::array<double, 3> c_{};  // 2^(1-nu) / Gamma(nu) a step below nu, at nu, a step above
  bool city_block_ = false;    // lambda is 1
  std::array<bool, 5> derivative_{};
};

}  // namespace tolvan
