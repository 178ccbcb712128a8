// Stops: every way a run ends before its normal end. A stop is an exception
// that carries its own report; the entry of the run catches it, writes the
// report (screen first, then log, then the error stream) and ends the run
// with the stop's exit status. Nothing below the entry ends the process.
#pragma once

#include <cstdint>
#include <exception>
#include <initializer_list>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace quolvent {

// stop_kind: what ended the run, for a caller that acts on it: none (a
// normal end before the pipeline: the usage text, the sample), file (an
// input file missing, or not readable as its format says), input (inputs
// read but refused), memory, output (an output that can't be written),
// interrupted (a signal), internal (a consistency check).
enum class stop_kind { none, file, input, memory, output, interrupted, internal };

// stop_kind_name: the kind as one lower-case word ("none", "file", ...).
const char* stop_kind_name(stop_kind kind);

class stop : public std::exception {
 public:
  // Lines for the screen, lines for the log, and a text for the error stream
  // (empty: none). A reported failure has the same lines on screen and log.
  std::vector<std::string> screen_lines;
  std::vector<std::string> log_lines;
  std::string error_text;
  // The exit status of the process: 0 for every reported stop, 1 for an
  // output the run can't write, 128 + N for a run interrupted by signal N.
  int status = 0;
  stop_kind kind = stop_kind::input;

  const char* what() const noexcept override;
};

// stop_plain: a stop with no further output (the report, if any, was written
// before it).
[[noreturn]] void stop_plain();
// stop_report: the lines to the screen and then to the log, then a stop.
[[noreturn]] void stop_report(std::initializer_list<std::string_view> lines);
// stop_reading: as stop_report, for an input file that can't be read as
// its format says.
[[noreturn]] void stop_reading(std::initializer_list<std::string_view> lines);
// stop_report_log: the lines to the log alone, then a stop.
[[noreturn]] void stop_report_log(std::initializer_list<std::string_view> lines);
// stop_text: an internal consistency check failed: its short text on the
// error stream (not the log), then a stop.
[[noreturn]] void stop_text(std::string_view text);
// file_not_found: empty line, " ERROR: <label> file not found: <name>" (label
// and name with trailing blanks cut) to screen and log, then a stop.
[[noreturn]] void file_not_found(std::string_view label, std::string_view name);
// alloc_failed: empty line, "Memory allocation error in: <name>", empty line
// to screen and log, then a stop.
[[noreturn]] void alloc_failed(std::string_view name);
// platform_failure: a file the run must write can't be created or written:
// "quolvent: <text>" on the error stream, exit status 1.
[[noreturn]] void platform_failure(std::string_view text);
// cannot_write: an output can't be created, written or put in place: empty
// line, "ERROR: cannot write <name>: <the system's reason for err>", a line
// saying that an earlier file of that name is left as it was, empty line, to
// screen and log; exit status 1.
[[noreturn]] void cannot_write(std::string_view name, int err);

// assign_or_stop: v holds count copies of value, or the allocation stop with
// name when the memory can't be had.
template <typename V>
void assign_or_stop(V& v, std::size_t count, const typename V::value_type& value,
                    std::string_view name) {
  try {
    v.assign(count, value);
  } catch (const std::bad_alloc&) {
    alloc_failed(name);
  } catch (const std::length_error&) {
    alloc_failed(name);
  }
}

}  // namespace quolvent
