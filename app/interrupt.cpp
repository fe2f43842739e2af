#include "app/interrupt.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <utility>

namespace tolvan::driver {
namespace {

constexpr std::chrono::seconds grace{2};

sigset_t only_sigint()
{
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  return set;
}

}  // namespace

Interrupt::Interrupt(std::function<int()> last_words) : last_words_(std::move(last_words))
{
  struct sigaction present {};
  sigaction(SIGINT, nullptr, &present);
  if (present.sa_handler == SIG_IGN) return;  // started so that Ctrl-C does not reach it
  const sigset_t set = only_sigint();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  active_ = true;
  thread_ = std::thread([this] { listen(); });
}

Interrupt::~Interrupt()
{
  if (!active_) return;
  closing_.store(true);
  pthread_kill(thread_.native_handle(), SIGINT);
  thread_.join();
  const sigset_t set = only_sigint();
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void Interrupt::listen()
{
  const sigset_t set = only_sigint();
  for (;;) {
    int signal = 0;
    sigwait(&set, &signal);
    if (closing_.load()) return;
    if (done_.load()) _exit(128 + SIGINT);
    if (count_.fetch_add(1) == 0) {
      std::fputs("\nfinishing after this iteration; once more to stop at once\n", stderr);
      continue;
    }
    std::fputs("\nstopping\n", stderr);
    const auto until = std::chrono::steady_clock::now() + grace;
    while (!done_.load() && !closing_.load() && std::chrono::steady_clock::now() < until) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (closing_.load()) return;
    if (!done_.load()) {
      const int code = last_words_();
      std::fflush(nullptr);
      _exit(code);
    }
  }
}

}  // namespace tolvan::driver
