// Work shared among threads, cut so that results do not depend on how many there are.
#pragma once

#include <omp.h>

#include <cstdint>

namespace tolvan {

/// Sums over many are formed in so many parts, whatever the number of threads, and added up in the order of the parts.
inline constexpr std::int64_t sum_parts = 8;

/// Calls body(k, thread) for k = 0 .. count - 1, shared among threads.
template <class Body>
void share(int threads, std::int64_t count, Body&& body)
{
  if (threads <= 1 || count <= 1) {
    for (std::int64_t k = 0; k < count; ++k) body(k, 0);
    return;
  }
#pragma omp parallel for num_threads(threads) schedule(dynamic, 1)
  for (std::int64_t k = 0; k < count; ++k) body(k, omp_get_thread_num());
}

/// Calls body(begin, end, thread) for runs of 0 .. count - 1 that have `at_once` elements each.
template <class Body>
void share_runs(int threads, std::int64_t count, std::int64_t at_once, Body&& body)
{
  share(threads, (count + at_once - 1) / at_once, [&](std::int64_t k, int thread) {
    const std::int64_t begin = k * at_once;
    body(begin, count - begin < at_once ? count : begin + at_once, thread);
  });
}

/// Calls body(part, begin, end, thread) for the sum_parts even parts of 0 .. count - 1.
template <class Body>
void share_parts(int threads, std::int64_t count, Body&& body)
{
  share(threads, sum_parts, [&](std::int64_t k, int thread) {
    body(k, k * count / sum_parts, (k + 1) * count / sum_parts, thread);
  });
}

}  // namespace tolvan
