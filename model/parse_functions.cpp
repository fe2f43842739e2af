// Calls in terms: which reader a function goes to, and the functions that name a variance structure.
// Routines: ADD_FUNCTION_FROM_JPTR, ADD_VARIANCE_FUNCTION_FROM_JPTR, ADD_ARGUMENT_FROM_JPTR.
#include <algorithm>
#include <array>

#include "base/numbers.h"
#include "base/text.h"
#include "model/design_functions.h"
#include "model/function_catalogue.h"
#include "model/parse_terms.h"
#include "model/request.h"
#include "model/named_definitions.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

using Reader = ALTERNATIVES (*)(ERROR_HANDLER&, MODEL_PARSER&, const JsonNode&, Block);

/// Functions with a reader of their own; the others are design functions or name a structure.
struct FUNCTION_READER {
  std::string_view name;
  Reader read;  // null: it can stand nowhere but as a whole term, where it is taken before
};

ALTERNATIVES ADD_RIC(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, Block block);

constexpr std::array readers = {
    FUNCTION_READER{"at", ADD_CONDITION_FROM_JPTR}, FUNCTION_READER{"sat", ADD_CONDITION_FROM_JPTR},
    FUNCTION_READER{"ric", ADD_RIC},                FUNCTION_READER{"str", nullptr},
    FUNCTION_READER{"dsum", nullptr},               FUNCTION_READER{"offset", nullptr},
};

/// The arguments of mtrn() in the order in which a factor row holds them.
constexpr std::string_view matern_arguments[] = {"phi", "nu", "delta", "alpha", "lambda"};

/// What stands for a variable in an argument: its name, or the node of a call.
bool is_term_argument(const JsonNode* value)
{
  return value != nullptr && (value->is(JsonType::string) || !plain_name(*value).empty() || value->find("function") != nullptr);
}

/// L_READ_FACTOR: the components that an argument may stand for.
ALTERNATIVES L_READ_FACTOR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& function, std::string_view argument,
                           const std::string& shown, Block block)
{
  const Frame here{eh, __func__};
  const JsonNode* value = supplied_value(function, argument);
  if (block == Block::residual && value != nullptr && value->is(JsonType::integer) && value->integer() > 0) {
    // A number of levels: the records are taken as they stand.
    FACTOR_ROW sized{.name = text(value->integer()), .kind = kind_linked, .is_factor = true, .levels = value->integer()};
    return {COMPONENT{.row = ADD_FACTOR_ROW(eh, parser, std::move(sized)), .name = text(value->integer())}};
  }
  if (!is_term_argument(value)) {
    eh.error(text("Unrecognised argument in ", shown));
    return {};
  }
  ALTERNATIVES read;
  if (value->find("function") != nullptr) {
    read = ADD_FUNCTION_FROM_JPTR(eh, parser, *value, block);
  } else {
    read.push_back(ADD_SPECIAL_TERM_FROM_JPTR(eh, parser, *value));
    if (eh.terminate()) eh.continuation(text("Cannot find ", plain_name(*value), " to form ", shown));
  }
  if (eh.terminate()) {
    eh.continuation(text("when processing ", shown));
    return {};
  }
  for (const COMPONENT& component : read) {
    if (component.structure.empty()) continue;
    eh.error(text("Unrecognised argument in ", shown));
    eh.continuation(text(component.name, " names a variance structure, not a factor"));
    return {};
  }
  return read;
}

/// L_READ_ORDER: the number of bands or factors, at least 1.
void L_READ_ORDER(ERROR_HANDLER& eh, const JsonNode& function, std::string_view argument, const std::string& shown,
                  std::int64_t& order)
{
  const Frame here{eh, __func__};
  const JsonNode& value = *find_argument(function, argument)->find("value");
  if (!value.is(JsonType::integer)) {
    const std::string given = value.is(JsonType::string) ? value.text() : json_text(value);
    eh.error(text("was expecting on integer value, but ", given, " was supplied"));  // sic
  } else if (value.integer() < 1) {
    eh.error(text("invalid argument for ", shown));
    eh.continuation(text(argument, " = ", value.integer(), ", it must be at least 1"));
  } else {
    order = value.integer();
    return;
  }
  eh.continuation(text("when processing ", shown));
}

