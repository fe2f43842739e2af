// Design functions: calls that make a factor or covariates of their own.
// Routines: ADD_DESIGN_FUNCTION, ADD_DEFINED_FACTOR, ADD_DISTINCT_FACTOR.
#include "model/design_functions.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "base/text.h"
#include "model/function_catalogue.h"
#include "model/named_definitions.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

constexpr std::int64_t highest_degree = 1000;

/// One function: what its call says of the factor row.
struct DesignFunction {
  std::string_view name;
  DesignKind kind;
  std::array<std::string_view, 2> numbers;  // the arguments that become numbers of the row
  bool is_factor;                           // the row has levels
  bool of_levels;                           // its source must have levels
};

// clang-format off
constexpr std::array functions = {
    DesignFunction{"lin",  DesignKind::lin,    {},              false, false},
    DesignFunction{"con",  DesignKind::con,    {},              true,  true},
    DesignFunction{"pol",  DesignKind::pol,    {"t"},           true,  false},
    DesignFunction{"leg",  DesignKind::leg,    {"t"},           true,  false},
    DesignFunction{"pow",  DesignKind::pow,    {"p", "offset"}, false, false},
    DesignFunction{"spl",  DesignKind::spl,    {"k"},           true,  false},
    DesignFunction{"dev",  DesignKind::dev,    {},              true,  false},
    DesignFunction{"fac",  DesignKind::fac,    {},              true,  false},
    DesignFunction{"and",  DesignKind::joined, {"times"},       true,  false},
    DesignFunction{"uni",  DesignKind::uni,    {"k", "n"},      true,  false},
    DesignFunction{"zero", DesignKind::zero,   {"k"},           true,  false},
    DesignFunction{"grp",  DesignKind::vec,    {},              true,  false},
    DesignFunction{"vect", DesignKind::vec,    {},              true,  false},
};
// clang-format on

const DesignFunction* find_function(std::string_view name)
{
  const auto at = std::find_if(functions.begin(), functions.end(), [&](const DesignFunction& f) { return f.name == name; });
  return at == functions.end() ? nullptr : &*at;
}

/// L_READ_NUMBERS: the numeric arguments of a call; one that was left out without a default is 0.
void L_READ_NUMBERS(ERROR_HANDLER& eh, const JsonNode& call, const DesignFunction& function, FACTOR_ROW& row)
{
  const Frame here{eh, __func__};
  const MODEL_FUN_INFO info = GET_MODEL_FUNCTION_INFO(eh, function.name);
  for (const std::string_view name : function.numbers) {
    if (name.empty()) continue;
    const auto at = std::find_if(info.ARGS.begin(), info.ARGS.end(), [&](const MODEL_ARG_INFO& a) { return a.NAME == name; });
    if (at == info.ARGS.end()) {
      eh.internal(text("the function ", function.name, " has no argument ", name));
      return;
    }
    if (supplied_value(call, name) == nullptr) {
      row.arguments.push_back(!at->HAS_DEFAULT ? 0.0 : at->TYPE == ArgType::integer ? static_cast<double>(at->IVAL) : at->RVAL);
      continue;
    }
    double value = 0.0;
    if (at->TYPE == ArgType::integer) {
      std::int64_t whole = 0;
      GET_FUNCTION_ARGUMENT_FROM_JPTR(eh, call, name, whole);
      value = static_cast<double>(whole);
    } else {
      GET_FUNCTION_ARGUMENT_FROM_JPTR(eh, call, name, value);
    }
    if (eh.terminate()) return;
    row.arguments.push_back(value);
  }
}

/// L_CHECK_NUMBERS: whether the numbers of a row make sense; sets the level counts that they tell.
void L_CHECK_NUMBERS(ERROR_HANDLER& eh, FACTOR_ROW& row)
{
  const Frame here{eh, __func__};
  const double first = row.arguments.empty() ? 0.0 : row.arguments[0];
  bool good = true;
  switch (row.design_kind()) {
    case DesignKind::pol:
    case DesignKind::leg:
      good = std::abs(first) <= static_cast<double>(highest_degree);
      row.levels = static_cast<std::int64_t>(first < 0.0 ? -first : first + 1.0);
      break;
    case DesignKind::spl:
      good = first == 0.0 || first >= 3.0;
      break;
    case DesignKind::zero:
      good = first >= 1.0 && first <= 2147483647.0;
      row.levels = good ? static_cast<std::int64_t>(first) : 0;
      break;
    case DesignKind::uni:
      good = first >= 0.0 && row.arguments[1] >= 0.0;
      break;
    default:
      break;
  }
  if (good) return;
  eh.error(text("invalid argument for ", row.name));
  if (row.design_kind() == DesignKind::spl) eh.continuation(text("a spline needs at least 3 knots, ", first, " were asked for"));
}

