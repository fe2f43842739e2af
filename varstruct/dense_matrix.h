// A component whose inverse is dense: what its models share.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "varstruct/block_products.h"
#include "varstruct/component_matrix.h"

namespace tolvan {

/// A model tells its derivatives Rdot_k against columns of a matrix and times a vector; neither asks for an n
/// x n array a parameter.  Independent pieces make R, R^-1 and every Rdot_k block diagonal.
class DENSE_MATRIX : public COMPONENT_MATRIX {
 public:
  /// The sum of S(a, b) dRi_k(a, b) is that of W(a, b) Rdot_k(a, b), W = R^-1 S R^-1: two products for all
  /// parameters together.
  void contract(const double* s, double* out) const override;

 protected:
  /// Columns from ... to - 1 of a symmetric matrix W, each from its diagonal element down to the end of the
  /// piece: element (i, j) stands at w[i - from + (j - from) * ld].
  struct COLUMNS {
    const double* w;
    std::int64_t ld, from, to, end;
    const double* down(std::int64_t j) const
    {
      return w + (j - from) * (ld + 1);
    }  // from the diagonal element
  };
  /// out[k] += sum of W(i, j) Rdot_k(i, j) over these columns, an element below the diagonal counting twice.
  virtual void contract_columns(const COLUMNS& w, double* out) const = 0;
  /// working() in two steps: z = R^-1 x for a few slices, then derivative_times(z, y, slices), which makes y
  /// = Rdot_k z.
  template <class Times>
  void work_in_steps(const double* x, double* y, std::int64_t outer, std::int64_t inner,
                     Times&& derivative_times) const
  {
    const std::int64_t slice = n_ * inner, most = slices_at_once(n_, outer, inner);
    std::vector<double> z(static_cast<std::size_t>(slice * most));
    for (std::int64_t o = 0; o < outer; o += most) {
      const std::int64_t count = std::min(most, outer - o);
      apply_inverse(x + o * slice, z.data(), count, inner);
      derivative_times(z.data(), y + o * slice, count);
    }
  }

  /// Sizes the inverse for the pieces (from 0, the size at the end) and p parameters and sets the view.
  bool size_dense(ERROR_HANDLER& eh, const std::vector<std::int64_t>& pieces, std::int64_t p);
  /// Turns R, in the lower triangle of ri_, into its inverse, with the log-determinant.  The order of the
  /// first leading minor whose pivot is not above the tolerance, and ri_ spoiled; 0 when all are.
  std::int64_t invert(double tolerance);
  /// The score parts from the inverse and the derivatives; false when there is no room.
  bool form_score_parts(ERROR_HANDLER& eh);

  std::int64_t n_ = 0;
  std::vector<std::int64_t> pieces_;
  std::vector<double> ri_;  // n x n, both triangles
};

/// Copies the lower triangle of an n x n matrix with leading dimension ld into its upper one.
void mirror_lower(double* a, std::int64_t n, std::int64_t ld);

}  // namespace tolvan
