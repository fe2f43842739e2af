// Finding factors and terms of the model by what a request calls them.
// Routines: GET_FACTOR_ID_FROM_JPTR, GET_TERM_IDS_FROM_FORMULA_JPTR.
#pragma once

#include <cstdint>
#include <vector>

#include "api/communication.h"
#include "api/error_handler.h"
#include "base/json.h"
#include "model/term_table.h"

namespace tolvan {

/// GET_FACTOR_ID_FROM_JPTR: the factor row (from 1) of a name or a number; 0 with a complaint.
std::int64_t GET_FACTOR_ID_FROM_JPTR(ERROR_HANDLER& eh, const COMMUNICATION& communication, const FACTOR_TABLE& factors,
                                     const JsonNode& node);

/// GET_TERM_IDS_FROM_FORMULA_JPTR: the term rows (from 0, rising, each once) that a list of terms names.
///   node   an array of term nodes, or an object with "terms"
/// A term is found by its name, by the text of the call or product that stands for it, or as the product of the same components
/// in another order; a text that stands for several terms, at() with several levels, gives them all.
std::vector<std::int64_t> GET_TERM_IDS_FROM_FORMULA_JPTR(ERROR_HANDLER& eh, const COMMUNICATION& communication,
                                                         const TERM_TABLE& terms, const JsonNode& node);

}  // namespace tolvan
