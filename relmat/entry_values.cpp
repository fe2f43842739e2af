// Single values out of entries.  Routine: L_COUNT_UNDER.
#include "relmat/entry_values.h"

#include "base/text.h"
#include "data/request_values.h"
#include "model/request.h"

namespace tolvan {

bool is_on(const JsonNode& entry, std::string_view key)
{
  const JsonNode* node = given_value(entry, key);
  if (node == nullptr) return false;
  if (node->is(JsonType::string)) {
    const std::string word = lower(trim(node->text()));
    return !word.empty() && word != "false" && word != "0";
  }
  return node->is(JsonType::logical) ? node->logical() : node->is_number() && node->number() != 0.0;
}

std::int64_t L_COUNT_UNDER(ERROR_HANDLER& eh, const JsonNode& entry, std::string_view key, bool negative)
{
  const Frame here{eh, __func__};
  const JsonNode* node = given_value(entry, key);
  if (node == nullptr) return 0;
  if (node->is(JsonType::logical)) return node->logical() ? 1 : 0;
  if (node->is(JsonType::integer) && (negative || node->integer() >= 0)) return node->integer();
  REPORT_JSON_ERROR(eh, *node, {negative ? "an integer" : "an integer of at least 0"});
  return 0;
}

std::string extension_of(std::string_view path)
{
  const std::size_t at = path.find_last_of("./");
  return at == std::string_view::npos || path[at] == '/' ? std::string() : lower(path.substr(at + 1));
}

std::string without_extension(std::string_view path)
{
  const std::size_t at = path.find_last_of("./");
  return std::string(at == std::string_view::npos || path[at] == '/' ? path : path.substr(0, at));
}

}  // namespace tolvan
