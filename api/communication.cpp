// CT_SET_DIALECT, CT_REGISTER_FUNCTION, CT_MONITOR_FUNCTION.
#include "api/communication.h"

#include <cstdio>
#include <limits>

#include "base/text.h"

namespace tolvan {

void CT_SET_DIALECT(COMMUNICATION& communication, bool sa_like)
{
  communication.SA_LIKE = sa_like;
  communication.ADD_TERM_SYMBOL = sa_like ? " " : "+";
  communication.INTERACTION_SYMBOL = sa_like ? "." : ":";
  communication.VARIABLE_NAME_TRAIT = sa_like ? "Trait" : "trait";
  communication.VARIABLE_NAME_INVALID_SYMBOLS = sa_like ? ".*:/!#$|(" : ".*:/!#$|()";
}

void CT_REGISTER_FUNCTION(ERROR_HANDLER& eh, COMMUNICATION& communication, MonitorFunction function,
                          std::string_view kind)
{
  const Frame here{eh, __func__};
  if (upper(rtrim(kind)) != "MONITOR_FUNCTION") {
    eh.error(text(kind, " is an unknown function type"), Ecode::invalid_syntax);
    return;
  }
  communication.monitor = function;
}

void CT_MONITOR_FUNCTION(ERROR_HANDLER& eh, COMMUNICATION& communication, const std::string& json)
{
  const Frame here{eh, __func__};
  if (communication.monitor == nullptr) {
    if (communication.run_mode == 1 && !json.empty()) std::printf("%s\n", json.c_str());
    return;
  }
  if (json.size() >= static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
    eh.warning("the state of this iteration is too long for the monitor function, which was not called");
    return;
  }
  std::int32_t result = 0;
  communication.monitor(&result, json.c_str(), static_cast<std::int32_t>(json.size()) + 1);
  if (result > 0) eh.EH_ADD_MESSAGE({.ecode = Ecode::user_abort, .iv = result});
  // A monitor that goes on asking to finish leaves one message, not one an iteration.
  if (result < 0) eh.EH_ADD_MESSAGE({.ecode = Ecode::user_finish, .iv = result, .unique = true});
}

}  // namespace tolvan
