// Small helpers of the stages of a run: asking a request for a key, printing a block.
#pragma once

#include <string>
#include <string_view>

#include "api/error_handler.h"
#include "base/files.h"
#include "base/json.h"

namespace tolvan::stages {

/// Null, false, an empty text, array or object.
bool asks_for_nothing(const JsonNode& node);
/// Raises the message of what is not implemented if the request has the key and asks for something under it.
void refuse_key(ERROR_HANDLER& eh, const JsonNode& request, std::string_view key);
/// A scalar as a message shows it: a text without its quotes, anything else as JSON.
std::string scalar_text(const JsonNode& node);
/// The same of the value of a key, empty without the key.
std::string text_under(const JsonNode& request, std::string_view key);
using tolvan::print_block;

}  // namespace tolvan::stages
