// The report of a fit on standard output: trace, variance components, fixed effects, summary.
#pragma once

#include <string>

#include "app/engine.h"

namespace tolvan::driver {

/// Prints what tables there are; after a failure that may be the trace alone.
void print_report(Engine& engine, const std::string& title);

/// Prints the one document of --json: status, final_message, scalars, tables, error_information.
///   engine   null where the run ended before there was one
void print_json_report(Engine* engine, std::int32_t status, const std::string& final_message,
                       const std::string& error_information);

}  // namespace tolvan::driver
