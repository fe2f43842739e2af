// A growable list of texts.  Routines: SAT_.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "api/error_handler.h"

namespace tolvan {

/// What stands between two values wherever several texts are handed out as one.
inline constexpr char text_separator = ' ';

struct STRING_ARRAY {
  std::vector<std::string> elements;

  std::int64_t size() const { return static_cast<std::int64_t>(elements.size()); }
  bool empty() const { return elements.empty(); }
  const std::string& operator()(std::int64_t k) const { return elements[static_cast<std::size_t>(k - 1)]; }
  bool operator==(const STRING_ARRAY&) const = default;
};

/// SAT_ADD_STRING: adds one text at the end.
void SAT_ADD_STRING(ERROR_HANDLER& eh, STRING_ARRAY& array, std::string_view text);
/// SAT_APPEND: adds all texts of another array at the end.
void SAT_APPEND(ERROR_HANDLER& eh, STRING_ARRAY& array, const STRING_ARRAY& other);
/// SAT_REMOVE: takes out the text of a position counted from 1.
void SAT_REMOVE(ERROR_HANDLER& eh, STRING_ARRAY& array, std::int64_t position);
/// SAT_RESIZE: cuts the array to a number of texts, or fills it up with empty ones.
void SAT_RESIZE(ERROR_HANDLER& eh, STRING_ARRAY& array, std::int64_t size);
/// SAT_SQUASH: joins the texts into one, a blank between two.
std::string SAT_SQUASH(ERROR_HANDLER& eh, const STRING_ARRAY& array);
/// SAT_LOCATION: finds the first position of a text, counted from 1; 0 if it is not there.
std::int64_t SAT_LOCATION(ERROR_HANDLER& eh, const STRING_ARRAY& array, std::string_view text);

}  // namespace tolvan
