// Reading the catalogue of component models.
#include "varstruct/model_catalogue.h"

#include <algorithm>

namespace tolvan {

namespace {

bool has_word(std::string_view words, std::string_view word)
{
  while (!words.empty()) {
    const std::size_t end = std::min(words.find(' '), words.size());
    if (words.substr(0, end) == word) return true;
    words.remove_prefix(std::min(end + 1, words.size()));
  }
  return false;
}

std::int64_t order_of(std::string_view base)
{
  const char last = base.back();
  return last >= '1' && last <= '9' ? last - '0' : 1;
}

}  // namespace

MODEL_REQUEST model_request(std::string_view function)
{
  if (function.empty()) return {};
  for (const COMPONENT_MODEL& m : component_models) {
    if (has_word(m.functions, function)) return {&m, 0, order_of(function)};
  }
  const std::string_view base = function.substr(0, function.size() - 1);
  const std::int64_t qualifier = function.back() == 'v' ? 1 : function.back() == 'h' ? 2 : 0;
  if (base.empty() || qualifier == 0) return {};
  for (const COMPONENT_MODEL& m : component_models) {
    if (m.forms && has_word(m.functions, base)) return {&m, qualifier, order_of(base)};
  }
  return {};
}

std::int64_t own_parameters(const COMPONENT_MODEL& model, std::int64_t levels, std::int64_t order)
{
  const std::int64_t n = levels;
  const std::int64_t k = std::max<std::int64_t>(order, 1);
  switch (model.rule) {
    case ParameterRule::none:
      return 0;
    case ParameterRule::one:
      return 1;
    case ParameterRule::two:
      return 2;
    case ParameterRule::order_to_2:
      return std::min<std::int64_t>(k, 2);
    case ParameterRule::order_to_3:
      return std::min<std::int64_t>(k, 3);
    case ParameterRule::order_to_5:
      return std::min<std::int64_t>(k, 5);
    case ParameterRule::order:
      return k;
    case ParameterRule::bands:
      return n - 1;
    case ParameterRule::pairs:
      return n * (n - 1) / 2;
    case ParameterRule::levels:
      return n;
    case ParameterRule::triangle:
      return n * (n + 1) / 2;
    case ParameterRule::loadings_and_levels:
      return n * (std::min(k, n - 1) + 1);
    case ParameterRule::extended: {
      const std::int64_t factors = std::min(k, n);
      return (n - factors) * (factors + 1);
    }
  }
  return 0;
}

}  // namespace tolvan
