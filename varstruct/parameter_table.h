// The vector of variance parameters and the structures that own its stretches.  Plain records; no routines.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "relmat/structure_matrices.h"

namespace tolvan {

/// Parameter types; letters in `parameter_type_letters`, position code - 1.
enum class ParamType : std::int64_t { V = 1, G, R, C, P, L, u, r, p, n, d, a };
inline constexpr std::string_view parameter_type_letters = "VGRCPLurpnda";

/// Constraint codes; letters in `constraint_letters`, position code.  Codes above U are not updated by a step.
enum class Constraint : std::int64_t { none = 0, P, Z, U, F, C, S, B, H };
inline constexpr std::string_view constraint_letters = ".PZUFCSBH";
inline bool is_free(Constraint c) { return static_cast<std::int64_t>(c) <= static_cast<std::int64_t>(Constraint::U); }

/// What a parameter measures, which decides its scaling with sigma2 and its restraint rule.
///   variance, covariance  scale with sigma2;  loading  with its root;  precision  with its inverse
///   correlation           has no unit and may change sign: correlations, and the factors L of chol() and U of ante()
///   other                 has no unit and keeps its sign: ranges, the parameters of mtrn(), the second power of aexp()
enum class ParamRole { variance, covariance, loading, correlation, other, precision };

/// One parameter.  A gamma is a ratio to the profiled residual variance; under sigma values are absolute.
struct VARIANCE_PARAMETER {
  double value = 0.0;
  double start = 0.0;              // the value before the first iteration
  ParamType type = ParamType::G;
  Constraint constraint = Constraint::P;
  ParamRole role = ParamRole::variance;
  std::string label;               // unique: "block;IDV_V", "units;IDV_V"
  std::int64_t master = -1;        // the parameter that this one follows, from 0; -1: none.  A master follows none.
  double coefficient = 1.0;        // value = coefficient times the master's; a follower carries constraint C
  std::int64_t sum = -1;           // in VARIANCE_MODEL::sums, for one that is a sum of several others; it carries constraint C, too
};

/// One component model of one term (the structure table).
struct STRUCTURE_ROW {
  std::int64_t size = 0;        // levels; of a factor model with extra effects its factors and Lagrangian rows included
  std::int64_t parameters = 0;  // own parameters, the scale included
  std::int64_t model = 0;       // internal model code; 0 identity
  std::int64_t first = 0;       // first parameter, from 0
  std::int64_t order = 0;       // order, band or factor count as asked, at least 1; CORU, CORB, CORG: the correlations
  std::int64_t sub_code = 0;
  std::int64_t scale = -1;      // parameter that scales the row, -1 for none
  std::int64_t doubling = 0;    // 2: the identity over two halves of levels that share the matrix of the row behind
  std::int64_t selector = 0;    // model selector as asked (IDEN 0, AR 1, ...)
  std::int64_t factor = 0;      // factor row of the component, 0 for none
  std::int64_t coordinates = -1;  // in VARIANCE_MODEL::coordinates, -1 for a model without distances
  std::int64_t segments = -1;     // in VARIANCE_MODEL::segments: where independent pieces begin; -1 for one piece
  const AINV_MTX* matrix = nullptr;  // the known matrix of the row; null: none
  std::int64_t own = -1;          // in VARIANCE_MODEL::own_programs, -1: the engine forms the row itself
  std::int64_t stepped = 0;       // the first parameters of the row that a step-down took from its model: value 0, code F
};

/// The user's own program that gives the matrix of a row and its derivatives.
struct OWN_PROGRAM {
  std::string program;       // the command, without its argument; blank: the user runs it by hand
  std::string file;          // what the exchange files are named after
  std::int64_t control = 0;  // a number handed through
  bool inverse = false;      // the program gives the inverse and the derivatives of the inverse
};

/// Where the levels of a metric row lie; y is empty in one dimension.
struct COORDINATES {
  std::vector<double> x, y;
};

/// One residual section: consecutive analysis records (cells) in the order of its direct product, first component slowest.
struct RESIDUAL_SECTION {
  std::int64_t first_row = 0;     // in VARIANCE_MODEL::residual, from 0
  std::int64_t rows = 1;
  std::int64_t first_record = 0;  // rows of the design, from 0
  std::int64_t records = 0;       // the product of the rows' sizes
  std::int64_t scale = -1;        // parameter outside the rows that scales the section; -1: a row holds it, or there is none
  std::int64_t term = -1;         // index in TERM_TABLE::rows, -1 for the residual of a model without a residual term
  std::string name;               // the user's text, "sat(expt,2):ar1(row)"; empty for units
  std::string label;              // the same as labels of parameters begin with it: "sat(expt,2):row", "units"
};

/// The structure of one random term: a direct product of consecutive rows.
struct TERM_STRUCTURE {
  std::int64_t term = 0;        // index in TERM_TABLE::rows, from 0
  std::int64_t first_row = 0;   // in VARIANCE_MODEL::rows, from 0
  std::int64_t rows = 1;
  bool dropped = false;         // taken out of the run because its variance is negligible
};

/// The coefficients that give one parameter from the few new ones of a request's `vcm`.
struct VCM_ROW {
  std::int64_t parameter = 0;  // from 0
  std::vector<double> coefficients;
};

/// A share that one parameter has in another one.
struct PARAMETER_SHARE {
  std::int64_t of = 0;  // from 0; it follows none
  double by = 1.0;
};

/// All of it: parameters of random terms in model order, then the residual sections, the residual's own variance last.
struct VARIANCE_MODEL {
  std::vector<VARIANCE_PARAMETER> parameters;
  std::vector<STRUCTURE_ROW> rows;
  std::vector<TERM_STRUCTURE> terms;
  std::vector<STRUCTURE_ROW> residual;  // of all sections
  std::vector<RESIDUAL_SECTION> sections;
  std::vector<COORDINATES> coordinates;
  std::vector<std::vector<std::int64_t>> segments;  // levels (from 0) at which an independent piece begins, rising, 0 left out
  std::vector<OWN_PROGRAM> own_programs;
  std::vector<VCM_ROW> vcm;             // empty: none; they are in force as masters, coefficients and sums
  std::vector<std::vector<PARAMETER_SHARE>> sums;  // of parameters that are sums of several others
  bool gamma = true;                    // ratios to a profiled residual variance; false: absolute values
  bool profiled = true;                 // the residual's own variance is sigma2 and leaves the update
  std::int64_t residual_parameter = -1; // index of the residual's own variance
  std::int64_t modified = 0;            // times that an unstructured matrix had to be made positive definite

  std::int64_t count() const { return static_cast<std::int64_t>(parameters.size()); }
};

}  // namespace tolvan
