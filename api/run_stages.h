// The stages of a run, as a table.  Each does one named step on the run's CORE_DATA.
#pragma once

#include <span>
#include <string_view>

#include "api/core_data.h"
#include "api/error_handler.h"

namespace tolvan {

struct Stage {
  std::string_view name;  // as the timing table calls it
  bool timed;
  bool in_preprocess;  // also runs when the request asks for the set-up alone
  void (*run)(ERROR_HANDLER& eh, CORE_DATA& core);
};

/// All stages in their order.  A stage whose work is not built does nothing, unless the request asks for that
/// work: then it raises a terminating message of code 4 that names the key.
std::span<const Stage> run_stages();

}  // namespace tolvan
