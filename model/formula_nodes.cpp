#include "model/formula_nodes.h"

#include <algorithm>
#include <cmath>
#include <memory>

#include "base/text.h"
#include "model/formula_text.h"
#include "model/function_catalogue.h"

namespace tolvan {

namespace {

constexpr std::int64_t deepest_vector = 8;
constexpr std::size_t longest_formula_shown = 200;

bool is_model_part(std::string_view part)
{
  return part == "response" || part == "fixed" || part == "random" || part == "sparse" || part == "residual";
}

bool is_quoted(std::string_view s)
{
  return s.size() >= 2 && (s[0] == '"' || s[0] == '\'') && s.find(s[0], 1) == s.size() - 1;
}

std::string_view unquoted(std::string_view s)
{
  return is_quoted(s) ? s.substr(1, s.size() - 2) : s;
}

/// What is written as a number but is none that can be computed with: nan, inf, 1e400, 1e-400.
bool is_unusable_number(std::string_view s)
{
  double x = 0.0;
  if (read_number(s, x)) return !std::isfinite(x);
  const auto digits = [&s] {
    const std::size_t n = std::min(s.find_first_not_of("0123456789"), s.size());
    s.remove_prefix(n);
    return n;
  };
  const auto skip = [&s](std::string_view one_of) {
    if (!s.empty() && one_of.find(s.front()) != std::string_view::npos) s.remove_prefix(1);
  };
  skip("+-");
  std::size_t mantissa = digits();
  skip(".");
  mantissa += digits();
  if (mantissa == 0 || s.empty() || std::string_view("eEdD").find(s.front()) == std::string_view::npos) return false;
  s.remove_prefix(1);
  skip("+-");
  return digits() > 0 && s.empty();
}

JsonNode& add_key(JsonNode& parent, std::string_view key, JsonType type)
{
  return parent.add(parent.is(JsonType::array) ? std::string() : std::string(key), type);
}

/// Numbers stay numbers, true and false logicals, all else is text.  False: there is nothing to read.
bool set_scalar(JsonNode& node, std::string_view s)
{
  std::int64_t i = 0;
  double x = 0.0;
  if (s.empty()) return false;
  if (is_quoted(s)) {
    node.set(std::string(unquoted(s)));
  } else if (read_integer(s, i)) {
    node.set(i);
  } else if (read_number(s, x)) {
    node.set(x);
  } else if (s == "true" || s == "TRUE" || s == "false" || s == "FALSE") {
    node.set(s[0] == 't' || s[0] == 'T');
  } else {
    node.set(std::string(s));
  }
  return true;
}

/// "[1,2.5,3]": numbers alone are packed; else each element by itself, vectors of vectors included.
bool set_vector(JsonNode& node, std::string_view s, char separator, std::int64_t depth)
{
  if (depth > deepest_vector || s.size() < 2 || s[0] != '[' || find_partner(s, 0) != s.size() - 1)
    return false;
  node.set_array();
  const std::vector<std::string> pieces = split_protected(s.substr(1, s.size() - 2), separator);
  const bool numbers =
      std::all_of(pieces.begin(), pieces.end(), [](const std::string& p) { return is_numeric(trim(p)); });
  for (const std::string& piece : pieces) {
    const std::string_view element = trim(piece);
    if (is_unusable_number(element)) return false;
    std::int64_t i = 0;
    double x = 0.0;
    if (numbers) {
      if (read_integer(element, i)) {
        node.append_number(i);
      } else {
        read_number(element, x);
        node.append_number(x);
      }
    } else if (!element.empty() && element[0] == '[') {
      if (!set_vector(node.add("", JsonType::null), element, separator, depth + 1)) return false;
    } else if (!set_scalar(node.add("", JsonType::null), element)) {
      return false;
    }
  }
  return true;
}

/// Arguments that are read as they stand: texts, and the names of matrices.
bool is_raw(const MODEL_FUN_INFO& info, std::size_t position, std::string_view name)
{
  for (std::size_t k = 0; k < info.ARGS.size(); ++k) {
    const MODEL_ARG_INFO& argument = info.ARGS[k];
    if (name.empty() ? k == position : argument.NAME == name)
      return argument.TYPE == ArgType::string || argument.NAME == "source";
  }
  return false;
}

/// L_ADD_ARGUMENT_VALUE: gives an argument node its value: a scalar, a vector, a name, a call or a formula.
void L_ADD_ARGUMENT_VALUE(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& argument,
                          std::string_view s, bool raw, std::string_view function, std::int64_t depth)
{
  const Frame here{eh, __func__};
  const SYMBOLS symbols(communication);
  const char separator = communication.VEC_VAL_SEP.empty() ? ',' : communication.VEC_VAL_SEP[0];
  const bool formula =
      !raw && !is_numeric(s) && !is_quoted(s) && std::any_of(s.begin(), s.end(), [&](char c) {
        return symbols.is_sign(c) || symbols.is_operator(c) || c == '(' || c == ')';
      });
  bool good = true;
  if (s.empty() || ((s[0] == '"' || s[0] == '\'') && !is_quoted(s))) {
    good = false;
  } else if (!raw && is_unusable_number(s)) {
    good = false;
  } else if (raw) {
    argument.add_value("value", std::string(unquoted(s)));
  } else if (s[0] == '[') {
    good = set_vector(argument.add("value", JsonType::null), s, separator, 0);
  } else if (is_call(s)) {
    API_FUNCTION_STRING_TO_JPTR(eh, communication, argument.add("value", JsonType::object), s, "function",
                                depth + 1);
  } else if (formula) {
    JsonNode& value = argument.add("value", JsonType::object);
    const JsonNode* terms = API_FORMULA_STRING_TO_JPTR(eh, communication, &value, s, "terms", depth + 1);
    good = eh.terminate() || (terms != nullptr && terms->size() > 0);
  } else {
    good = set_scalar(argument.add("value", JsonType::null), s);
  }
  if (!good) eh.error(text("invalid argument to ", function));
}

/// L_ADD_TERMS: appends the nodes of the terms of a formula to a list.
void L_ADD_TERMS(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& list, std::string_view formula,
                 std::string_view part, std::int64_t depth)
{
  const Frame here{eh, __func__};
  const std::string canonical = STANDARDISE_FORMULA_STRING(eh, communication, formula);
  if (eh.terminate()) return;
  const SYMBOLS symbols(communication);
  for (const std::string& whole : split_protected(canonical, symbols.add)) {
    std::string term(trim(whole));
    if (term.empty()) continue;
    if (is_numeric(term)) {
      if (part != "fixed" || (term != "1" && term != "-1")) {
        eh.error("unexpected numeric value in model definition");
        return;
      }
      term = text(term == "1" ? "" : communication.DROP_TERM_SYMBOL, communication.VARIABLE_NAME_MU);
    }
    API_ADD_INTERACTION_OR_TERM_TO_JSON(eh, communication, list, term, {}, depth);
    if (eh.terminate()) return;
  }
}

}  // namespace

JsonNode* API_FORMULA_STRING_TO_JPTR(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode* parent,
                                     std::string_view formula, std::string_view part, std::int64_t depth)
{
  const Frame here{eh, __func__};
  if (parent == nullptr) {
    eh.internal("expected JPTR to be associated");
    return nullptr;
  }
  const std::string key(is_model_part(part) ? "terms" : part);
  JsonNode* list = parent->find(key);
  if (list == nullptr || !list->is(JsonType::array)) list = &parent->add(key, JsonType::array);
  L_ADD_TERMS(eh, communication, *list, formula, part, depth);
  if (!eh.terminate()) return list;
  // The formula as a whole tells where it was; a fault of brackets has told its term.
  if (depth == 0 && !eh.EH_LAST_MESSAGE().starts_with("Error: "))
    eh.continuation(text("in the formula ", cut(formula, longest_formula_shown), formula.size() > longest_formula_shown ? "..." : ""));
  return nullptr;
}

void API_ADD_INTERACTION_OR_TERM_TO_JSON(ERROR_HANDLER& eh, const COMMUNICATION& communication,
                                         JsonNode& parent, std::string_view term, std::string_view key,
                                         std::int64_t depth)
{
  const Frame here{eh, __func__};
  const SYMBOLS symbols(communication);
  const bool drop = !term.empty() && term[0] == symbols.drop;
  if (drop) term = trim(term.substr(1));
  const std::vector<std::string> factors = split_protected(term, symbols.interaction);
  if (factors.size() == 1) {
    API_ADD_TERM_TO_JSON(eh, communication, parent, term, key.empty() ? "TEMP_NAME" : key, drop, depth);
    return;
  }
  JsonNode& node = add_key(parent, key.empty() ? "TEMP_NAME" : key, JsonType::object);
  JsonNode& list = node.add("interaction", JsonType::array);
  for (const std::string& factor : factors) {
    API_ADD_TERM_TO_JSON(eh, communication, list, trim(factor), {}, false, depth);
    if (eh.terminate()) return;
  }
  if (drop) node.add_value("drop", true);
}

JsonNode* API_ADD_TERM_TO_JSON(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& parent,
                               std::string_view term, std::string_view key, bool drop, std::int64_t depth)
{
  const Frame here{eh, __func__};
  const bool call = !is_quoted(term) && term.find_first_of("()") != std::string_view::npos;
  // A string would be read as a formula when the standard form comes back.
  const bool only_quoted = !call && !is_plain_text(SYMBOLS(communication), unquoted(term));
  if (!call && !drop && !only_quoted) {
    JsonNode& plain = add_key(parent, key, JsonType::null);
    plain.set(std::string(unquoted(term)));
    return &plain;
  }
  JsonNode& node = add_key(parent, key, JsonType::object);
  if (call) {
    API_FUNCTION_STRING_TO_JPTR(eh, communication, node, term, "function", depth);
  } else {
    node.add_value("term_name", std::string(unquoted(term)));
  }
  if (drop) node.add_value("drop", true);
  return &node;
}

void API_FUNCTION_STRING_TO_JPTR(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& parent,
                                 std::string_view call, std::string_view key, std::int64_t depth)
{
  const Frame here{eh, __func__};
  const std::size_t open = call.find('(');
  if (open == std::string_view::npos || call.back() != ')') {
    eh.error(text(call, " is not a function, there are no opening and / or closing parenthesis"));
    return;
  }
  const std::string_view name = cut(trim(call.substr(0, open)), function_name_capacity);
  if (depth > deepest_call) {
    eh.error(text("function calls are nested deeper than ", deepest_call, " levels in ", name));
    return;
  }
  std::string arguments(call.substr(open + 1, call.size() - open - 2));
  const bool linked = name == communication.LINK_FUN_NAME;
  if (name == "dsum") {
    if (const std::size_t bar = find_last_protected(arguments, '|'); bar != std::string::npos)
      arguments[bar] = ',';
  }
  const char separator = communication.FUN_ARG_SEP.empty() ? ',' : communication.FUN_ARG_SEP[0];
  std::vector<std::string> pieces = split_protected(arguments, separator);
  if (pieces.size() == 1 && trim(pieces[0]).empty()) pieces.clear();
  if (linked && !pieces.empty()) {
    std::string_view form = pieces[0];
    for (const std::string& piece : pieces)
      if (trim(piece).starts_with("form=")) form = trim(piece).substr(5);
    if (trim(form).starts_with("vmodel=")) form = {};
    API_FORMULA_STRING_TO_JPTR(eh, communication, &parent, form, "linked", depth + 1);
    if (eh.terminate()) return;
  }

  const MODEL_FUN_INFO info = GET_MODEL_FUNCTION_INFO(eh, name);
  JsonNode& node = parent.add(std::string(key), JsonType::object);
  node.add_value("name", std::string(name));
  JsonNode& list = node.add("arguments", JsonType::array);
  for (std::size_t k = 0; k < pieces.size(); ++k) {
    const std::string_view piece = trim(pieces[k]);
    const std::size_t equals = find_protected(piece, '=');
    JsonNode& argument = list.add("", JsonType::object);
    std::string_view argument_name, value = piece;
    if (equals != std::string_view::npos) {
      argument_name = trim(piece.substr(0, equals));
      value = trim(piece.substr(equals + 1));
      argument.add_value("name", std::string(argument_name));
    }
    L_ADD_ARGUMENT_VALUE(eh, communication, argument, value, is_raw(info, k, argument_name), name, depth);
    if (eh.terminate()) return;
  }
}

void API_EXPAND_FORMULA_STRING(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& node,
                               std::string_view part)
{
  const Frame here{eh, __func__};
  const std::string formula = node.text();
  node.set_object();
  node.add("terms", JsonType::array);
  API_FORMULA_STRING_TO_JPTR(eh, communication, &node, formula, is_model_part(part) ? part : "terms");
}

}  // namespace tolvan
