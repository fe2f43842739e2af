// How a user stops a run from outside.  Routine: CHECK_FOR_USER_ABORT.
#include "reports/user_abort.h"

#include <unistd.h>

namespace tolvan {

namespace {

constexpr const char* abort_file = "ABORTTLV.NOW";
constexpr const char* final_file = "FINALTLV.NOW";

bool exists(const char* name)
{
  return access(name, F_OK) == 0;
}

}  // namespace

std::int64_t CHECK_FOR_USER_ABORT(ERROR_HANDLER& eh)
{
  const Frame here{eh, __func__};
  for (const ERROR_MESSAGE& message : eh.messages()) {
    if (message.etype == Etype::user) return static_cast<std::int64_t>(message.ecode);
  }
  if (exists(abort_file)) {
    unlink(abort_file);
    eh.EH_ADD_MESSAGE({.text = "User sent an abort code", .ecode = Ecode::user_abort});
    return static_cast<std::int64_t>(Ecode::user_abort);
  }
  if (exists(final_file)) {
    unlink(final_file);
    eh.EH_ADD_MESSAGE({.text = "User sent a finish code", .ecode = Ecode::user_finish});
    return static_cast<std::int64_t>(Ecode::user_finish);
  }
  return not_given;
}

bool abort_file_exists()
{
  return exists(abort_file);
}

}  // namespace tolvan
