#include "app/progress.h"

#include <cstdio>

#include "app/json_value.h"
#include "app/terminal.h"
#include "app/text_table.h"

namespace tolvan::driver {
namespace {

Progress* current = nullptr;

}  // namespace

Progress::Progress(bool shown, const Interrupt& interrupt)
    : shown_(shown),
      rewritten_(is_terminal(stderr)),
      interrupt_(interrupt),
      start_(std::chrono::steady_clock::now())
{
  current = this;
}

Progress::~Progress()
{
  current = nullptr;
}

void Progress::monitor(std::int32_t* result, const char* json, std::int32_t length)
{
  if (!current) return;
  if (current->shown_ && length > 0) current->iteration({json, static_cast<std::size_t>(length) - 1});
  const int interrupts = current->interrupt_.count();
  *result = interrupts == 0 ? 0 : interrupts == 1 ? -1 : 1;
}

void Progress::iteration(std::string_view json)
{
  const auto document = read_json(json);
  if (!document) return;
  const auto number = [&](std::string_view key) {
    const Json* item = document->find(key);
    return item ? item->number() : 0.0;
  };
  const double loglik = number("logl");
  const bool failed = loglik == TOLVAN_MISSING;
  const std::string change = last_loglik_ && !failed ? number_cell(loglik - *last_loglik_, 5) : "";
  if (!failed) last_loglik_ = loglik;
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start_;
  char line[160];
  // Exactly 1 where the model has no one residual variance.
  char residual[40] = "";
  if (number("sigma2") != 1.0 && !failed) std::snprintf(residual, sizeof residual, "   residual %#12.6g", number("sigma2"));
  std::snprintf(line, sizeof line, "iteration %3.0f   LogL %14s   change %12s%s   %.1f s", number("iteration"),
                failed ? "not formed" : number_cell(loglik, 5).c_str(), change.c_str(), residual, elapsed.count());
  std::string text = line;
  if (!rewritten_) {
    std::fprintf(stderr, "%s\n", text.c_str());
    return;
  }
  const std::size_t length = text.size();
  if (length < width_) text.append(width_ - length, ' ');
  width_ = length;
  std::fprintf(stderr, "\r%s", text.c_str());
  std::fflush(stderr);
}

void Progress::finish()
{
  if (rewritten_ && width_ > 0) std::fputc('\n', stderr);
  width_ = 0;
}

}  // namespace tolvan::driver
