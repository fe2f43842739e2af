// The EM family of updates, which stands in for the average-information step of an unstructured matrix that the step would take
// out of its space.  Routines: K4MEMV, K4MEMU, K4MEMP, K4MEMM.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "api/error_handler.h"
#include "api/fit_options.h"
#include "estimation/evaluation.h"

namespace tolvan {

/// K4MEMV: finds the rows that EM may serve, once the structures have been formed for the first time.
void K4MEMV(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const VARIANCE_MODEL& model, const FORMED& formed, EM_STATE& em);

/// K4MEMU: the EM step Sigma + (2/q) Sigma D Sigma, q units, D the derivative of LogL by Sigma (Dempster, Laird & Rubin 1977): it is
/// T/q, with T the sum over A-inverse of the expected products of effects.
///   sigma   levels x levels by columns, both triangles; d likewise; next is written
void K4MEMU(const std::vector<double>& sigma, const std::vector<double>& d, double units, std::int64_t levels, std::vector<double>& next);

/// K4MEMP: the parameter-expanded step (Liu, Rubin & Wu 1998; Foulley & van Dyk 2000): effects alpha u, alpha = I + F^-1 g, with
/// g = 2 D Sigma and F the information on alpha of the complete data; `next` holds the EM step and becomes alpha next alpha'.
/// Where one record or correlated residuals tie several units, F leaves those ties out, which changes the way and not the end.
/// False where F is singular; next is then as it was.
///   levels   those of the row (from 0, rising) that the matrices are of
bool K4MEMP(const FIT_MODEL& in, const VARIANCE_MODEL& model, const EM_STATE::ROW& row, const std::vector<std::int64_t>& levels,
            MIXED_EQUATIONS& equations, const EVALUATION& ev, const std::vector<double>& sigma, const std::vector<double>& d,
            std::vector<double>& next);

/// K4MEMM: replaces the parameters of every unstructured row that is not positive definite after the step by the EM update.
/// Call it with C-inverse in the factor, before followers take their masters' values.
void K4MEMM(ERROR_HANDLER& eh, const FIT_MODEL& in, MIXED_EQUATIONS& equations, const EVALUATION& ev, VARIANCE_MODEL& model,
            UPDATE_STATE& state, EM_STATE& em);

/// What the option asks for in words: "Single standard EM update when AI update unacceptable".
std::string em_description(const EM_STATE& em);

}  // namespace tolvan
