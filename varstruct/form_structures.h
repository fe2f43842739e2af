// Forming the structures of one evaluation: inverses, log-determinants and derivatives.  Routine: K4MVSF.
#pragma once

#include <cstdint>
#include <vector>

#include "api/error_handler.h"
#include "model/term_table.h"
#include "varstruct/component_matrix.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// The shape of a formed matrix.  More shapes follow with their models.
enum class Form { identity };

/// One formed component: R = scale * I of its size here, with what an evaluation needs of it.
/// Derivatives follow one sign: dRi = R^-1 Rdot R^-1 = -d(R^-1)/d theta.
struct FORMED_ROW {
  Form form = Form::identity;
  std::int64_t size = 0;
  double inverse = 1.0;                  // R^-1 = inverse * I
  double log_determinant = 0.0;          // of the whole row matrix
  std::vector<double> derivative;        // dRi = derivative[k] * I for its k-th parameter
  std::vector<double> score_part;        // d log|R| / d theta_k for the whole row matrix
};

/// The formed structure of a random term, as equations see it.
struct FORMED_TERM {
  std::int64_t size = 0;             // equations
  double log_determinant = 0.0;      // log|G| of the term
  std::vector<FORMED_ROW> rows;      // one a component of the structure

  /// G^-1 = inverse() I: a product of scaled identities is a scaled identity.
  double inverse() const
  {
    double product = 1.0;
    for (const FORMED_ROW& row : rows) product *= row.inverse;
    return product;
  }
};

/// All structures of one evaluation.
struct FORMED {
  std::vector<FORMED_TERM> terms;    // as VARIANCE_MODEL::terms; empty rows for a dropped term
  FORMED_ROW residual;
};

/// K4MVSF: forms all structures at the present parameter values.  fault: 0, or 1000 + model code of the one that failed.
void K4MVSF(ERROR_HANDLER& eh, const TERM_TABLE& terms, VARIANCE_MODEL& model, std::int64_t iteration, FORMED& formed,
            std::int64_t& fault);

}  // namespace tolvan
