// Single values out of the entries that describe files: matrices, markers, pedigrees.
// Routines: L_NUMBER_UNDER, L_COUNT_UNDER, L_CODE_UNDER, L_TEXT_UNDER.
#pragma once

#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "api/error_handler.h"
#include "base/json.h"

namespace tolvan {

/// A switch that may be a logical, a number or a text: on for anything but false, 0 and their spellings.
///   blank_is_on   what an empty text means
bool is_on(const JsonNode& entry, std::string_view key, bool blank_is_on = false);

/// L_NUMBER_UNDER: the finite number of a key within two limits, which may be written as a text; true is 1.  Nothing
/// without the key, for false, and, with a message, for anything else.
///   whole   an integer
std::optional<double> L_NUMBER_UNDER(ERROR_HANDLER& eh, const JsonNode& entry, std::string_view key, bool whole,
                                     double low = -HUGE_VAL, double high = HUGE_VAL);

/// L_COUNT_UNDER: the integer of a key, at least 0 unless negative values are allowed; 0 without the key.
std::int64_t L_COUNT_UNDER(ERROR_HANDLER& eh, const JsonNode& entry, std::string_view key, bool negative = false);

/// L_CODE_UNDER: the integer of a key between two others; `otherwise` without the key, the lower one for false.
std::int64_t L_CODE_UNDER(ERROR_HANDLER& eh, const JsonNode& entry, std::string_view key, std::int64_t low,
                          std::int64_t high, std::int64_t otherwise);

/// L_TEXT_UNDER: the text of a key, empty without it.
std::string L_TEXT_UNDER(ERROR_HANDLER& eh, const JsonNode& entry, std::string_view key);

/// The extension of a file name in lower case, empty for none.
std::string extension_of(std::string_view path);
/// A file name without its extension.
std::string without_extension(std::string_view path);

}  // namespace tolvan
