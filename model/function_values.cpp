// Values of function arguments: MAT_VALIDATE, MAT_DEFAULT, GET_FUNCTION_ARGUMENT_FROM_JPTR.
#include <algorithm>

#include "base/text.h"
#include "data/variable_table.h"
#include "model/formula_text.h"
#include "model/function_catalogue.h"
#include "model/request.h"

namespace tolvan {

namespace {

std::string_view type_word(ArgType type)
{
  switch (type) {
    case ArgType::integer:
      return "integer";
    case ArgType::real:
      return "real";
    case ArgType::string:
      return "string";
    case ArgType::logical:
      return "logical";
    case ArgType::term:
      break;
  }
  return "term";
}

bool fits(const JsonNode& value, ArgType type)
{
  switch (type) {
    case ArgType::integer:
      return value.is(JsonType::integer);
    case ArgType::real:
      return value.is_number();
    case ArgType::string:
      return value.is(JsonType::string);
    case ArgType::logical:
      return value.is(JsonType::logical);
    case ArgType::term:
      break;
  }
  return true;
}

bool elements_fit(const JsonNode& array, ArgType type)
{
  if (array.packed()) {
    if (type == ArgType::real || type == ArgType::term) return true;
    if (type != ArgType::integer) return false;
    for (std::int64_t k = 0; k < array.number_count(); ++k)
      if (!array.is_integer(k)) return false;
    return true;
  }
  return std::all_of(array.children().begin(), array.children().end(),
                     [&](const auto& child) { return fits(*child, type); });
}

/// Values whose text names neither a variable nor a formula: matrices, levels.
bool holds_free_text(const MODEL_ARG_INFO& argument)
{
  return argument.NAME == "source" || argument.NAME == "levels" || argument.NDIM == 1;
}

/// L_CHECK_TERM_TEXT: checks the text of an argument that stands for a variable or a formula.
void L_CHECK_TERM_TEXT(ERROR_HANDLER& eh, const COMMUNICATION& communication, const MODEL_ARG_INFO& argument,
                       const std::string& value)
{
  const Frame here{eh, __func__};
  const SYMBOLS symbols(communication);
  const bool formula = std::any_of(value.begin(), value.end(), [&](char c) {
    return is_opener(c) || is_closer(c) || symbols.is_sign(c) || symbols.is_operator(c);
  });
  if (formula) {
    STANDARDISE_FORMULA_STRING(eh, communication, value);
    if (eh.terminate())
      eh.error(text("an invalid formula was supplied for argument\"", argument.NAME));  // sic
  } else if (!CHECK_VARIABLE_NAME_VALIDITY(eh, communication, value, true, true)) {
    eh.error(text("an invalid variable name was supplied for argument \"", argument.NAME));  // sic
  }
}

const JsonNode* find_argument_value(const JsonNode& function, std::string_view name)
{
  const JsonNode* arguments = function.find("arguments");
  if (arguments == nullptr) return nullptr;
  for (const auto& argument : arguments->children()) {
    const JsonNode* key = argument->find("name");
    if (key != nullptr && key->is_text(name)) return argument->find("value");
  }
  return nullptr;
}

}  // namespace

void MAT_VALIDATE(ERROR_HANDLER& eh, const COMMUNICATION& communication, const MODEL_ARG_INFO& argument,
                  const JsonNode& node, std::string_view function)
{
  const Frame here{eh, __func__};
  const JsonNode* value = &node;
  if (node.is(JsonType::object) && node.find("name") != nullptr) {
    value = node.find("value");
    if (value == nullptr) {
      REPORT_JSON_ERROR(eh, node, "value");
      return;
    }
  }
  if (argument.NDIM != 0 && argument.NDIM != 1) {
    eh.internal(text(function, " triggered an unexpected value for ndim, NDIM = ", argument.NDIM));
    return;
  }
  const std::string_view word = type_word(argument.TYPE);
  if (argument.TYPE == ArgType::term) {
    if (value->is(JsonType::string) && !holds_free_text(argument))
      L_CHECK_TERM_TEXT(eh, communication, argument, value->text());
    return;
  }
  const bool array = value->is(JsonType::array);
  const bool good =
      array ? argument.NDIM == 1 && elements_fit(*value, argument.TYPE) : fits(*value, argument.TYPE);
  if (good) return;
  // The quote behind the name is missing on purpose: hosts match these texts.
  if (argument.NDIM == 0) {
    eh.error(
        text("expected ", word[0] == 'i' ? "an " : "a ", word, " scalar for argument \"", argument.NAME));
  } else {
    eh.error(text("expected a vector of ", word, "s for argument \"", argument.NAME));
  }
}

void MAT_DEFAULT(ERROR_HANDLER& eh, const MODEL_ARG_INFO& argument, JsonNode& node)
{
  const Frame here{eh, __func__};
  if (!argument.HAS_DEFAULT) {
    node.add_value("value", no_value_supplied);
  } else if (argument.NDIM == 1) {
    JsonNode& values = node.add("value", JsonType::array);
    values.append_number(argument.RVAL);
    values.append_number(argument.RVAL2);
  } else if (argument.TYPE == ArgType::integer) {
    node.add_value("value", argument.IVAL);
  } else if (argument.TYPE == ArgType::real) {
    node.add_value("value", argument.RVAL);
  } else if (argument.TYPE == ArgType::logical) {
    node.add_value("value", argument.LVAL);
  } else {
    node.add_value("value", std::string(argument.SVAL));
  }
  node.add_value("supplied", false);
}

void GET_FUNCTION_ARGUMENT_FROM_JPTR(ERROR_HANDLER& eh, const JsonNode& function, std::string_view name,
                                     std::int64_t& value)
{
  const Frame here{eh, __func__};
  const JsonNode* node = find_argument_value(function, name);
  if (node == nullptr || !node->is(JsonType::integer)) {
    eh.error(text("invalid ", name, " argument supplied, was expecting an integer value"));
    return;
  }
  value = node->integer();
}

void GET_FUNCTION_ARGUMENT_FROM_JPTR(ERROR_HANDLER& eh, const JsonNode& function, std::string_view name,
                                     double& value)
{
  const Frame here{eh, __func__};
  const JsonNode* node = find_argument_value(function, name);
  if (node == nullptr || !node->is_number()) {
    eh.error(text("invalid ", name, " argument supplied, was expecting a numeric value"));
    return;
  }
  value = node->number();
}

}  // namespace tolvan
