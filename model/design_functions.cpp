// Design functions: calls that make a factor or covariates of their own.
// Routines: ADD_DESIGN_FUNCTION, ADD_DEFINED_FACTOR, ADD_DISTINCT_FACTOR.
#include "model/design_functions.h"

#include <algorithm>

#include "base/text.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

constexpr std::string_view names[] = {"lin", "con", "pol", "leg", "pow", "spl", "dev", "fac",
                                      "and", "uni", "zero", "grp", "vect"};

constexpr std::int64_t kind_fac = 6;

}  // namespace

bool is_design_function(std::string_view name)
{
  return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

COMPONENT ADD_DESIGN_FUNCTION(ERROR_HANDLER& eh, MODEL_PARSER&, const JsonNode& node, const std::string& shown, Block)
{
  const Frame here{eh, __func__};
  eh.not_implemented(text("the model function ", function_name(*node.find("function")), "() in term ", shown,
                          " is not implemented yet"));
  return {};
}

std::int64_t ADD_DEFINED_FACTOR(ERROR_HANDLER& eh, MODEL_PARSER&, const std::string&)
{
  const Frame here{eh, __func__};
  return 0;
}

std::int64_t ADD_DISTINCT_FACTOR(ERROR_HANDLER& eh, MODEL_PARSER& parser, std::int64_t x, std::int64_t y)
{
  const Frame here{eh, __func__};
  FACTOR_ROW row{.name = text("fac(", parser.factors.row(x).name, y > 0 ? "," + parser.factors.row(y).name : "", ")"),
                 .kind = kind_fac,
                 .source = x,
                 .variable = parser.factors.row(x).variable,
                 .is_factor = true,
                 .second = y};
  return ADD_FACTOR_ROW(eh, parser, std::move(row));
}

}  // namespace tolvan
