// The percent line of a row loop on the screen: "  0  5 10 ... 95 100.".
#pragma once

#include <cstdint>
#include <cstdio>
#include <mutex>

#include "base/channels.hpp"
#include "base/run_hook.hpp"

namespace quolvent {

class progress_line {
 public:
  // screen: where the line goes; total: the rows of the loop; hook: the
  // processes that share the loop (nullptr: this one alone), whose rows the
  // line counts too; log: this process's log, where the rows' own lines go.
  progress_line(std::FILE* screen, int32_t total, run_hook* hook = nullptr,
                std::FILE* log = nullptr);
  // The line of a loop of the run out (its screen, its hook, its log).
  progress_line(const run_log& out, int32_t total)
      : progress_line(out.screen(), total, out.hook(), out.log()) {}
  // row_done: one more row finished here; the steps of the line that the
  // rows finished so far reach. Safe from any thread of the loop.
  void row_done();
  // finish: after this process's rows, all done: waits for the rows of the
  // other processes, the line going on as they come (nothing without a hook).
  // Fails: the hook's stops.
  void finish();
  // report_progress: the step for done rows of total, in steps of 5, ended by
  // " 100."; silent when total is below 10. Call it under the caller's lock.
  void report_progress(int32_t done, int32_t total);

 private:
  std::FILE* screen_;
  int32_t total_;
  run_hook* hook_;
  std::FILE* log_;
  int32_t done_ = 0;   // rows finished here
  int32_t shown_ = 0;  // rows finished everywhere, as far as the line went
  int32_t last_step_ = -1;
  // advance: the line taken through every count up to all, each as one
  // more row would take it, so that rows counted in batches show the same
  // line. Under the lock.
  void advance(int32_t all);
  std::mutex lock_;
};

}  // namespace quolvent
