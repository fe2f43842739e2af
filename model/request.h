// Standardisation of a request: formula text becomes term nodes, calls get their arguments in order,
// shorthand keys become options.  Routines: API_.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "api/communication.h"
#include "api/error_handler.h"
#include "base/json.h"

namespace tolvan {

/// API_STANDARDISE_AND_EXPAND_JSON: rewrites a request in place into the standard form; models_present tells
/// whether it has a model.
void API_STANDARDISE_AND_EXPAND_JSON(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode* root,
                                     bool& models_present);

/// REPORT_JSON_ERROR: complains about a missing key of an object ("<key> is required but was not found in
/// <path>").
void REPORT_JSON_ERROR(ERROR_HANDLER& eh, const JsonNode& parent, std::string_view missing_key);
/// REPORT_JSON_ERROR: complains about a value, naming what was expected.
void REPORT_JSON_ERROR(ERROR_HANDLER& eh, const JsonNode& node, const std::vector<std::string>& expected);
/// REPORT_JSON_ERROR: the same for a list written at the call.
void REPORT_JSON_ERROR(ERROR_HANDLER& eh, const JsonNode& node,
                       std::initializer_list<std::string_view> expected);
/// REPORT_IF_JSON_KEY_DUPLICATED: complains when a key stands twice in an object.
void REPORT_IF_JSON_KEY_DUPLICATED(ERROR_HANDLER& eh, const JsonNode& object, std::string_view key);
/// REPORT_DUPLICATED_JSON_KEYS: complains of a key that stands twice in any object below the root.
void REPORT_DUPLICATED_JSON_KEYS(ERROR_HANDLER& eh, const JsonNode& root);

/// The name of a term node as the user wrote it, for output: at(site,east), where the factor name has the level's number.
std::string user_facing_name(const COMMUNICATION& communication, const JsonNode& term);

/// GET_FACNAME_FROM_JPTR: the text of a term node as a factor name ("a", "a:b", "idv(a)"), by which terms are compared.
std::string GET_FACNAME_FROM_JPTR(ERROR_HANDLER& eh, const COMMUNICATION& communication,
                                  const JsonNode& term);

}  // namespace tolvan
