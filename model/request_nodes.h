// Reading and moving nodes of a request: typed values with defaults, and the complaints about keys.
// Routines: GET_VALUE_FROM_JPTR_, MOVE_JSON_NODE.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "api/error_handler.h"
#include "base/json.h"
#include "model/request.h"

namespace tolvan {

/// GET_VALUE_FROM_JPTR_STRING: the text of a key; a missing one gives nothing, with a complaint when it is
/// required.
std::optional<std::string> GET_VALUE_FROM_JPTR_STRING(ERROR_HANDLER& eh, const JsonNode& parent,
                                                      std::string_view key, bool required);
/// GET_VALUE_FROM_JPTR_LOGICAL: the logical of a key, the default when it is missing.
bool GET_VALUE_FROM_JPTR_LOGICAL(ERROR_HANDLER& eh, const JsonNode& parent, std::string_view key,
                                 bool otherwise);
/// GET_VALUE_FROM_JPTR_STRINGS: one string or an array of strings; a missing key gives none.
std::vector<std::string> GET_VALUE_FROM_JPTR_STRINGS(ERROR_HANDLER& eh, const JsonNode& parent,
                                                     std::string_view key);
/// GET_VALUE_FROM_JPTR_REALS: one number or an array of numbers; a missing key gives none.
std::vector<double> GET_VALUE_FROM_JPTR_REALS(ERROR_HANDLER& eh, const JsonNode& parent,
                                              std::string_view key);

/// The models of a request, one or several; none where the key is missing or holds something else.
std::vector<JsonNode*> models_of(const JsonNode& request);

/// MOVE_JSON_NODE: detaches a node and puts it under a new parent, with a new name if one is given.
JsonNode* MOVE_JSON_NODE(ERROR_HANDLER& eh, JsonNode* node, JsonNode& new_parent,
                         std::string_view new_name = {});

/// True for an object with the logical key set.
bool has_flag(const JsonNode& node, std::string_view key);
/// The name of a "function" node, empty if it has none.
std::string_view function_name(const JsonNode& function);
/// The argument node of a name in a "function" node, null if there is none.
JsonNode* find_argument(const JsonNode& function, std::string_view name);
/// False for an argument that took its default.
bool is_supplied(const JsonNode& argument);
/// The value of such an argument that the user gave; null when it was left to its default.
const JsonNode* supplied_value(const JsonNode& function, std::string_view name);
/// The name that a value stands for: a string, or an object with term_name; empty otherwise.
std::string_view plain_name(const JsonNode& node);

}  // namespace tolvan
