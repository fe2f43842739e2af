// From formula text to the term nodes of the standard form.  Routines: API_.
//
// A plain term is a string; a dropped one an object with term_name and drop; an interaction an object with
// the array "interaction"; a call an object with "function", which has name and arguments.  str() has
// "linked" beside it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "api/communication.h"
#include "api/error_handler.h"
#include "base/json.h"

namespace tolvan {

/// How deep calls may stand within calls, and interactions within interactions.
inline constexpr std::int64_t deepest_call = 50;

/// API_FORMULA_STRING_TO_JPTR: appends the terms of a formula to a list of the parent, which is made if need
/// be; gives the list.
///   part   a part of the model: the list is "terms"; any other name: the list has that name
JsonNode* API_FORMULA_STRING_TO_JPTR(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode* parent,
                                     std::string_view formula, std::string_view part, std::int64_t depth = 0);

/// API_ADD_INTERACTION_OR_TERM_TO_JSON: adds the node of one canonical term, its sign included, to a list or
/// under a key.
void API_ADD_INTERACTION_OR_TERM_TO_JSON(ERROR_HANDLER& eh, const COMMUNICATION& communication,
                                         JsonNode& parent, std::string_view term, std::string_view key = {},
                                         std::int64_t depth = 0);

/// API_ADD_TERM_TO_JSON: adds the node of a name or a call; a dropped name must be an object.
JsonNode* API_ADD_TERM_TO_JSON(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& parent,
                               std::string_view term, std::string_view key, bool drop, std::int64_t depth);

/// API_FUNCTION_STRING_TO_JPTR: adds the object "function" (or of another key) of a call "name(arguments)" to
/// an object.
void API_FUNCTION_STRING_TO_JPTR(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& parent,
                                 std::string_view call, std::string_view key = "function",
                                 std::int64_t depth = 0);

/// API_EXPAND_FORMULA_STRING: turns a string node into an object with the terms of its formula.
void API_EXPAND_FORMULA_STRING(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& node,
                               std::string_view part);

}  // namespace tolvan
