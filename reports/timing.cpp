// Named timers of a run, with their table and the process log.  Routines: TMG_START, TMG_STOP, TMG_TABLE,
// TMG_LOG.
#include "reports/timing.h"

#include <algorithm>
#include <cstdio>

#include "base/clock.h"
#include "base/text.h"

namespace tolvan {

namespace {

constexpr std::string_view default_group = "DEFAULT_GROUP";
constexpr std::string_view log_heading =
    " >> >>      Tolvan Process        CPU_time     SumCPU        Clock   SumClock";
constexpr std::string_view log_start = "Tolvan Started";
constexpr double least_cpu = 0.05;         // seconds between two lines of the process log
constexpr double most_seconds = 6000.0;    // on the clock; beyond, the log counts in minutes
constexpr double most_narrow = 9999999.0;  // the largest number of a narrow field

TIMER* find(TIMING_STORE& store, std::string_view name)
{
  for (TIMER& timer : store.timers) {
    if (timer.name == name) return &timer;
  }
  return nullptr;
}

void begin(TIMING_STORE& store, double wall, double cpu)
{
  store.begun_wall = store.last_wall = wall;
  store.begun_cpu = store.last_cpu = cpu;
}

std::string padded(std::string_view s, std::size_t width)
{
  std::string out(s);
  if (out.size() < width) out.resize(width, ' ');
  return out;
}

}  // namespace

std::string interval_line(const TIMER& timer, double seconds)
{
  return text(timer.name, " Time (", edit_f(seconds, 0, 2), ") Running Total (", edit_f(timer.total, 0, 2),
              ") ", timer.calls, " calls)");
}

void TMG_START(TIMING_STORE& store, std::string_view name, std::string_view group)
{
  const double now = wall_seconds();
  if (store.timers.empty() && store.begun_wall == 0.0) begin(store, now, cpu_seconds());
  TIMER* timer = find(store, name);
  if (timer == nullptr) {
    store.timers.push_back({.name = std::string(name), .group = std::string(group)});
    timer = &store.timers.back();
  }
  if (timer->mark >= 0.0) return;  // a timer inside itself counts once
  timer->nested = std::any_of(store.timers.begin(), store.timers.end(), [](const TIMER& other) {
    return other.mark >= 0.0 && other.group == default_group;
  });
  timer->mark = now;
}

void TMG_STOP(TIMING_STORE& store, std::string_view name, std::string_view caller)
{
  TIMER* timer = find(store, name);
  if (timer == nullptr || timer->mark < 0.0) return;
  const double seconds = wall_seconds() - timer->mark;
  timer->mark = -1.0;
  timer->total += seconds;
  if (timer->nested) timer->inside += seconds;
  ++timer->calls;
  if (!store.intermediate) return;
  const std::string by = caller == name ? "" : text(" in ", caller);
  std::printf("%s%s\n", interval_line(*timer, seconds).c_str(), by.c_str());
}

std::string TMG_TABLE(const TIMING_STORE& store, std::string_view label)
{
  constexpr std::size_t name_width = 24;
  const double now = wall_seconds();
  std::string out = text(label, '\n');
  double named = 0.0;
  for (const TIMER& timer : store.timers) {
    const double running = timer.mark < 0.0 ? 0.0 : now - timer.mark;
    const double total = timer.total + running;
    if (timer.group == default_group) named += total - timer.inside - (timer.nested ? running : 0.0);
    out +=
        text(padded(timer.name, name_width), edit_f(total, 10, 2), ' ', edit_i(timer.calls, 6), " calls)\n");
  }
  const double whole = store.begun_wall == 0.0 ? 0.0 : now - store.begun_wall;
  out += text(padded("Other", name_width), edit_f(whole - named, 10, 2), '\n');
  return out;
}

std::string process_log_line(const TIMING_STORE& store, std::string_view label, double cpu, double wall)
{
  const bool always = label.starts_with("Finish") || label.starts_with(" Itera");
  if (!always && cpu - store.last_cpu < least_cpu) return {};
  const double clock = wall - store.begun_wall;
  const bool minutes = clock > most_seconds;
  const double unit = minutes ? 60.0 : 1.0;
  const auto narrow = [unit](double seconds) { return edit_f(seconds / unit, 11, 2); };
  const int clock_width = clock / unit > most_narrow ? 14 : 11;
  return text(" >> >>", padded(label.substr(0, 20), 20), minutes ? ": min" : ": sec",
              narrow(cpu - store.last_cpu), narrow(cpu - store.begun_cpu), ' ',
              edit_f(clock / unit, clock_width, 2), narrow(wall - store.last_wall));
}

void TMG_LOG(TIMING_STORE& store, std::string_view label)
{
  const double wall = wall_seconds(), cpu = cpu_seconds();
  if (label == log_start) {
    begin(store, wall, cpu);
    return;
  }
  if (!store.process_log) return;
  if (!store.log_headed) store.log_text += text(log_heading, '\n');
  store.log_headed = true;
  const std::string line = process_log_line(store, label, cpu, wall);
  if (line.empty()) return;
  store.log_text += text(line, '\n');
  store.last_wall = wall;
  store.last_cpu = cpu;
}

}  // namespace tolvan
