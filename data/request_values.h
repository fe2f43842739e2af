// Reading single values of data descriptions out of the request tree.
#pragma once

#include <string_view>
#include <vector>

#include "base/json.h"

namespace tolvan {

/// The child of a key, null where it is absent or holds null.
inline const JsonNode* given_value(const JsonNode& object, std::string_view key)
{
  const JsonNode* node = object.is(JsonType::object) ? object.find(key) : nullptr;
  return node != nullptr && !node->is(JsonType::null) ? node : nullptr;
}

/// Whether a value asks for anything: absent, null, false, 0, -1 and empty values don't.
inline bool asks_for_something(const JsonNode* node)
{
  if (node == nullptr) return false;
  switch (node->type()) {
    case JsonType::null:
      return false;
    case JsonType::logical:
      return node->logical();
    case JsonType::integer:
    case JsonType::real:
      return node->number() != 0.0 && node->number() != -1.0;
    case JsonType::string:
      return !node->text().empty();
    case JsonType::array:
    case JsonType::object:
      return node->size() > 0;
  }
  return true;
}

/// The entries of a list that may also be written as its only entry; empty for a packed array of numbers.
inline std::vector<JsonNode*> list_entries(JsonNode& list)
{
  std::vector<JsonNode*> entries;
  if (!list.is(JsonType::array)) {
    entries.push_back(&list);
  } else if (!list.packed()) {
    for (const auto& child : list.children()) entries.push_back(child.get());
  }
  return entries;
}

}  // namespace tolvan
