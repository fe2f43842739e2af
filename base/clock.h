// Clocks and processor threads.
#pragma once

#include <string>

namespace tolvan {

/// Seconds of the wall clock since some fixed moment; never runs backwards.
double wall_seconds();
/// Seconds of processor time that all threads of this process have used.
double cpu_seconds();
/// The processor threads this process may run on, at least 1.
int processor_threads();
/// The local date and time by a strftime format.
std::string local_time(const char* format = "%d %b %Y %H:%M:%S");

}  // namespace tolvan
