// Forming the structures of one evaluation: inverses, log-determinants and derivatives.  Routine: K4MVSF.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "api/error_handler.h"
#include "api/fit_options.h"
#include "model/term_table.h"
#include "varstruct/component_matrix.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

using COMPONENTS = std::vector<std::unique_ptr<COMPONENT_MATRIX>>;

/// The formed structure of a random term: the direct product of its components, first slowest.
struct FORMED_TERM {
  std::int64_t size = 0;         // equations: those of a linked group together
  double log_determinant = 0.0;  // log|G|
  COMPONENTS components;
};

/// The formed structure of a residual section: R = scale times the direct product, before weights.
struct FORMED_SECTION {
  std::int64_t first = 0, records = 0;  // rows of the design
  double scale = 1.0;                   // of the parameter outside the rows
  double log_determinant = 0.0;         // log|R|, scale included
  COMPONENTS components;

  /// Where R is a scaled identity (before weights): 1/scale of it, else 0.
  double scaled_identity() const
  {
    double inverse = 1.0 / scale;
    for (const auto& component : components) {
      if (component->inverse().shape != Shape::identity) return 0.0;
      inverse *= component->inverse().scale;
    }
    return inverse;
  }
};

/// All structures of one evaluation.  The components keep their buffers from one evaluation to the next.
struct FORMED {
  std::vector<FORMED_TERM> terms;  // as VARIANCE_MODEL::terms; those of a dropped term are stale
  std::vector<FORMED_SECTION> sections;

  /// Whether R is one scaled identity (before weights); then 1/scale of it, else 0.
  double scaled_identity() const { return sections.size() == 1 ? sections.front().scaled_identity() : 0.0; }
};

/// K4MVSF: forms all structures at the present parameter values.  fault: 0, or 1000 + model code of the one that failed.
void K4MVSF(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const TERM_TABLE& terms, VARIANCE_MODEL& model, std::int64_t iteration,
            FORMED& formed, std::int64_t& fault);

}  // namespace tolvan
