// Routines: L_NUMBER_UNDER, L_COUNT_UNDER, L_CODE_UNDER, L_TEXT_UNDER.
#include "data/entry_values.h"

#include <algorithm>

#include "base/text.h"
#include "data/request_values.h"
#include "model/request.h"

namespace tolvan {
namespace {

/// What a number must be, in words.
std::string wanted(bool whole, double low, double high)
{
  const std::string kind = whole ? "an integer" : "a real number";
  if (std::isfinite(high)) return text(kind, " from ", low, " to ", high);
  return std::isfinite(low) ? text(kind, " of at least ", low) : kind;
}

}  // namespace

bool is_on(const JsonNode& entry, std::string_view key, bool blank_is_on)
{
  const JsonNode* node = given_value(entry, key);
  if (node == nullptr) return false;
  if (node->is(JsonType::string)) {
    const std::string word = lower(trim(node->text()));
    return word.empty() ? blank_is_on : word != "false" && word != "0";
  }
  return node->is(JsonType::logical) ? node->logical() : node->is_number() && node->number() != 0.0;
}

std::optional<double> L_NUMBER_UNDER(ERROR_HANDLER& eh, const JsonNode& entry, std::string_view key, bool whole,
                                     double low, double high)
{
  const Frame here{eh, __func__};
  const JsonNode* node = given_value(entry, key);
  if (node == nullptr || (node->is(JsonType::logical) && !node->logical())) return std::nullopt;
  if (node->is(JsonType::logical)) return 1.0;
  double x = node->number();
  const bool number = node->is_number() || (node->is(JsonType::string) && read_real(trim(node->text()), x));
  if (number && std::isfinite(x) && x >= low && x <= high && (!whole || x == std::trunc(x))) return x;
  REPORT_JSON_ERROR(eh, *node, {wanted(whole, low, high)});
  return std::nullopt;
}

std::int64_t L_COUNT_UNDER(ERROR_HANDLER& eh, const JsonNode& entry, std::string_view key, bool negative)
{
  const Frame here{eh, __func__};
  constexpr double most = 1e15;  // a double tells integers apart up to there, and nothing is counted beyond
  const double x = L_NUMBER_UNDER(eh, entry, key, true, negative ? -HUGE_VAL : 0.0).value_or(0.0);
  return static_cast<std::int64_t>(std::clamp(x, -most, most));
}

std::int64_t L_CODE_UNDER(ERROR_HANDLER& eh, const JsonNode& entry, std::string_view key, std::int64_t low,
                          std::int64_t high, std::int64_t otherwise)
{
  const Frame here{eh, __func__};
  if (given_value(entry, key) == nullptr) return otherwise;
  const std::optional<double> x =
      L_NUMBER_UNDER(eh, entry, key, true, static_cast<double>(low), static_cast<double>(high));
  return x ? static_cast<std::int64_t>(*x) : low;
}

std::string L_TEXT_UNDER(ERROR_HANDLER& eh, const JsonNode& entry, std::string_view key)
{
  const Frame here{eh, __func__};
  const JsonNode* node = given_value(entry, key);
  if (node == nullptr) return {};
  if (node->is(JsonType::string)) return node->text();
  REPORT_JSON_ERROR(eh, *node, {"a string"});
  return {};
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
