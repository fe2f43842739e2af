// Single values out of the entries that describe matrices and marker files.  Routine: L_COUNT_UNDER.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "api/error_handler.h"
#include "base/json.h"

namespace tolvan {

/// A switch that may be a logical, a number or a text: on for anything but false, 0, "" and their spellings.
bool is_on(const JsonNode& entry, std::string_view key);

/// L_COUNT_UNDER: the integer of a key, at least 0 unless negative values are allowed; 0 without the key.
std::int64_t L_COUNT_UNDER(ERROR_HANDLER& eh, const JsonNode& entry, std::string_view key,
                           bool negative = false);

/// The extension of a file name in lower case, empty for none.
std::string extension_of(std::string_view path);
/// A file name without its extension.
std::string without_extension(std::string_view path);

}  // namespace tolvan
