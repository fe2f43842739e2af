// How well the effects of a term are predicted without the responses of their own levels.
// Routines: GET_KCV, CROSSVALC.
#pragma once

#include <cstdint>
#include <string>

#include "api/error_handler.h"
#include "api/table_store.h"
#include "base/json.h"
#include "estimation/fit_driver.h"

namespace tolvan {

/// What a request asks of cross-validation.
struct KCV_REQUEST {
  std::int64_t folds = 0;  // 0: none
  std::string factor;      // a random term, or a factor of one; empty: the first random term
  std::int64_t seed = 0;
  bool has_seed = false;
};

/// GET_KCV: reads the option kcv: a number of folds, or an object with folds, factor and seed.
///   options   of the request; null: none
void GET_KCV(ERROR_HANDLER& eh, const JsonNode* options, KCV_REQUEST& request);

/// CROSSVALC: k-fold cross-validation of a random term, registered as TABLE_KCV.
///
/// The levels that have data are dealt at random to the folds.  For each fold the responses of its levels are taken as missing,
/// the parameters staying at their final values, and its effects are predicted from all others; they stand beside those of the
/// fit.  Where the request names a factor of the term, its levels are dealt, each with all effects that it has part in.
///   fit   a usable one; without, nothing is done
void CROSSVALC(ERROR_HANDLER& eh, const KCV_REQUEST& request, const FIT_CALL& call, const FIT_STATE& fit);

}  // namespace tolvan
