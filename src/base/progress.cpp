// The percent line.
#include "base/progress.hpp"

#include "base/format.hpp"

namespace quolvent {

progress_line::progress_line(std::FILE* screen, int32_t total, run_hook* hook, std::FILE* log)
    : screen_(screen), total_(total), hook_(hook), log_(log) {
  if (hook_) hook_->rows_begin(log_);
}

void progress_line::row_done() {
  std::lock_guard<std::mutex> hold(lock_);
  ++done_;
  advance(hook_ ? hook_->rows_done(done_) : done_);
}

void progress_line::finish() {
  if (!hook_) return;
  hook_->rows_finished(
      done_,
      [this](int32_t all) {
        std::lock_guard<std::mutex> hold(lock_);
        advance(all);
      },
      log_);
}

void progress_line::advance(int32_t all) {
  for (; shown_ < all; ++shown_) report_progress(shown_ + 1, total_);
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
