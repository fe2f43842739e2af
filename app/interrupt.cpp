#include "app/interrupt.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <utility>

namespace tolvan::driver {
namespace {

constexpr std::chrono::seconds grace{2};

// The end of the pipe that the handler writes to.  Blocking the signal and waiting for it would not do: a
// library may have started threads before main, and the signal then goes to one of them.
std::atomic<int> bell = -1;
static_assert(std::atomic<int>::is_always_lock_free);

extern "C" void ring(int)
{
  const int saved = errno;
  const char byte = 0;
  [[maybe_unused]] const ssize_t written = write(bell.load(), &byte, 1);
  errno = saved;
}

}  // namespace

Interrupt::Interrupt(std::function<int()> last_words) : last_words_(std::move(last_words))
{
  sigaction(SIGINT, nullptr, &before_);
  if (before_.sa_handler == SIG_IGN) return;  // started so that Ctrl-C does not reach it
  if (pipe2(pipe_, O_CLOEXEC) != 0) return;
  bell.store(pipe_[1]);
  thread_ = std::thread([this] { listen(); });
  struct sigaction action = {};
  action.sa_handler = ring;
  action.sa_flags = SA_RESTART;
  sigaction(SIGINT, &action, nullptr);
  active_ = true;
}

Interrupt::~Interrupt()
{
  if (!active_) return;
  sigaction(SIGINT, &before_, nullptr);
  closing_.store(true);
  ring(SIGINT);  // wakes the thread
  thread_.join();
  close(pipe_[0]);
  close(pipe_[1]);
}

void Interrupt::work_is_done()
{
  if (!ending_.exchange(true)) return;
  for (;;) pause();  // the last words are being said
}

void Interrupt::listen()
{
  for (;;) {
    char byte = 0;
    if (read(pipe_[0], &byte, 1) < 0 && errno == EINTR) continue;
    if (closing_.load()) return;
    if (ending_.load()) _exit(128 + SIGINT);
    if (count_.fetch_add(1) == 0) {
      std::fputs("\nfinishing after this iteration; once more to stop at once\n", stderr);
      continue;
    }
    std::fputs("\nstopping\n", stderr);
    const auto until = std::chrono::steady_clock::now() + grace;
    while (!ending_.load() && !closing_.load() && std::chrono::steady_clock::now() < until) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (closing_.load()) return;
    if (!ending_.exchange(true)) {
      const int code = last_words_();
      std::fflush(nullptr);
      _exit(code);
    }
  }
}

}  // namespace tolvan::driver
