// The percent line.
#include "base/progress.hpp"

#include "base/format.hpp"

namespace quolvent {

void progress_line::row_done() {
  std::lock_guard<std::mutex> hold(lock_);
  ++done_;
  report_progress(done_, total_);
}

void progress_line::report_progress(int32_t done, int32_t total) {
  if (total < 10 || screen_ == nullptr) return;
  const int32_t step = static_cast<int32_t>(
      (static_cast<double>(done) / static_cast<double>(total)) * 20.0);
  if (step == last_step_) return;
  if (done < total) {
    std::fputs(fmt_int(static_cast<long long>(step) * 5, 3).c_str(), screen_);
  } else {
    std::fputs(" 100.\n", screen_);
  }
  std::fflush(screen_);
  last_step_ = step;
}

}  // namespace quolvent
