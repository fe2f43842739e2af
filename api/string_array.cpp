// The string array: SAT_ADD_STRING, SAT_APPEND, SAT_REMOVE, SAT_RESIZE, SAT_SQUASH, SAT_LOCATION.
#include "api/string_array.h"

#include <algorithm>

#include "base/text.h"

namespace tolvan {

void SAT_ADD_STRING(ERROR_HANDLER& eh, STRING_ARRAY& array, std::string_view text)
{
  const Frame here{eh, __func__};
  array.elements.emplace_back(text);
}

void SAT_APPEND(ERROR_HANDLER& eh, STRING_ARRAY& array, const STRING_ARRAY& other)
{
  const Frame here{eh, __func__};
  const std::size_t n = other.elements.size();  // taken first: other may be the array itself
  array.elements.reserve(array.elements.size() + n);
  for (std::size_t k = 0; k < n; ++k) array.elements.push_back(other.elements[k]);
}

void SAT_REMOVE(ERROR_HANDLER& eh, STRING_ARRAY& array, std::int64_t position)
{
  const Frame here{eh, __func__};
  if (position < 1 || position > array.size()) {
    eh.internal(text("string ", position, " can not be removed, number of strings = ", array.size()));
    return;
  }
  array.elements.erase(array.elements.begin() + (position - 1));
}

void SAT_RESIZE(ERROR_HANDLER& eh, STRING_ARRAY& array, std::int64_t size)
{
  const Frame here{eh, __func__};
  if (size < 0 || size > static_cast<std::int64_t>(array.elements.max_size())) {
    eh.internal(text("a string array can not have ", size, " strings"));
    return;
  }
  array.elements.resize(static_cast<std::size_t>(size));
}

std::string SAT_SQUASH(ERROR_HANDLER& eh, const STRING_ARRAY& array)
{
  const Frame here{eh, __func__};
  std::size_t length = array.elements.size();
  for (const std::string& element : array.elements) length += element.size();
  std::string squashed;
  squashed.reserve(length);
  for (const std::string& element : array.elements) {
    if (&element != &array.elements.front()) squashed += text_separator;
    squashed += element;
  }
  return squashed;
}

std::int64_t SAT_LOCATION(ERROR_HANDLER& eh, const STRING_ARRAY& array, std::string_view text)
{
  const Frame here{eh, __func__};
  const auto found = std::find(array.elements.begin(), array.elements.end(), text);
  return found == array.elements.end() ? 0 : found - array.elements.begin() + 1;
}

}  // namespace tolvan
