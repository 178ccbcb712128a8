// Phase timing, the banner and the time stamps of a run.
#pragma once

#include <cstdio>
#include <string>

namespace quolvent {

// phase_clock: the start of a run and the end of its last phase.
struct phase_clock {
  double t_start = 0.0;
  double t_last = 0.0;

  // phase_timer: mode 0 starts the clock and prints nothing; mode 1 prints
  // the time since the last call, mode -1 the time since the start, other
  // modes 0. The line ("      init cpu time:   0:01:23.25") goes to `unit`,
  // then to `log` when that is not nullptr. The time is wall-clock time of
  // the local calendar.
  // Returns: the span shown (0 for mode 0).
  // Fails: never.
  double phase_timer(const std::string& label, int mode, std::FILE* unit, std::FILE* log);
};

// print_banner: the thread count, the line after_threads when it is not
// empty, the too-many-threads warning and the version lines, to `target`.
void print_banner(const std::string& name, std::FILE* target,
                  const std::string& after_threads = "");

// print_timestamp: an empty line, the message and the local date and time
// ("QUOLVENT started on:  6/09/2013  14:05:09"), an empty line, to `target`.
void print_timestamp(const std::string& message, std::FILE* target);

// local_seconds: seconds since the start of the year of the local calendar
// clock, counting every February as 28 days, with milliseconds.
double local_seconds();

// timer_line: the text of one timer line for a span of s seconds.
std::string timer_line(const std::string& label, double s);

}  // namespace quolvent
