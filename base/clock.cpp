#include "base/clock.h"

#include <sched.h>
#include <time.h>

#include <algorithm>
#include <thread>

namespace tolvan {

namespace {

double seconds_of(clockid_t clock)
{
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

}  // namespace

double wall_seconds()
{
  return seconds_of(CLOCK_MONOTONIC);
}

double cpu_seconds()
{
  return seconds_of(CLOCK_PROCESS_CPUTIME_ID);
}

int processor_threads()
{
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof set, &set) == 0) return std::max(1, CPU_COUNT(&set));
  return std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
}

std::string local_time(const char* format)
{
  const time_t now = time(nullptr);
  tm parts{};
  char buffer[128];
  if (localtime_r(&now, &parts) == nullptr) return {};
  return std::string(buffer, strftime(buffer, sizeof buffer, format, &parts));
}

}  // namespace tolvan
