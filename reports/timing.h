// Named timers of a run, with their table and the process log.  Routines: TMG_START, TMG_STOP, TMG_TABLE,
// TMG_LOG.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tolvan {

struct TIMER {
  std::string name, group = "DEFAULT_GROUP";
  double total = 0.0;   // wall seconds
  double inside = 0.0;  // of these, those within another timer of the default group
  std::int64_t calls = 0;
  double mark = -1.0;   // start of the running interval, below 0 when stopped
  bool nested = false;  // the running interval lies within one of another timer of the default group
};

/// Timers in order of first use; a name appears once and accumulates.
struct TIMING_STORE {
  std::vector<TIMER> timers;
  bool intermediate = false;  // write each interval as it ends
  bool process_log = false;   // keep the milestones of TMG_LOG
  std::string log_text;       // their lines
  bool log_headed = false;    // the heading of the process log stands
  double begun_wall = 0.0, begun_cpu = 0.0, last_wall = 0.0, last_cpu = 0.0;
};

/// TMG_START: marks the start of a timer.
void TMG_START(TIMING_STORE& store, std::string_view name, std::string_view group = "DEFAULT_GROUP");
/// TMG_STOP: adds the interval to the timer's total and, where asked, writes its line.
void TMG_STOP(TIMING_STORE& store, std::string_view name, std::string_view caller);
/// TMG_TABLE: the timing table as text, with the line "Other" last: the run's time outside all timers of the
/// default group. A timer over the whole run belongs in a group of its own.
std::string TMG_TABLE(const TIMING_STORE& store, std::string_view label);
/// TMG_LOG: keeps a milestone of the run with its process times when the process log is switched on.
void TMG_LOG(TIMING_STORE& store, std::string_view label);

/// A line of the process log at a moment of both clocks; empty when too little processor time has passed
/// since the last line.
std::string process_log_line(const TIMING_STORE& store, std::string_view label, double cpu, double wall);
/// The line of one interval of a timer.
std::string interval_line(const TIMER& timer, double seconds);

/// A timer that runs for the life of this object.
class Timed {
 public:
  Timed(TIMING_STORE& store, std::string_view name, std::string_view group = "DEFAULT_GROUP")
      : store_(store), name_(name)
  {
    TMG_START(store_, name_, group);
  }
  ~Timed() { TMG_STOP(store_, name_, name_); }
  Timed(const Timed&) = delete;
  Timed& operator=(const Timed&) = delete;

 private:
  TIMING_STORE& store_;
  std::string_view name_;
};

}  // namespace tolvan
