// The table of model functions.  A row a function; functions with the same arguments share their list.
#include "model/function_catalogue.h"

#include <algorithm>
#include <array>

#include "base/text.h"

namespace tolvan {

namespace {

constexpr MODEL_ARG_INFO needed(std::string_view name, ArgType type = ArgType::term)
{
  return {.NAME = name, .TYPE = type};
}
constexpr MODEL_ARG_INFO optional(std::string_view name, ArgType type = ArgType::term, std::int64_t ndim = 0)
{
  return {.NAME = name, .TYPE = type, .NDIM = ndim, .REQUIRED = false};
}
constexpr MODEL_ARG_INFO unnamed(MODEL_ARG_INFO argument)
{
  argument.DROP_FROM_FACNAME = true;
  return argument;
}
constexpr MODEL_ARG_INFO integer(std::string_view name, std::int64_t value)
{
  return {.NAME = name, .TYPE = ArgType::integer, .REQUIRED = false, .HAS_DEFAULT = true, .IVAL = value};
}
constexpr MODEL_ARG_INFO real(std::string_view name, double value)
{
  return {.NAME = name, .TYPE = ArgType::real, .REQUIRED = false, .HAS_DEFAULT = true, .RVAL = value};
}
constexpr MODEL_ARG_INFO logical(std::string_view name, bool value)
{
  return {.NAME = name, .TYPE = ArgType::logical, .REQUIRED = false, .HAS_DEFAULT = true, .LVAL = value};
}
constexpr MODEL_ARG_INFO string(std::string_view name, std::string_view value)
{
  return {.NAME = name, .TYPE = ArgType::string, .REQUIRED = false, .HAS_DEFAULT = true, .SVAL = value};
}

constexpr MODEL_ARG_INFO factor = needed("variable_name");
constexpr MODEL_ARG_INFO init = optional("init", ArgType::real, 1);
constexpr MODEL_ARG_INFO init_scalar = optional("init", ArgType::real);
constexpr MODEL_ARG_INFO dist = unnamed(optional("dist"));
constexpr MODEL_ARG_INFO x = needed("x");
constexpr MODEL_ARG_INFO y = {.NAME = "y", .PAIRED = "x"};
constexpr MODEL_ARG_INFO init_ric = {.NAME = "init",
                                     .TYPE = ArgType::real,
                                     .NDIM = 1,
                                     .REQUIRED = false,
                                     .HAS_DEFAULT = true,
                                     .RVAL = 0.2,
                                     .RVAL2 = 0.1};

// clang-format off
constexpr std::array one        {factor};
constexpr std::array with_init  {factor, init};
constexpr std::array power      {factor, real("p", 1.0), real("offset", 0.0)};
constexpr std::array polynomial {factor, integer("t", 1)};
constexpr std::array spline     {factor, integer("k", 0)};
constexpr std::array deviation  {factor, unnamed(init)};
constexpr std::array at_levels  {factor, optional("lvls", ArgType::term, 1)};
constexpr std::array as_factor  {x, optional("y")};
constexpr std::array and_times  {factor, real("times", 1.0)};
constexpr std::array banded     {factor, integer("b", 1), init_scalar};
constexpr std::array banded_h   {factor, integer("b", 1), init};
constexpr std::array ordered    {factor, integer("k", 1), init_scalar};
constexpr std::array loadings   {factor, needed("k"), init};
constexpr std::array distance   {x, init, dist};
constexpr std::array plane      {x, y, init};
constexpr std::array matern     {x, y, optional("phi", ArgType::real), real("nu", 0.5), real("delta", 1.0),
                                 real("alpha", 0.0), integer("lambda", 2)};
constexpr std::array matern_vh  {x, y, optional("phi", ArgType::real), real("nu", 0.5), real("delta", 1.0),
                                 real("alpha", 0.0), integer("lambda", 2), real("init", 0.1)};
constexpr std::array linked     {needed("form", ArgType::string), needed("vmodel", ArgType::string)};
constexpr std::array known      {factor, needed("source"), string("singG", "PD"), logical("invert", false), real("ldet", 0.0)};
constexpr std::array identity   {factor, needed("source")};
constexpr std::array intercepts {factor, needed("source"), string("singG", "PD"), init_ric};
constexpr std::array null_eqs   {needed("k", ArgType::integer)};
constexpr std::array sections   {needed("model", ArgType::string), needed("cond", ArgType::string), optional("levels")};
constexpr std::array records    {factor, integer("k", 0), optional("n", ArgType::integer)};

constexpr MODEL_FUN_INFO functions[] = {
    {"vect",   one},        {"con",    one},        {"lin",    one},        {"grp",    one},
    {"id",     one},
    {"offset", one,        Where::fixed_only, false, false},
    {"pow",    power},
    {"pol",    polynomial}, {"leg",    polynomial},
    {"spl",    spline},
    {"dev",    deviation},  {"mthr",   deviation},
    {"at",     at_levels,  Where::all_parts},
    {"sat",    at_levels},
    {"fac",    as_factor},
    {"and",    and_times},
    {"idv",    with_init},  {"idh",    with_init},
    {"ar1",    with_init},  {"ar1v",   with_init},  {"ar1h",   with_init},
    {"ar2",    with_init},  {"ar2v",   with_init},  {"ar2h",   with_init},
    {"ar3",    with_init},  {"ar3v",   with_init},  {"ar3h",   with_init},
    {"sar",    with_init},  {"sarv",   with_init},  {"sarh",   with_init},
    {"sar2",   with_init},  {"sar2v",  with_init},  {"sar2h",  with_init},
    {"ma1",    with_init},  {"ma1v",   with_init},  {"ma1h",   with_init},
    {"ma2",    with_init},  {"ma2v",   with_init},  {"ma2h",   with_init},
    {"arma",   with_init},  {"armav",  with_init},  {"armah",  with_init},
    {"cor",    with_init},  {"corv",   with_init},  {"corh",   with_init},
    {"corg",   with_init},  {"corgv",  with_init},  {"corgh",  with_init},
    {"diag",   with_init},  {"us",     with_init},
    {"corb",   banded},     {"corbv",  banded},
    {"corbh",  banded_h},
    {"chol",   ordered},    {"cholc",  ordered},    {"ante",   ordered},
    {"sfa",    ordered},    {"facv",   ordered},
    {"fa",     loadings},   {"rr",     loadings},
    {"exp",    distance},   {"expv",   distance},   {"exph",   distance},
    {"gau",    distance},   {"gauv",   distance},   {"gauh",   distance},
    {"lvr",    distance},   {"lvrv",   distance},   {"lvrh",   distance},
    {"iexp",   plane},      {"iexpv",  plane},      {"iexph",  plane},
    {"aexp",   plane},      {"aexpv",  plane},      {"aexph",  plane},
    {"igau",   plane},      {"igauv",  plane},      {"igauh",  plane},
    {"agau",   plane},      {"agauv",  plane},      {"agauh",  plane},
    {"ieuc",   plane},      {"ieucv",  plane},      {"ieuch",  plane},
    {"ilv",    plane},      {"ilvv",   plane},      {"ilvh",   plane},
    {"sph",    plane},      {"sphv",   plane},      {"sphh",   plane},
    {"cir",    plane},      {"cirv",   plane},      {"cirh",   plane},
    {"mtrn",   matern},
    {"mtrnv",  matern_vh},  {"mtrnh",  matern_vh},
    {"str",    linked},
    {"vm",     known,      Where::random_only},
    {"ide",    identity},
    {"ric",    intercepts},
    {"zero",   null_eqs},
    {"dsum",   sections},
    {"uni",    records},
};
// clang-format on

constexpr bool names_are_unique()
{
  for (std::size_t i = 0; i < std::size(functions); ++i)
    for (std::size_t j = 0; j < i; ++j)
      if (functions[i].NAME == functions[j].NAME) return false;
  return true;
}

/// Every paired argument finds its partner, and no partner is taken twice.
constexpr bool pairs_are_resolved()
{
  for (const MODEL_FUN_INFO& f : functions) {
    for (const MODEL_ARG_INFO& a : f.ARGS) {
      if (a.PAIRED.empty()) continue;
      int partners = 0, takers = 0;
      for (const MODEL_ARG_INFO& b : f.ARGS) {
        partners += b.NAME == a.PAIRED;
        takers += b.PAIRED == a.PAIRED;
      }
      if (partners != 1 || takers != 1) return false;
    }
  }
  return true;
}

static_assert(std::size(functions) == 103);
static_assert(names_are_unique());
static_assert(pairs_are_resolved());

}  // namespace

std::int64_t MODEL_FUN_INFO::NARGS_REQUIRED() const
{
  return std::count_if(ARGS.begin(), ARGS.end(),
                       [](const MODEL_ARG_INFO& a) { return a.REQUIRED && !a.HAS_DEFAULT; });
}

bool MODEL_FUN_INFO::legal_in(std::string_view part) const
{
  switch (WHERE) {
    case Where::not_response:
      return part != "response";
    case Where::fixed_only:
      return part == "fixed";
    case Where::random_only:
      return part == "random";
    case Where::all_parts:
      break;
  }
  return part == "fixed" || part == "random" || part == "sparse" || part == "response" || part == "residual";
}

std::span<const MODEL_FUN_INFO> model_functions()
{
  return functions;
}

MODEL_FUN_INFO GET_MODEL_FUNCTION_INFO(ERROR_HANDLER& eh, std::string_view name)
{
  const Frame here{eh, __func__};
  for (const MODEL_FUN_INFO& f : functions)
    if (f.NAME == name) return f;
  return {};
}

void CHECK_FUNCTION_PLACE(ERROR_HANDLER& eh, const MODEL_FUN_INFO& info, std::string_view function,
                          std::string_view part, bool in_function, bool in_interaction)
{
  const Frame here{eh, __func__};
  if (info.NAME.empty()) {
    eh.error(text(function, " is not a recognised model function"));
    if (!GET_MODEL_FUNCTION_INFO(eh, lower(function)).NAME.empty()) eh.continuation("model functions are all lower case!");
  } else if (!info.legal_in(part)) {
    eh.error(text(function, " is not valid in the ", part, " part of the model"));
  } else if (in_function && !info.IN_FUN) {
    eh.error(text(function, " can not be used as an argument to a function call"));
  } else if (in_interaction && !info.IN_INTER) {
    eh.error(text(function, " can not be used as part of an interaction"));
  }
}

}  // namespace tolvan
