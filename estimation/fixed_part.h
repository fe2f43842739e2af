// What is fixed in the equations: which of it is singular by the design alone, and its rank.  Equations solved by iteration are
// judged so, and those of a residual variance matrix close to a singular one.
//
// Fixed are the effects of X, and the dimensions of random structures that have no variance: genetic groups, levels of which a
// matrix knows nothing.  There G^-1 n = 0, and W n takes its place beside X.
#pragma once

#include <cstdint>
#include <vector>

#include "api/error_handler.h"
#include "estimation/evaluation.h"

namespace tolvan {

/// A basis of the dimensions without a variance of one component: each vector has a 1 at its own level and 0 at those of the others.
struct ABSENT_DIMENSIONS {
  std::vector<std::int32_t> own;
  std::vector<std::int64_t> start{0};
  std::vector<std::int32_t> level;
  std::vector<double> value;
};

/// Finds them; as far as can be the first `groups` levels are the own ones.  Their number is what the component says, or it is an
/// error in eh.
void find_absent_dimensions(ERROR_HANDLER& eh, const COMPONENT_MATRIX& component, std::int64_t groups, ABSENT_DIMENSIONS& absent);

/// ABSORB_FIXED: absorbs the cross-products of what is fixed, dense effects last, and marks the equations of what is singular as
/// left out: with them at 0 the others are as a factor of all equations gives them, as long as that leaves out the same ones.
///   left_out  by elimination position
void ABSORB_FIXED(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& equations,
                  const EVALUATION& ev, int threads, const FIT_WORK& work, std::vector<std::uint8_t>& left_out, ABSORBED& absorbed);

}  // namespace tolvan
