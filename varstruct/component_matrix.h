// What equations, scores, working variables, predictions and reports need of one formed component matrix R(theta).
// A new model is one class derived from COMPONENT_MATRIX, one row of the catalogue and its tests.
//
// Vectors over a direct product are in mixed radix, the first component slowest.  Along one component such a vector is a block
// of outer x n x inner numbers: element (o, level, i) stands at (o * n + level) * inner + i.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "api/error_handler.h"
#include "base/symmetric.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// What forming a structure gave.
enum class Formed : std::int64_t { done = 0, again = 100, done_by_metric = 130, in_handler = 140, zero_variance = 160 };

/// What a model may look at and write back while it forms itself.
struct FORM_CONTEXT {
  ERROR_HANDLER& eh;
  VARIANCE_MODEL& model;   // values, constraint codes and types of the row's own parameters may be changed
  STRUCTURE_ROW& row;      // may be stepped down, with Formed::again as the answer
  std::int64_t iteration;
  double ar_limit;         // option arlimit
  double bend;             // option bend, 0 off
};

/// One component R of n levels with p parameters: those of its STRUCTURE_ROW, its scale or its level variances last.
class COMPONENT_MATRIX {
 public:
  COMPONENT_MATRIX() = default;
  COMPONENT_MATRIX(const COMPONENT_MATRIX&) = delete;
  COMPONENT_MATRIX& operator=(const COMPONENT_MATRIX&) = delete;
  virtual ~COMPONENT_MATRIX() = default;

  /// Forms inverse, log-determinant, derivatives and score parts at the present values.  Called once an evaluation on the same
  /// object, which keeps its buffers; the shape, bandwidth and sparsity pattern of inverse() stay as the first call made them.
  virtual Formed form(FORM_CONTEXT& context) = 0;

  const SYMMETRIC& inverse() const { return inverse_; }           // R^-1
  double log_determinant() const { return log_determinant_; }     // log|R|
  const std::vector<double>& score_part() const { return score_part_; }  // d log|R| / d theta_k
  /// Pairs (Lagrangian row, row that it binds): rows without a variance of their own that tie another row to others, u = L f, for
  /// a zero specific variance or a singular known matrix.  The equation of the bound row is eliminated first.
  ///
  /// A bound row has no inverse variance, so its pivot would vanish where no data come in.  The inverse of such a matrix therefore
  /// holds rho c c' besides, c = (1, -L) being the binding: this changes neither solutions, nor the determinant, nor the inverse
  /// among the other rows (the binding holds exactly), and makes the pivot positive.  rho is of the size of the other elements;
  /// contract() leaves its derivative out, since c'T = 0 for every T of a fit.
  const std::vector<std::pair<std::int64_t, std::int64_t>>& lagrangian() const { return lagrangian_; }
  /// The levels less the dimensions in which R^-1 is 0: effects without a variance, as those of genetic groups, which are fixed
  /// though they stand among random ones.  They have no part in log|R| of this component or of any product with it.
  std::int64_t counted() const { return inverse_.n - absent_; }
  /// The number of negative eigenvalues of R^-1: of unbounded variances below zero, of Lagrangian rows.
  std::int64_t negative() const { return negative_; }

  /// out[k] += sum over all a, b of S(a, b) dRi_k(a, b), where dRi_k = R^-1 Rdot_k R^-1 = -d(R^-1) / d theta_k.
  ///   s  laid out as inverse().values (full both triangles when dense; the trace alone for an identity); an element below the
  ///      diagonal stands once for S(a, b) and S(b, a) and counts twice
  virtual void contract(const double* s, double* out) const = 0;

  /// Whether the one parameter, g, only scales a matrix that is known: dRi = R^-1 / g.
  virtual bool scales_alone() const { return false; }

  /// y = Rdot_k R^-1 x along this component.  x and y do not overlap.
  virtual void working(std::int64_t k, const double* x, double* y, std::int64_t outer, std::int64_t inner) const = 0;

  /// y = R^-1 x along this component, by the shape of the inverse.  x and y do not overlap.
  virtual void apply_inverse(const double* x, double* y, std::int64_t outer, std::int64_t inner) const;

  /// R itself, n x n by columns, both triangles: for reports and predictions of small n.
  virtual void covariance(double* r) const = 0;

 protected:
  SYMMETRIC inverse_;
  double log_determinant_ = 0.0;
  std::vector<double> score_part_;
  std::int64_t negative_ = 0;
  std::int64_t absent_ = 0;
  std::vector<std::pair<std::int64_t, std::int64_t>> lagrangian_;
};

}  // namespace tolvan
