// GET_VALUE_FROM_JPTR_INTEGER, _REAL, _LOGICAL, _STRING, _INTEGERS.
#include "api/fit_options_values.h"

#include <cmath>

#include "base/numbers.h"
#include "base/text.h"

namespace tolvan {
namespace {

constexpr double integer_limit = 9.2e18;    // below the largest 64-bit integer
constexpr std::size_t longest_value = 200;  // of a value shown in a message

/// What a reader needs to know of a scalar, whether it stands alone or as the one element of an array.
struct SCALAR {
  JsonType type = JsonType::null;  // null for whatever is no scalar
  bool logical = false;
  std::int64_t integer = 0;
  double real = 0.0;
  const std::string* text = nullptr;
};

SCALAR packed_number(const JsonNode& array, std::int64_t k)
{
  if (array.is_integer(k)) return {.type = JsonType::integer, .integer = array.integer(k)};
  return {.type = JsonType::real, .real = array.number(k)};
}

SCALAR scalar_of(const JsonNode& given)
{
  const JsonNode* node = &given;
  while (node->is(JsonType::array) && node->size() == 1) {
    if (node->packed()) return packed_number(*node, 0);
    node = node->children().front().get();
  }
  switch (node->type()) {
    case JsonType::logical:
      return {.type = JsonType::logical, .logical = node->logical()};
    case JsonType::integer:
      return {.type = JsonType::integer, .integer = node->integer()};
    case JsonType::real:
      return {.type = JsonType::real, .real = node->number()};
    case JsonType::string:
      return {.type = JsonType::string, .text = &node->text()};
    default:
      return {};
  }
}

void complain(ERROR_HANDLER& eh, std::string_view expected, const JsonNode& node)
{
  std::string supplied = json_text(node);
  if (supplied.size() > longest_value) supplied = supplied.substr(0, longest_value) + "...";
  eh.error(text("invalid value supplied, was expecting ", expected, ", supplied value = ", supplied));
}

/// False when the scalar is none.
bool integer_of(const SCALAR& scalar, std::int64_t bare, std::int64_t& value)
{
  switch (scalar.type) {
    case JsonType::logical:
      value = scalar.logical ? 1 : 0;
      return true;
    case JsonType::integer:
      value = scalar.integer;
      return true;
    case JsonType::real:
      if (!(std::fabs(scalar.real) < integer_limit)) return false;
      value = std::llround(scalar.real);
      return true;
    case JsonType::string:
      if (*scalar.text != no_value_supplied) return read_integer(trim(*scalar.text), value);
      value = bare;
      return true;
    default:
      return false;
  }
}

bool real_of(const SCALAR& scalar, double bare, double& value)
{
  switch (scalar.type) {
    case JsonType::logical:
      value = scalar.logical ? 1.0 : 0.0;
      return true;
    case JsonType::integer:
      value = static_cast<double>(scalar.integer);
      return true;
    case JsonType::real:
      value = scalar.real;
      return true;
    case JsonType::string: {
      double read = bare;
      if (*scalar.text != no_value_supplied && !read_real(trim(*scalar.text), read)) return false;
      if (!std::isfinite(read)) return false;
      value = read;
      return true;
    }
    default:
      return false;
  }
}

}  // namespace

void GET_VALUE_FROM_JPTR_INTEGER(ERROR_HANDLER& eh, const JsonNode& node, std::int64_t bare,
                                 std::int64_t& value)
{
  const Frame here{eh, __func__};
  if (!integer_of(scalar_of(node), bare, value)) complain(eh, "an integer scalar", node);
}

void GET_VALUE_FROM_JPTR_REAL(ERROR_HANDLER& eh, const JsonNode& node, double bare, double& value)
{
  const Frame here{eh, __func__};
  if (!real_of(scalar_of(node), bare, value)) complain(eh, "a real scalar", node);
}

void GET_VALUE_FROM_JPTR_LOGICAL(ERROR_HANDLER& eh, const JsonNode& node, bool& value)
{
  const Frame here{eh, __func__};
  if (node.is(JsonType::logical))
    value = node.logical();
  else if (node.is_text(no_value_supplied))
    value = true;
  else
    complain(eh, "a logical scalar", node);
}

void GET_VALUE_FROM_JPTR_STRING(ERROR_HANDLER& eh, const JsonNode& node, std::string& value)
{
  const Frame here{eh, __func__};
  const SCALAR scalar = scalar_of(node);
  if (scalar.type == JsonType::string)
    value = *scalar.text;
  else
    complain(eh, "a string scalar", node);
}

void GET_VALUE_FROM_JPTR_INTEGERS(ERROR_HANDLER& eh, const JsonNode& node, std::vector<std::int64_t>& values)
{
  const Frame here{eh, __func__};
  if (node.is_text(no_value_supplied)) {
    values.clear();
    return;
  }
  std::vector<std::int64_t> read;
  std::int64_t value = 0;
  bool good = true;
  if (!node.is(JsonType::array)) {
    good = integer_of(scalar_of(node), 0, value);
    read.push_back(value);
  } else {
    read.reserve(static_cast<std::size_t>(node.size()));
    for (std::int64_t k = 0; good && k < node.size(); ++k) {
      good = integer_of(
          node.packed() ? packed_number(node, k) : scalar_of(*node.children()[static_cast<std::size_t>(k)]),
          0, value);
      read.push_back(value);
    }
  }
  if (good)
    values = std::move(read);
  else
    complain(eh, "a list of integers", node);
}

bool asks(const JsonNode& node)
{
  switch (node.type()) {
    case JsonType::null:
      return false;
    case JsonType::logical:
      return node.logical();
    case JsonType::integer:
      return node.integer() != 0 && node.integer() != -1;
    case JsonType::real:
      return node.number() != 0.0 && node.number() != -1.0;
    case JsonType::string: {
      const auto value = trim(node.text());
      return !value.empty() && value != "0" && value != "-1";
    }
    case JsonType::array:
      if (node.size() != 1) return node.size() > 1;
      if (node.packed()) return node.number(0) != 0.0 && node.number(0) != -1.0;
      // Deeper nesting is no value of any option.
      return node.children().front()->is(JsonType::array) || asks(*node.children().front());
    case JsonType::object:
      return node.size() > 0;
  }
  return true;
}

}  // namespace tolvan
