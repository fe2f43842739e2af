// A component whose inverse is banded: what its models share.
#pragma once

#include <cstdint>
#include <vector>

#include "varstruct/component_matrix.h"

namespace tolvan {

/// R^-1 = F'EF, F unit lower triangular with b bands below its diagonal, E diagonal and positive: row t of F
/// foretells level t from the b levels before it, and 1 / E(t, t) is the variance of what is left.  No array
/// here grows faster than n.
class BANDED_MATRIX : public COMPONENT_MATRIX {
 public:
  void contract(const double* s, double* out) const override;
  /// Rdot_k R^-1 x = R (dRi_k x): a product with bands, then two triangular solves.
  void working(std::int64_t k, const double* x, double* y, std::int64_t outer,
               std::int64_t inner) const override;
  void covariance(double* r) const override;

 protected:
  /// Sizes the bands for n levels, b bands and p parameters and sets the view; false when there is no room.
  bool size_bands(ERROR_HANDLER& eh, std::int64_t n, std::int64_t b, std::int64_t p);

  std::int64_t n_ = 0;
  std::int64_t b_ = 0;
  std::vector<double> ri_;   // bands of R^-1, laid out as SYMMETRIC::values
  std::vector<double> dri_;  // those of dRi_0, dRi_1, ..., one behind the other
  std::vector<double> f_;    // F(t, t - a) at (a - 1) * n + t; 0 where there is no level t - a
  std::vector<double> e_;    // E(t, t)

 private:
  void solve(double* y, std::int64_t outer, std::int64_t inner) const;  // y becomes R y
};

}  // namespace tolvan
