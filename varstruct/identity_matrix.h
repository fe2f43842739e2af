// The identity over the levels, with a variance of its own or without.
#pragma once

#include "varstruct/component_matrix.h"

namespace tolvan {

/// R = g I, or I for a row without a parameter:
///     R^-1 = I/g,   log|R| = n ln|g|,   R^-1 (dR/dg) R^-1 = I/g^2,   d log|R| / dg = n/g.
/// A negative g is legal: an unbounded component may be one, as long as V stays positive definite.
class IDENTITY_MATRIX : public COMPONENT_MATRIX {
 public:
  Formed form(FORM_CONTEXT& context) override;
  void contract(const double* s, double* out) const override;
  void working(std::int64_t k, const double* x, double* y, std::int64_t outer, std::int64_t inner) const override;
  void apply_inverse(const double* x, double* y, std::int64_t outer, std::int64_t inner) const override;
  void covariance(double* r) const override;

 private:
  double variance_ = 1.0;
};

}  // namespace tolvan
