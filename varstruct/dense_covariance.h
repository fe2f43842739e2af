// A component whose R is a full matrix and whose derivatives have rank one or two: the base of the
// unstructured and factor models.
#pragma once

#include <cstdint>
#include <vector>

#include "varstruct/component_matrix.h"

namespace tolvan {

/// Rdot of one parameter: `factor` times (e_i w' + w e_i'), plus `diagonal` at (i, i); with i below 0,
/// `factor` times w w'.
struct RANK_TWO {
  enum class Source { level, factor, matrix };  // w is e_c, column c of W, column c of R
  Source source = Source::level;
  std::int64_t i = 0;
  std::int64_t c = 0;
  double factor = 1.0;
  double diagonal = 0.0;
};

/// The storage, the inverse by Cholesky, and all that follows from derivatives of low rank.  A model fills R
/// and W, inverts, and lists its derivatives.  No n x n matrix a parameter is ever kept: contractions take M
/// = R^-1 S R^-1 once.
class DENSE_COVARIANCE : public COMPONENT_MATRIX {
 public:
  void contract(const double* s, double* out) const override;
  void working(std::int64_t k, const double* x, double* y, std::int64_t outer,
               std::int64_t inner) const override;
  void covariance(double* r) const override;

 protected:
  /// Room for n levels, the derivatives of p parameters and a W of n x columns; false, with the message, if
  /// memory is short.
  bool make_room(ERROR_HANDLER& eh, std::int64_t n, std::int64_t p, std::int64_t columns);

  /// Inverse and log-determinant of R.  0, or the order of the leading minor that is not positive; a pivot
  /// counts as positive above `tolerance` times its diagonal.
  std::int64_t invert(double tolerance = 0.0);
  /// The same from C with R = C C', C lower triangular in the inverse's place with positive diagonal.
  std::int64_t invert_factor();
  /// Score parts, and what working() needs, from inverse, W and derivatives.
  void finish();

  std::int64_t n() const { return inverse_.n; }
  double& r(std::int64_t i, std::int64_t j) { return r_[static_cast<std::size_t>(i + j * n())]; }
  double& w(std::int64_t i, std::int64_t j) { return w_[static_cast<std::size_t>(i + j * n())]; }

  std::vector<double> r_;              // R, both triangles
  std::vector<double> ri_;             // its inverse, both triangles
  std::vector<double> w_;              // W, n x columns
  std::vector<RANK_TWO> derivatives_;  // one a parameter

 private:
  void add_traces(const double* m, const double* mw, const double* t, double* out) const;

  std::int64_t columns_ = 0;
  std::vector<double> riw_;                 // R^-1 W
  mutable std::vector<double> t_, m_, mw_;  // scratch of contract(): R^-1 S, R^-1 S R^-1, and that times W
};

}  // namespace tolvan
