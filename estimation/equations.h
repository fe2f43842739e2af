// The mixed-model equations C b = r of a fit: layout, pattern, fixed cross-products and their refilling.
// Routines: SETUP_EQUATIONS, K4MXXS, K4MXXG.
//
// W holds all design columns, fixed and random; R = v diag(1/weight).  C = W'R^-1 W + G^-1 and r = W'R^-1 y.
// With R0 = diag(1/weight) the products C0 = W'R0^-1 W, W'R0^-1 y and y'R0^-1 y never change during a fit: they are formed
// once and only scaled by 1/v, while G^-1 is added anew in each evaluation.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "api/error_handler.h"
#include "api/fit_options.h"
#include "data/design_matrix.h"
#include "estimation/coefficients.h"
#include "estimation/factor.h"
#include "model/term_table.h"
#include "varstruct/form_structures.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// The design by equations: for each position the records in which it is present, rising, with its values.
struct DESIGN_COLUMNS {
  std::vector<std::int64_t> start;  // n + 1
  std::vector<std::int32_t> record;
  std::vector<double> value;
};

/// A fixed covariate whose column was centred: x - shift entered the equations.
struct CENTRED {
  std::int64_t equation;  // model order
  double shift;
};

struct MIXED_EQUATIONS {
  std::int64_t n = 0;                    // equations
  std::int64_t records = 0;              // analysis records with a weight above zero
  std::vector<std::int32_t> inner;       // model order to inner order
  std::vector<std::int32_t> position;    // model order to elimination order
  std::vector<std::uint8_t> fixed;       // per model equation: 1 for a fixed effect (mv included)

  FACTOR factor;
  DESIGN_COLUMNS columns;                // by elimination position
  COEFFICIENTS c;                        // refilled in each evaluation
  std::vector<double> c0;                // C0, aligned with c.value
  std::vector<double> r0;                // W'R0^-1 y, elimination order, of the shifted response
  double y0 = 0.0;                       // y'R0^-1 y of the shifted response
  std::vector<double> mean_square;       // per term: the mean square of its non-zero design values, 1 for factors
  double log_weights = 0.0;              // sum of ln w over records with a weight above zero

  double shift = 0.0;                    // taken off every observed response before any product
  std::int64_t mu = -1;                  // model equation of mu, -1 when the model has none
  std::vector<CENTRED> centred;

  std::int64_t position_of(std::int64_t equation) const { return position[static_cast<std::size_t>(equation)]; }
};

/// SETUP_EQUATIONS: lays the terms out, finds pattern, order and factor, and forms the fixed cross-products; once a fit.
/// Fixed terms are dense until their count would pass the limit of the option dense (800 by default).
void SETUP_EQUATIONS(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const TERM_TABLE& terms, const DESIGN_MTX& design,
                     MIXED_EQUATIONS& equations);

/// K4MXXS: the residual part: c becomes C0 / v.
void K4MXXS(ERROR_HANDLER& eh, const FORMED_ROW& residual, MIXED_EQUATIONS& equations);

/// K4MXXG: adds G^-1 of every random term to c and sums log|G|; the equations of a dropped term are emptied.
void K4MXXG(ERROR_HANDLER& eh, const TERM_TABLE& terms, const VARIANCE_MODEL& model, const FORMED& formed,
            MIXED_EQUATIONS& equations, double& log_det_g);

/// b = C_R a for columns in elimination order, C_R = C0 / v being the residual part of C.
///   a, b   n by columns, leading dimension n
void multiply_residual_part(const MIXED_EQUATIONS& equations, double inverse, const double* a, double* b, std::int64_t columns);

}  // namespace tolvan
