#include "api/stage_support.h"

#include <cstdio>

#include "base/text.h"

namespace tolvan::stages {

bool asks_for_nothing(const JsonNode& node)
{
  switch (node.type()) {
    case JsonType::null:
      return true;
    case JsonType::logical:
      return !node.logical();
    case JsonType::string:
      return is_blank(node.text());
    case JsonType::array:
    case JsonType::object:
      return node.size() == 0;
    default:
      return false;
  }
}

void refuse_key(ERROR_HANDLER& eh, const JsonNode& request, std::string_view key)
{
  const JsonNode* node = request.find(key);
  if (node == nullptr || asks_for_nothing(*node)) return;
  eh.not_implemented(text("the key ", key, " is not implemented"));
}

std::string scalar_text(const JsonNode& node)
{
  return node.is(JsonType::string) ? node.text() : json_text(node);
}

std::string text_under(const JsonNode& request, std::string_view key)
{
  const JsonNode* node = request.find(key);
  return node == nullptr ? std::string() : scalar_text(*node);
}

}  // namespace tolvan::stages
