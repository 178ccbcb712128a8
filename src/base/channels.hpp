// Where a run's words go: its screen and its log. A run owns one run_log and
// hands it down; two runs in one process share nothing.
#pragma once

#include <cstdio>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/interrupt.hpp"
#include "base/run_hook.hpp"
#include "base/stop.hpp"

namespace quolvent {

// put_line: text and a line end to f in one write, so that lines of two
// threads never mix within a line; nothing when f is nullptr.
void put_line(std::FILE* f, std::string_view text);

class run_log {
 public:
  // screen: the stream the run calls its screen (standard output for the
  // program). The log is absent until open_log or adopt_log.
  explicit run_log(std::FILE* screen = stdout) : screen_(screen) {}
  run_log(const run_log&) = delete;
  run_log& operator=(const run_log&) = delete;
  ~run_log();

  // open_log: creates (or replaces) the log file at path. A log that can't
  // be created is a failure of the platform.
  void open_log(const std::string& path);
  // adopt_log: the log goes to f, which the caller keeps and closes (tests).
  void adopt_log(std::FILE* f);
  // close_log: flushes and closes (or lets go of) the log.
  void close_log();

  std::FILE* screen() const { return screen_; }
  std::FILE* log() const { return log_; }

  void say_screen(std::string_view text) const { put_line(screen_, text); }
  void say_log(std::string_view text) const { to_log(text); }
  // report: the lines to the screen, then the same lines to the log.
  void report(std::initializer_list<std::string_view> lines) const;
  // report_log: the lines to the log alone.
  void report_log(std::initializer_list<std::string_view> lines) const;
  // flush: the screen and the log on disk.
  void flush() const;

  // hold_log: from now on the log's lines are held in memory, not written:
  // the log of one part of work shared among threads, whose lines must reach
  // the run's log in the order of the parts. pass_held: the lines held so
  // far to out's log in one write (or to its own held lines; nowhere when it
  // has no log), and forgotten here.
  void hold_log() { held_.emplace(); }
  void pass_held(const run_log& out);

  // deliver: a stop's report: screen lines, log lines, error text (on
  // standard error), everything flushed.
  void deliver(const stop& s) const;

  // watch_interrupts: the run's checkpoints look at w (which outlives the
  // run_log's use); nullptr: no watch, checkpoints pass.
  void watch_interrupts(const interrupt_watch* w) { watch_ = w; }
  // check_interrupt: a checkpoint, from any thread of the run.
  // Fails: a pending interrupt is a stop naming the current phase; a stop
  // another process of the run found (the hook's).
  void check_interrupt() const {
    if (watch_) watch_->check(phase_);
    if (hook_) hook_->checkpoint();
  }
  // set_hook: the run is shared with other processes through h (which
  // outlives the run_log's use); nullptr: a run of its own.
  void set_hook(run_hook* h) { hook_ = h; }
  run_hook* hook() const { return hook_; }
  // enter_phase: a checkpoint for the phase that ends, then the phase named
  // (a literal: "init", "sens", "writing", "uncompress") begins. On the
  // thread of the run, outside the parallel regions.
  void enter_phase(const char* name) {
    check_interrupt();
    phase_ = name;
  }

 private:
  std::FILE* screen_;
  // to_log: a line for the log, written or held.
  void to_log(std::string_view text) const;

  std::FILE* log_ = nullptr;
  bool own_log_ = false;
  mutable std::optional<std::string> held_;
  const interrupt_watch* watch_ = nullptr;
  run_hook* hook_ = nullptr;
  const char* phase_ = "init";
};

}  // namespace quolvent
