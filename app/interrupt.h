// Ctrl-C while a fit runs: the first finishes after this iteration, the second stops.
#pragma once

#include <signal.h>

#include <atomic>
#include <functional>
#include <thread>

namespace tolvan::driver {

/// While it lives SIGINT is counted by a thread of its own.  One at a time: a signal handler knows no object.
class Interrupt {
 public:
  /// last_words is called, from that thread, when a second SIGINT is not obeyed within the grace time; the
  /// process ends with its result as exit code.
  explicit Interrupt(std::function<int()> last_words);
  ~Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

  int count() const { return count_.load(); }
  /// To be called before results are written: from here on a SIGINT ends the process as usual.
  void work_is_done();

 private:
  void listen();
  std::function<int()> last_words_;
  std::atomic<int> count_{0};
  std::atomic<bool> ending_{false};  // who sets it writes the results: the caller, or last_words
  std::atomic<bool> closing_{false};
  bool active_ = false;
  int pipe_[2] = {-1, -1};
  struct sigaction before_ = {};
  std::thread thread_;
};

}  // namespace tolvan::driver