/// L_READ_PARAMETERS: what the arguments beside the factor tell of the structure: the order, coordinates, the matrix, values.
void L_READ_PARAMETERS(ERROR_HANDLER& eh, const JsonNode& function, const MODEL_FUN_INFO& info, const std::string& shown,
                       COMPONENT& component)
{
  const Frame here{eh, __func__};
  const bool matern = function_name(function).starts_with("mtrn");
  if (matern) component.arguments.assign(std::size(matern_arguments), no_value);
  for (const MODEL_ARG_INFO& argument : info.ARGS) {
    const JsonNode* value = supplied_value(function, argument.NAME);
    if (argument.NAME == "k" || argument.NAME == "b") {
      L_READ_ORDER(eh, function, argument.NAME, shown, component.order);
    } else if (value == nullptr) {
      continue;
    } else if (argument.NAME == "init" || argument.NAME == "dist") {
      std::vector<double>& values = argument.NAME == "init" ? component.init : component.dist;
      values = GET_VALUE_FROM_JPTR_REALS(eh, *find_argument(function, argument.NAME), "value");
    } else if (argument.NAME == "source") {
      component.matrix = value->is(JsonType::string) ? value->text() : std::string(plain_name(*value));
    } else if (matern) {
      const auto* const at = std::find(std::begin(matern_arguments), std::end(matern_arguments), argument.NAME);
      if (at != std::end(matern_arguments))
        GET_FUNCTION_ARGUMENT_FROM_JPTR(eh, function, argument.NAME, component.arguments[static_cast<std::size_t>(at - std::begin(matern_arguments))]);
    }
    if (eh.terminate()) return;
  }
}

/// L_DISTINCT: a factor with a level for each distinct value of a covariate, or for each distinct pair.
void L_DISTINCT(ERROR_HANDLER& eh, MODEL_PARSER& parser, std::int64_t second, COMPONENT& component)
{
  const Frame here{eh, __func__};
  if (second == 0 && parser.factors.row(component.row).is_factor) return;
  component.row = ADD_DISTINCT_FACTOR(eh, parser, component.row, second);
  component.second = second;
}

/// L_CHECK_MATRIX_FACTOR: a known matrix stands over the levels of a factor.
void L_CHECK_MATRIX_FACTOR(ERROR_HANDLER& eh, const MODEL_PARSER& parser, const COMPONENT& component)
{
  const Frame here{eh, __func__};
  if (component.matrix.empty()) {
    eh.error(text("Unrecognised argument in ", component.name));
  } else if (parser.factors.row(component.row).is_factor) {
    return;
  } else if (find_definition(parser.request, "marker_file", component.matrix) != nullptr) {
    eh.error(text("declare factor \"", parser.factors.row(component.row).name,
                  "\" !A with an appropriate size and Tolvan will impute class names from the .grr file"));
  } else {
    eh.error(text(component.name, " may only be used on a pedigree factor"));
    eh.continuation(text(parser.factors.row(component.row).name, " is a variate"));
  }
}

/// ADD_RIC: two effects of the same levels, one with the known matrix and one with an identity.
ALTERNATIVES ADD_RIC(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, Block block)
{
  const Frame here{eh, __func__};
  const ALTERNATIVES read = ADD_VARIANCE_FUNCTION_FROM_JPTR(eh, parser, node, block);
  if (eh.terminate() || block != Block::random) return read;
  const std::vector<double> init =
      GET_VALUE_FROM_JPTR_REALS(eh, *find_argument(*node.find("function"), "init"), "value");
  if (!eh.terminate() && init.size() != 2)
    eh.error(text("unexpected number of initial values supplied for ", read.front().name, ", number expected = 2, number supplied = ",
                  init.size()));
  if (eh.terminate()) return {};
  const COMMUNICATION& words = parser.communication;
  ALTERNATIVES both{read.front(), read.front()};
  constexpr std::string_view structures[] = {"vm", "ide"};
  for (std::size_t k = 0; k < 2; ++k) {
    both[k].structure = structures[k];
    both[k].init = {init[k]};
    both[k].name = text(structures[k], words.FUN_OPEN_BRACE, parser.factors.row(both[k].row).name, words.FUN_ARG_SEP,
                        both[k].matrix, words.FUN_CLOSE_BRACE);
  }
  return both;
}

}  // namespace

