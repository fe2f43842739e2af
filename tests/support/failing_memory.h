// Memory that fails on purpose, and a count of the bytes in use.  The test programs replace operator new for
// it.
#pragma once

#include <cstdint>

namespace tolvan {

/// Lets `good` allocations of this thread pass and fails all that follow, until the guard ends.
class FailingMemory {
 public:
  /// once: only the one allocation after the good ones fails.
  explicit FailingMemory(std::int64_t good, bool once = false);
  ~FailingMemory();
  FailingMemory(const FailingMemory&) = delete;
  FailingMemory& operator=(const FailingMemory&) = delete;
  /// Whether an allocation was made to fail since the guard began.
  bool struck() const;
};

/// Bytes that operator new has handed out and not got back, over all threads.
std::int64_t bytes_in_use();
/// The most bytes in use since the last call of reset_peak_bytes.
std::int64_t peak_bytes();
void reset_peak_bytes();

}  // namespace tolvan
