// What the user sees while a fit runs: a line an iteration, rewritten in place on a terminal.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "app/engine.h"
#include "app/interrupt.h"

namespace tolvan::driver {

/// The engine's monitor.  One at a time: the engine's callback carries no pointer to its host's state.
class Progress {
 public:
  Progress(bool shown, const Interrupt& interrupt);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// What to register with the engine.
  static void monitor(std::int32_t* result, const char* json, std::int32_t length);
  void finish();  // ends a rewritten line

 private:
  void iteration(std::string_view json);
  bool shown_;
  bool rewritten_;
  const Interrupt& interrupt_;
  std::chrono::steady_clock::time_point start_;
  std::optional<double> last_loglik_;
  std::size_t width_ = 0;  // of the line that stands on the terminal
};

}  // namespace tolvan::driver
