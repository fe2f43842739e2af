// Ctrl-C while a fit runs: the first finishes after this iteration, the second stops.
#pragma once

#include <atomic>
#include <functional>
#include <thread>

namespace tolvan::driver {

/// While it lives SIGINT is taken by a thread of its own.  Must be made before any other thread is, so that
/// all of them leave the signal alone.
class Interrupt {
 public:
  /// last_words is called, from that thread, when a second SIGINT is not obeyed within the grace time; the
  /// process ends with its result as exit code.
  explicit Interrupt(std::function<int()> last_words);
  ~Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

  int count() const { return count_.load(); }
  void work_is_done() { done_.store(true); }  // from here on a second SIGINT ends the process as usual

 private:
  void listen();
  std::function<int()> last_words_;
  std::atomic<int> count_{0};
  std::atomic<bool> done_{false};
  std::atomic<bool> closing_{false};
  bool active_ = false;
  std::thread thread_;
};

}  // namespace tolvan::driver
