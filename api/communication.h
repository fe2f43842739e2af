// An object's language and output settings and its monitor callback.  Routines: CT_.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "api/error_handler.h"

namespace tolvan {

/// The monitor of a host: result is 0 on entry; above 0 aborts, below 0 finishes.  length counts the NUL.
using MonitorFunction = void (*)(std::int32_t* result, const char* json, std::int32_t length);

/// The words and symbols of the model language, the output settings and the monitor of one object.
struct COMMUNICATION {
  std::string ADD_TERM_SYMBOL = "+";
  std::string DROP_TERM_SYMBOL = "-";
  std::string INTERACTION_SYMBOL = ":";
  std::string FACTORIAL_SYMBOL = "*";
  std::string NESTED_SYMBOL = "/";
  std::string LEVEL_SEP_SYMBOL = "_";
  std::string FUN_ARG_SEP = ",";
  std::string FUN_OPEN_BRACE = "(";
  std::string FUN_CLOSE_BRACE = ")";
  std::string VEC_VAL_SEP = ",";
  std::string VEC_OPEN_BRACE = "[";
  std::string VEC_CLOSE_BRACE = "]";
  std::string LINK_FUN_NAME = "str";
  std::string VAR_SEP_SYMBOL = "!";
  std::string VARIABLE_NAME_TRAIT = "trait";
  std::string VARIABLE_NAME_MU = "mu";
  std::string VARIABLE_NAME_MV = "mv";
  std::string VARIABLE_NAME_UNITS = "units";
  std::string VARIABLE_NAME_INVALID_SYMBOLS = ".*:/!#$|()";
  bool SA_LIKE = false;         // behave like the stand-alone program: the dialect with a blank as add symbol
  bool OUTPUT_TO_FILE = false;  // reports go to the report files
  std::int64_t run_mode = 2;    // 1 stand alone, 2 through the exports, 3 python
  MonitorFunction monitor = nullptr;
};

/// CT_SET_DIALECT: sets the symbols of the default or the stand-alone dialect.
void CT_SET_DIALECT(COMMUNICATION& communication, bool sa_like);
/// CT_REGISTER_FUNCTION: stores a callback of the one known kind, "MONITOR_FUNCTION"; null switches it off.
void CT_REGISTER_FUNCTION(ERROR_HANDLER& eh, COMMUNICATION& communication, MonitorFunction function,
                          std::string_view kind);
/// CT_MONITOR_FUNCTION: hands the JSON of one iteration to the monitor and turns its answer into messages of
/// code 8 or 9.
void CT_MONITOR_FUNCTION(ERROR_HANDLER& eh, COMMUNICATION& communication, const std::string& json);

}  // namespace tolvan
