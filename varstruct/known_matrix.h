// A known relationship matrix between the levels, held as its inverse, with a variance of its own or without.
#pragma once

#include "varstruct/component_matrix.h"

namespace tolvan {

/// R = g K with the inverse of K known:
///     R^-1 = K^-1/g,   log|R| = n ln|g| + log|K|,   R^-1 (dR/dg) R^-1 = K^-1/g^2,   d log|R| / dg = n/g.
/// n counts the dimensions in which K is known.  K^-1 is seen where it is kept; nothing of its size is
/// copied.  Lagrangian rows of a singular K count in n as all others do: scaled with the rest, they change
/// neither effects nor likelihood.
class KNOWN_MATRIX : public COMPONENT_MATRIX {
 public:
  Formed form(FORM_CONTEXT& context) override;
  void contract(const double* s, double* out) const override;
  bool scales_alone() const override { return score_part_.size() == 1; }
  void working(std::int64_t k, const double* x, double* y, std::int64_t outer,
               std::int64_t inner) const override;
  void covariance(double* r) const override;

 private:
  double variance_ = 1.0;
};

}  // namespace tolvan
