// Time and memory of a benchmark.
#pragma once

#include <sys/resource.h>

#include <algorithm>
#include <limits>

#include "base/clock.h"

namespace tolvan {

/// The least seconds of several rounds of some work: of the processor on one thread, of the wall clock on more.
template <class Work>
double least_seconds(int rounds, int threads, Work&& work)
{
  const auto now = [threads] { return threads == 1 ? cpu_seconds() : wall_seconds(); };
  double least = std::numeric_limits<double>::max();
  for (int k = 0; k < rounds; ++k) {
    const double start = now();
    work();
    least = std::min(least, now() - start);
  }
  return least;
}

template <class Work>
double least_seconds(int rounds, Work&& work)
{
  return least_seconds(rounds, 1, work);
}

/// The most memory that this process has had so far.
inline double peak_megabytes()
{
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

}  // namespace tolvan
