// The inverse of the residual variance matrix over the analysis records, as sparse rows.
#pragma once

#include <cstdint>
#include <vector>

#include "data/design_matrix.h"
#include "estimation/direct_product.h"
#include "varstruct/form_structures.h"

namespace tolvan {

/// R^-1 by rows, both triangles, records rising in a row.  With weights R = D R0 D, D = diag(weight^-1/2), so that an element is
/// sqrt(w_r w_s) times that of R0^-1.  Empty (no rows) while R is one scaled identity.
struct RESIDUAL_INVERSE {
  std::vector<std::int64_t> start;   // rows + 1
  std::vector<std::int32_t> record;
  std::vector<double> value;
  std::vector<double> root_weight;   // sqrt of each record's weight; empty when all are 1
  std::vector<PRODUCT_ROWS> sections;

  bool empty() const { return start.empty(); }
};

/// Finds the pattern of R^-1 once a fit.
void lay_out_residual(const DESIGN_MTX& design, const FORMED& formed, RESIDUAL_INVERSE& r);
/// Fills the values of the present evaluation.
void fill_residual(const FORMED& formed, RESIDUAL_INVERSE& r);
/// y = R^-1 x over the analysis records.
void multiply_residual_inverse(const RESIDUAL_INVERSE& r, const double* x, double* y);

}  // namespace tolvan
