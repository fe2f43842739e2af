// Effects that others determine: Lagrangian rows of structures, worked out of the equations.
//
// A Lagrangian row c of a component says c'u = 0.  Solved by a factor it stands among the equations, which it makes indefinite.
// By iteration the effects that such rows bind are replaced instead: u = T z, z being the others, so that T'CT z = T'b is left,
// which is positive definite.  T is made component by component, since a product of components binds what one of them binds at
// every combination of the others' levels, and is never formed whole.
//
// Beside a component with dimensions that have no variance, such as genetic groups, S^-1 c'u = 0 is all that is said, S^-1 being 0
// there: bound effects are free in these dimensions, u = T z + N g, g being those at the levels that the dimensions go with.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "api/error_handler.h"
#include "estimation/evaluation.h"
#include "estimation/fixed_part.h"

namespace tolvan {

/// What the Lagrangian rows of one component make of its levels: u(level[k]) = sum of by * u(of) over start[k] .. start[k + 1].
struct BOUND_LEVELS {
  std::vector<std::int32_t> level;
  std::vector<std::int64_t> start{0};
  std::vector<std::int32_t> of;
  std::vector<double> by;
  std::vector<std::int32_t> rows;  // the Lagrangian ones, also those that bind nothing
  std::vector<double> to_rows;     // rows x levels by columns: multipliers from what is left of the bound levels' equations
};

/// Finds what a component's Lagrangian rows bind.  Rows of its inverse that repeat others bind nothing.  False when Lagrangian rows
/// have elements among themselves.
bool find_bound_levels(const COMPONENT_MATRIX& component, BOUND_LEVELS& bound);

class BOUND_EFFECTS {
 public:
  /// Looks through the structures; what it cannot do is an error in eh.
  void find(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& equations, const EVALUATION& ev);
  bool any() const { return !terms_.empty(); }

  /// x = T x: fills in the bound effects.  Lagrangian rows stay as they are.
  void spread(double* x) const;
  /// y = T'y, with 0 for bound effects and Lagrangian rows.
  void gather(double* y) const;
  /// d, the diagonal of C, becomes about that of T'CT, with 0 for bound effects and Lagrangian rows.
  ///   d  the diagonal of the residual part of C at first; G^-1 is added here for the structures that have bound effects
  void diagonal(std::vector<double>& d) const;
  /// Whether a structure, as VARIANCE_MODEL::terms, has bound effects.
  bool has(std::size_t structure) const;
  /// Marks the equations of bound effects and Lagrangian rows.
  void mark(std::vector<std::uint8_t>& marked) const;
  /// The multipliers, from what the effects leave of the right-hand side: left = b - C u.  Not for products in which two
  /// components have Lagrangian rows: there they become no_value.
  ///   solve  solves A y = b, A positive definite: (diagonal of A, y = A x, b, y); false when it fails
  using SOLVE = std::function<bool(const std::vector<double>&, const std::function<void(const double*, double*)>&,
                                   const std::vector<double>&, std::vector<double>&)>;
  bool multipliers(const std::vector<double>& left, const SOLVE& solve, std::vector<double>& x) const;

 private:
  struct COMPONENT {
    std::size_t number;
    std::int64_t outer, n, inner;
    BOUND_LEVELS bound;
  };
  struct TERM {
    std::size_t structure;
    std::int64_t first;
    const COMPONENTS* all;
    std::vector<COMPONENT> components;
    ABSENT_DIMENSIONS absent;           // of the other component of two
    std::vector<std::uint8_t> is_own{}; // its levels that a dimension goes with; empty when it has none
    bool free_at(std::size_t cell) const { return !is_own.empty() && is_own[cell] != 0; }
  };
  std::size_t position(const TERM& term, const COMPONENT& c, std::int32_t level, std::size_t cell) const;
  template <class F>
  void each_cell(const TERM& term, const COMPONENT& c, F&& f) const;
  template <class F>
  void each_free_part(const TERM& term, F&& f) const;

  const MIXED_EQUATIONS* q_ = nullptr;
  std::vector<TERM> terms_;
};

/// The diagonal of a matrix.
std::vector<double> diagonal_of(const SYMMETRIC& matrix);
/// The diagonal of a direct product out of those of its components.
std::vector<double> product_of_diagonals(const std::vector<std::vector<double>>& diagonals);

}  // namespace tolvan