COMPONENT ADD_ARGUMENT_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& function,
                                 std::string_view argument, const std::string& shown, Block block)
{
  const Frame here{eh, __func__};
  ALTERNATIVES read = L_READ_FACTOR(eh, parser, function, argument, shown, block);
  if (eh.terminate()) return {};
  if (read.size() == 1) return std::move(read.front());
  eh.error(text("Unrecognised argument in ", shown));
  eh.continuation(text(read.empty() ? std::string("it") : read.front().name, " stands for several terms"));
  return {};
}

ALTERNATIVES ADD_VARIANCE_FUNCTION_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, Block block)
{
  const Frame here{eh, __func__};
  const JsonNode& function = *node.find("function");
  const std::string name(function_name(function));
  const std::string shown = shown_name(parser, node);
  const MODEL_FUN_INFO info = GET_MODEL_FUNCTION_INFO(eh, name);
  const auto has = [&info](std::string_view argument) {
    return std::any_of(info.ARGS.begin(), info.ARGS.end(), [&](const MODEL_ARG_INFO& a) { return a.NAME == argument; });
  };

  COMPONENT asked{.structure = name};
  L_READ_PARAMETERS(eh, function, info, shown, asked);
  if (eh.terminate()) return {};
  ALTERNATIVES read = L_READ_FACTOR(eh, parser, function, info.ARGS.front().NAME, shown, block);
  if (eh.terminate()) return {};
  std::int64_t second = 0;
  const bool by_fac = has("y") && supplied_value(function, "y") == nullptr;  // fac(x,y) has both coordinates
  if (has("y") && !by_fac) {
    second = ADD_ARGUMENT_FROM_JPTR(eh, parser, function, "y", shown, block).row;
    if (eh.terminate()) return {};
  }
  const bool in_terms = block == Block::fixed || block == Block::sparse;
  if (in_terms && !parser.data_read && name != "id") {
    eh.warning(name.starts_with("ma1") ? std::string("Design function ma1(.) is now treated as a Variance Function")
                                       : text("a variance structure has no effect on a fixed term"));
    eh.continuation(text("this was found at the term ", shown));
  }
  for (COMPONENT& component : read) {
    const COMPONENT factor = component;
    component = asked;
    component.row = factor.row;
    component.name = read.size() == 1 ? shown
                                      : text(name, parser.communication.FUN_OPEN_BRACE, factor.name,
                                             parser.communication.FUN_CLOSE_BRACE);
    if (by_fac) component.second = parser.factors.row(component.row).second;
    if (by_fac && component.second == 0) {
      eh.error("argument y is required");
      eh.continuation(text("when processing ", shown));
    } else if ((has("y") && !by_fac) || has("dist")) {
      L_DISTINCT(eh, parser, second, component);
    }
    if (has("source") && !eh.terminate()) L_CHECK_MATRIX_FACTOR(eh, parser, component);
    if (eh.terminate()) return {};
    if (in_terms) component.structure.clear();
  }
  return read;
}

ALTERNATIVES ADD_FUNCTION_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, Block block)
{
  const Frame here{eh, __func__};
  const JsonNode& function = *node.find("function");
  const std::string_view name = function_name(function);
  const std::string shown = shown_name(parser, node);
  const JsonNode* arguments = function.find("arguments");
  if (arguments == nullptr || arguments->size() == 0) {
    eh.error(text("invalid function call in model (", shown, "), no arguments supplied"));
    return {};
  }
  if (GET_MODEL_FUNCTION_INFO(eh, name).NAME.empty()) {
    eh.error(text("unknown term (", shown, ") in the model"));
    return {};
  }
  if (is_design_function(name)) {
    COMPONENT component = ADD_DESIGN_FUNCTION(eh, parser, node, shown, block);
    if (eh.terminate()) return {};
    return {std::move(component)};
  }
  if (name == "mthr") {
    eh.not_implemented(text("the model function mthr() in term ", shown, " is not implemented yet"));
    return {};
  }
  const auto* const own = std::find_if(readers.begin(), readers.end(), [&](const FUNCTION_READER& r) { return r.name == name; });
  if (own == readers.end()) return ADD_VARIANCE_FUNCTION_FROM_JPTR(eh, parser, node, block);
  if (own->read != nullptr) return own->read(eh, parser, node, block);
  eh.error(text("Unrecognised argument in ", shown));
  eh.continuation(text(name, "() is a term by itself, not part of another"));
  return {};
}

}  // namespace tolvan
