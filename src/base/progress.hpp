// The percent line of a row loop on the screen: "  0  5 10 ... 95 100.".
#pragma once

#include <cstdint>
#include <cstdio>
#include <mutex>

namespace quolvent {

class progress_line {
 public:
  // screen: where the line goes; total: the rows of the loop.
  progress_line(std::FILE* screen, int32_t total) : screen_(screen), total_(total) {}
  // row_done: one more row finished; the next step of the line when it
  // changed. Safe from any thread of the loop.
  void row_done();
  // report_progress: the step for done rows of total, in steps of 5, ended by
  // " 100."; silent when total is below 10. Call it under the caller's lock.
  void report_progress(int32_t done, int32_t total);

 private:
  std::FILE* screen_;
  int32_t total_;
  int32_t done_ = 0;
  int32_t last_step_ = -1;
  std::mutex lock_;
};

}  // namespace quolvent
