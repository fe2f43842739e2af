// Reading one option's value from its JSON node.  Routines: GET_VALUE_FROM_JPTR_.
//
// A request may write a flag without a value: the text "NoValueSupplied", for which each option has its own
// value. An array of one element is read as that element.  A value of the wrong kind raises a message that
// shows it and leaves the output as it was.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "api/error_handler.h"
#include "base/json.h"

namespace tolvan {

/// GET_VALUE_FROM_JPTR_INTEGER: an integer: of a logical 1 or 0, of a real the nearest, of a text its digits.
void GET_VALUE_FROM_JPTR_INTEGER(ERROR_HANDLER& eh, const JsonNode& node, std::int64_t bare,
                                 std::int64_t& value);
/// GET_VALUE_FROM_JPTR_REAL: a real: of a logical 1 or 0, of a text its number.
void GET_VALUE_FROM_JPTR_REAL(ERROR_HANDLER& eh, const JsonNode& node, double bare, double& value);
/// GET_VALUE_FROM_JPTR_LOGICAL: a logical; a bare flag is true.
void GET_VALUE_FROM_JPTR_LOGICAL(ERROR_HANDLER& eh, const JsonNode& node, bool& value);
/// GET_VALUE_FROM_JPTR_STRING: a text, as it stands.
void GET_VALUE_FROM_JPTR_STRING(ERROR_HANDLER& eh, const JsonNode& node, std::string& value);
/// GET_VALUE_FROM_JPTR_INTEGERS: a list of integers; a single value is a list of one, a bare flag an empty
/// list.
void GET_VALUE_FROM_JPTR_INTEGERS(ERROR_HANDLER& eh, const JsonNode& node, std::vector<std::int64_t>& values);

/// Whether an option's value asks for anything: 0, -1, false, null and what is empty do not.
bool asks(const JsonNode& node);

}  // namespace tolvan
