// tolvan check: reads a request and its data, tells what they hold, and fits nothing.
#pragma once

#include <string>

#include "app/engine.h"
#include "app/fit.h"

namespace tolvan::driver {

/// Runs the check; gives the exit code.
///   standard_json   prints the request in its standard form in place of the report
int check(const FitArguments& arguments, bool standard_json);

/// Prints what a run that fitted nothing tells: data, levels, terms.  After a failure that may be a part of
/// it.
///   all_levels   also of factors with many
void print_check_report(Engine& engine, const std::string& title, bool all_levels);

}  // namespace tolvan::driver
