// A component whose matrix is the same along each diagonal and whose inverse is dense: what its models share.
#pragma once

#include <cstdint>
#include <vector>

#include "varstruct/dense_matrix.h"

namespace tolvan {

/// R(i, j) = lag(|i - j|) within a piece.  The inverse costs n^2, and so does the derivative of it by one
/// parameter.
class TOEPLITZ_MATRIX : public DENSE_MATRIX {
 public:
  void contract(const double* s, double* out) const override;
  void working(std::int64_t k, const double* x, double* y, std::int64_t outer,
               std::int64_t inner) const override;
  void covariance(double* r) const override;

 protected:
  /// The lags at which Rdot_k is not 0, and what it is there.
  struct LAGS {
    std::int64_t first, count;
    const double* value;
  };
  virtual LAGS derivative(std::int64_t k) const = 0;

  void contract_columns(const COLUMNS& w, double* out) const override;

  /// Sizes all arrays for p parameters; lag_ has n elements, 0.
  bool size_toeplitz(ERROR_HANDLER& eh, const std::vector<std::int64_t>& pieces, std::int64_t p);
  /// The inverse and log-determinant from lag_; as DENSE_MATRIX::invert.
  std::int64_t invert_lags(double tolerance);

  std::vector<double> lag_;

 private:
  /// contract() for one parameter, from the derivative of the inverse.
  double contract_derivative(const LAGS& lags, const double* s) const;
  void derivative_times(const LAGS& lags, const double* z, double* y, std::int64_t outer,
                        std::int64_t inner) const;

  std::vector<double> a_, old_;  // the foretelling of the next level from those before it
};

}  // namespace tolvan
