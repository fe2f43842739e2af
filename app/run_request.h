// Handing a request with its data to the engine.
#pragma once

#include <cstdint>
#include <string_view>

#include "app/engine.h"
#include "app/messages.h"
#include "app/request.h"

namespace tolvan::driver {

/// Feeds the engine and runs it; the status of the call that ended the run.
///   last      a document for the process call, or nothing
///   monitor   null for none
std::int32_t run_request(Engine& engine, const Request& request, std::string_view last,
                         ctlv_monitor_function monitor, Messages& messages);

}  // namespace tolvan::driver