/// L_CHECK_SOURCE: whether a row can be the argument of a function.
void L_CHECK_SOURCE(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, std::int64_t source, bool of_levels, const std::string& shown)
{
  const Frame here{eh, __func__};
  const FACTOR_ROW& factor = factors.row(source);
  const bool reserved = factor.reserved == Reserved::mu || factor.reserved == Reserved::mv;
  if (is_scalar(factor.design_kind()) && !reserved && (!of_levels || factor.is_factor)) return;
  eh.error(text("invalid argument for ", shown));
  eh.continuation(text(factor.shown(), of_levels && !factor.is_factor ? " has no levels" : " is no single variable"));
}

}  // namespace

bool is_design_function(std::string_view name)
{
  return find_function(name) != nullptr;
}

COMPONENT ADD_DESIGN_FUNCTION(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, const std::string& shown,
                              Block block)
{
  const Frame here{eh, __func__};
  const JsonNode& call = *node.find("function");
  const DesignFunction& function = *find_function(function_name(call));
  COMPONENT component{.name = shown};
  FACTOR_ROW row{.name = shown, .kind = static_cast<std::int64_t>(function.kind), .is_factor = function.is_factor, .levels = function.is_factor ? 0 : 1};
  L_READ_NUMBERS(eh, call, function, row);
  if (eh.terminate()) return {};
  L_CHECK_NUMBERS(eh, row);
  if (eh.terminate()) return {};

  if (function.kind == DesignKind::zero) {
    component.row = ADD_FACTOR_ROW(eh, parser, std::move(row));
    return component;
  }
  if (function.kind == DesignKind::vec) {
    const JsonNode* value = supplied_value(call, "variable_name");
    component.row = value == nullptr ? 0 : ADD_GROUP(eh, parser, plain_name(*value));
    if (component.row > 0 || eh.terminate()) return component;
    const std::string_view group = value == nullptr ? std::string_view() : plain_name(*value);
    if (group.empty()) {
      eh.error(text("Unrecognised argument in ", shown));
    } else {
      eh.error(text("you need to predefine ", group));
      eh.continuation(text("when processing ", shown));
    }
    return component;
  }

  row.source = ADD_ARGUMENT_FROM_JPTR(eh, parser, call, function.kind == DesignKind::fac ? "x" : "variable_name", shown, block).row;
  if (eh.terminate()) return {};
  const FACTOR_ROW& source = parser.factors.row(row.source);
  row.variable = source.variable;
  if (function.kind == DesignKind::joined) {
    row.is_factor = source.is_factor;
    row.levels = source.levels;
    component.row = ADD_FACTOR_ROW(eh, parser, std::move(row));
    return component;
  }
  L_CHECK_SOURCE(eh, parser.factors, row.source, function.of_levels, shown);
  if (eh.terminate()) return {};
  if (function.kind == DesignKind::fac) {
    std::int64_t y = 0;
    if (supplied_value(call, "y") != nullptr) {
      y = ADD_ARGUMENT_FROM_JPTR(eh, parser, call, "y", shown, block).row;
      if (eh.terminate()) return {};
      L_CHECK_SOURCE(eh, parser.factors, y, false, shown);
      if (eh.terminate()) return {};
    }
    component.row = ADD_DISTINCT_FACTOR(eh, parser, row.source, y);
    return component;
  }
  if (function.kind == DesignKind::uni && source.variable > 0 && source.kind == 0 && source.is_factor) {
    const std::int64_t levels = parser.variables.row(source.variable).levels;
    parser.info.waits_for_levels = parser.info.waits_for_levels || !parser.data_read;  // to see that the level exists
    if (parser.data_read && row.arguments.front() > static_cast<double>(levels)) {
      eh.error(text(row.arguments.front(), " is outside [0, ", levels));  // sic
      eh.continuation(text("when processing ", shown));
      return {};
    }
  }
  if (function.kind == DesignKind::spl) {
    READ_KNOTS(eh, parser, source.name, row.arguments);
    if (eh.terminate()) return {};
  }
  component.row = ADD_FACTOR_ROW(eh, parser, std::move(row));
  if (function.kind == DesignKind::dev && block == Block::random && supplied_value(call, "init") != nullptr) {
    component.structure = "idv";
    component.init = GET_VALUE_FROM_JPTR_REALS(eh, *find_argument(call, "init"), "value");
  }
  return component;
}

std::int64_t ADD_DISTINCT_FACTOR(ERROR_HANDLER& eh, MODEL_PARSER& parser, std::int64_t x, std::int64_t y)
{
  const Frame here{eh, __func__};
  FACTOR_ROW row{.name = text("fac(", parser.factors.row(x).name, y > 0 ? "," + parser.factors.row(y).name : "", ")"),
                 .kind = static_cast<std::int64_t>(DesignKind::fac),
                 .source = x,
                 .variable = parser.factors.row(x).variable,
                 .is_factor = true,
                 .second = y};
  return ADD_FACTOR_ROW(eh, parser, std::move(row));
}

}  // namespace tolvan
