// The mixed-model equations C b = r of a fit: layout, pattern, fixed cross-products and their refilling.
// Routines: SETUP_EQUATIONS, K4MXXS, K4MXXG.
//
// Solved by iteration there is no ordering and no factor: elimination order is inner order.  Where design and structures take
// less memory than C would, C is not formed either; c is then empty, and products of C go through `rows`, `columns` and the
// structures.
//
// W holds all design columns, fixed and random.  C = W'R^-1 W + G^-1 and r = W'R^-1 y.
// Where R = v diag(1/weight) the products C0 = W'R0^-1 W, W'R0^-1 y and y'R0^-1 y with R0 = diag(1/weight) never change during a
// fit: they are formed once and only scaled by 1/v.  So are those of each section with such an R, where a section's records share
// effects.  For any other R they are formed anew in each evaluation, as G^-1 is added.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "api/error_handler.h"
#include "api/fit_options.h"
#include "data/design_matrix.h"
#include "estimation/coefficients.h"
#include "estimation/direct_product.h"
#include "estimation/factor.h"
#include "estimation/residual_inverse.h"
#include "estimation/section_products.h"
#include "model/term_table.h"
#include "varstruct/equation_order_file.h"
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

/// How the equations are solved.
enum class Solving { by_factor, by_sweeps, by_products };

struct MIXED_EQUATIONS {
  std::int64_t n = 0;                    // equations
  std::int64_t dense = 0;                // of them at the end, in model order
  Solving solving = Solving::by_factor;  // by_products is asked for; where C is smaller it becomes by_sweeps
  std::int64_t records = 0;              // analysis records with a weight above zero
  std::vector<std::int32_t> inner;       // model order to inner order
  std::vector<std::int32_t> position;    // model order to elimination order
  std::vector<std::uint8_t> fixed;       // per model equation: 1 for a fixed effect (mv included)

  SAVED_ORDER given_order;               // of an earlier fit of the model; taken where it fits
  FACTOR factor;
  DESIGN_COLUMNS columns;                // by elimination position
  COEFFICIENTS c;                        // refilled in each evaluation
  DESIGN_COLUMNS rows;                   // the same by records: `record` holds elimination positions; not with a factor and simple R
  std::vector<double> c0;                // the residual part of C over ri, aligned with c.value
  std::vector<double> r0;                // W'R^-1 y over ri, elimination order, of the shifted response
  double y0 = 0.0;                       // y'R^-1 y over ri, of the shifted response
  double ri = 1.0;                       // 1/v where R is one scaled identity, else 1
  RESIDUAL_INVERSE residual;             // empty where R is one scaled identity
  SECTION_PRODUCTS products;             // of sections whose R is a scaled identity, beside others
  std::vector<PRODUCT_ROWS> random;      // G^-1 of every random structure, as VARIANCE_MODEL::terms; unused for a dropped one
  std::vector<double> y;                 // the shifted response, 0 where mv estimates it
  double mean_square_y = 1.0;            // of the shifted response
  std::vector<double> mean_square;       // per term: the mean square of its non-zero design values, 1 for factors
  double log_weights = 0.0;              // sum of ln w over records with a weight above zero

  double shift = 0.0;                    // taken off every observed response before any product
  std::int64_t mu = -1;                  // model equation of mu, -1 when the model has none
  std::vector<CENTRED> centred;

  std::int64_t position_of(std::int64_t equation) const { return position[static_cast<std::size_t>(equation)]; }
};

/// SETUP_EQUATIONS: lays the terms out, finds pattern, order and factor, and forms what stays the same; once a fit.
/// Fixed terms are dense until their count would pass the limit of the option dense (800 by default); the option gdense makes the
/// first random structure dense as well.
///   formed  the structures at the starting values, whose patterns hold for the whole fit
void SETUP_EQUATIONS(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const TERM_TABLE& terms, const DESIGN_MTX& design,
                     const VARIANCE_MODEL& model, const FORMED& formed, MIXED_EQUATIONS& equations);

/// Takes the responses of a design that differs in nothing else from the one that was laid out: their products and sizes.
void take_responses(const DESIGN_MTX& design, MIXED_EQUATIONS& equations);

/// K4MXXS: the residual part: c becomes W'R^-1 W, r0 and y0 follow.
void K4MXXS(ERROR_HANDLER& eh, const FORMED& formed, int threads, MIXED_EQUATIONS& equations);

/// K4MXXG: adds G^-1 of every random term to c and sums log|G|; the equations of a dropped term are emptied.
void K4MXXG(ERROR_HANDLER& eh, const TERM_TABLE& terms, const VARIANCE_MODEL& model, const FORMED& formed, int threads,
            MIXED_EQUATIONS& equations, double& log_det_g);

/// b = C_R a for columns in elimination order, C_R being the residual part of C.
///   a, b   n by columns, leading dimension n
void multiply_residual_part(const MIXED_EQUATIONS& equations, const double* a, double* b, std::int64_t columns, int threads);

/// Model equations of a random structure: from the first equation of its term, as many as its product has.
inline std::int64_t first_equation(const TERM_TABLE& terms, const TERM_STRUCTURE& structure)
{
  return terms.rows[static_cast<std::size_t>(structure.term)].first;
}

/// The equations of a random structure.
inline std::int64_t structure_size(const VARIANCE_MODEL& model, const TERM_STRUCTURE& structure)
{
  std::int64_t size = 1;
  for (std::int64_t r = structure.first_row; r < structure.first_row + structure.rows; ++r) {
    size *= model.rows[static_cast<std::size_t>(r)].size;
  }
  return size;
}

/// The level of a random structure whose equation stands at each position, -1 at the others'.
std::vector<std::int32_t> levels_by_position(const MIXED_EQUATIONS& equations, std::int64_t first, std::int64_t size);

/// The effects of a random structure out of a vector in elimination order, in the order of its product; and back, adding.
void gather_effects(const MIXED_EQUATIONS& equations, std::int64_t first, const double* from, std::vector<double>& u);
void scatter_effects(const MIXED_EQUATIONS& equations, std::int64_t first, const std::vector<double>& u, double* to);

}  // namespace tolvan
