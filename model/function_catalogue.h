// The vocabulary of model functions: their arguments, types and defaults, and where each may stand.
// Routines: MFT_ (function), MAT_ (argument), GET_MODEL_FUNCTION_INFO, CHECK_FUNCTION_PLACE,
// GET_FUNCTION_ARGUMENT_FROM_JPTR.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "api/communication.h"
#include "api/error_handler.h"
#include "base/json.h"

namespace tolvan {

/// What an argument holds; the numbers are those of the column types.
enum class ArgType : std::int64_t {
  term = 0,  // a term, a variable's name, a formula, or whatever the function reads by itself
  integer = 1,
  real = 2,
  string = 3,
  logical = 4,
};

/// One argument of a model function.
struct MODEL_ARG_INFO {
  std::string_view NAME;
  ArgType TYPE = ArgType::term;
  std::int64_t NDIM = 0;  // 0 a scalar, 1 a vector
  bool REQUIRED = true;
  bool HAS_DEFAULT = false;
  bool DROP_FROM_FACNAME = false;  // left out of generated factor names
  std::string_view PAIRED = {};    // the argument that this one goes with
  // The default, in the field that TYPE selects; a real vector has two elements.
  double RVAL = 0.0, RVAL2 = 0.0;
  std::int64_t IVAL = 0;
  bool LVAL = false;
  std::string_view SVAL = {};
};

/// Where a function may stand.
enum class Where { not_response, fixed_only, random_only, all_parts };

/// One model function.
struct MODEL_FUN_INFO {
  std::string_view NAME;  // empty: no such function
  std::span<const MODEL_ARG_INFO> ARGS;
  Where WHERE = Where::not_response;
  bool IN_FUN = true;    // may be an argument of another function
  bool IN_INTER = true;  // may stand inside an interaction

  std::int64_t NARGS() const { return static_cast<std::int64_t>(ARGS.size()); }
  /// NARGS_REQUIRED: how many of the arguments a call has to supply.
  std::int64_t NARGS_REQUIRED() const;
  bool legal_in(std::string_view part) const;
};

/// All records, in the order of the catalogue.
std::span<const MODEL_FUN_INFO> model_functions();

/// GET_MODEL_FUNCTION_INFO: the record of a name, compared exactly; an empty record when there is none.
MODEL_FUN_INFO GET_MODEL_FUNCTION_INFO(ERROR_HANDLER& eh, std::string_view name);

/// CHECK_FUNCTION_PLACE: complains when a function is unknown or may not stand where it does.
void CHECK_FUNCTION_PLACE(ERROR_HANDLER& eh, const MODEL_FUN_INFO& info, std::string_view function,
                          std::string_view part, bool in_function, bool in_interaction);

/// MAT_VALIDATE: checks a value against the type and shape of its argument.
///   node   the value, or the argument node that holds it under "value"
void MAT_VALIDATE(ERROR_HANDLER& eh, const COMMUNICATION& communication, const MODEL_ARG_INFO& argument,
                  const JsonNode& node, std::string_view function);

/// MAT_DEFAULT: adds the value of an argument that nobody supplied to its node.
void MAT_DEFAULT(ERROR_HANDLER& eh, const MODEL_ARG_INFO& argument, JsonNode& node);

/// GET_FUNCTION_ARGUMENT_FROM_JPTR: reads an integer argument by its name.
void GET_FUNCTION_ARGUMENT_FROM_JPTR(ERROR_HANDLER& eh, const JsonNode& function, std::string_view name,
                                     std::int64_t& value);
/// GET_FUNCTION_ARGUMENT_FROM_JPTR: reads a numeric argument by its name.
void GET_FUNCTION_ARGUMENT_FROM_JPTR(ERROR_HANDLER& eh, const JsonNode& function, std::string_view name,
                                     double& value);

}  // namespace tolvan
