// A model with other responses missing than its data have, evaluated at given parameters: what imputation and cross-validation
// are made of.
//
// A missing response is an equation of mv, whose solution predicts it (Bartlett's covariate, -1 in its record), so that any
// residual structure keeps its records.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "api/error_handler.h"
#include "data/design_matrix.h"
#include "estimation/evaluation.h"
#include "estimation/fit_state.h"
#include "model/term_table.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// Terms and design of such a model: all but mv as in the model that it is made from.
struct CHANGED_DESIGN {
  TERM_TABLE terms;
  DESIGN_MTX design;
};

/// The responses of these rows of the design (from 0, none of them missing yet) are missing, too.
CHANGED_DESIGN with_responses_missing(const TERM_TABLE& terms, const DESIGN_MTX& design, std::span<const std::int64_t> rows);
/// No response is missing: those that were stand to be filled in, in the order of design.mv, which is empty in the result.
CHANGED_DESIGN with_responses_given(const TERM_TABLE& terms, const DESIGN_MTX& design);
/// Rows of the design whose response is known and counts.
std::vector<std::uint8_t> known_responses(const DESIGN_MTX& design);

/// The parameters of a model at the values of the last evaluation of its fit.
VARIANCE_MODEL at_final_values(const VARIANCE_MODEL& model, const FIT_STATE& fit);

}  // namespace tolvan
