// stop_latch: carries a stop out of a parallel region. An exception can't
// cross the end of a parallel region, so each thread runs its work through
// the latch; the first stop is kept, the other threads see it and pass over
// their remaining rows, and the thread that started the region rethrows it
// once the region has ended: the run ends with one report.
#pragma once

#include <atomic>
#include <exception>
#include <mutex>

namespace quolvent {

class stop_latch {
 public:
  // run: f(), keeping the first exception any thread throws.
  template <typename F>
  void run(F&& f) noexcept {
    if (stopped()) return;
    try {
      f();
    } catch (...) {
      std::lock_guard<std::mutex> hold(lock_);
      if (!first_) first_ = std::current_exception();
      stopped_.store(true, std::memory_order_relaxed);
    }
  }
  // stopped: some thread has stopped; the others leave their work undone.
  bool stopped() const { return stopped_.load(std::memory_order_relaxed); }
  // rethrow: after the region, on the thread that started it.
  void rethrow() const {
    if (first_) std::rethrow_exception(first_);
  }

 private:
  std::mutex lock_;
  std::exception_ptr first_;
  std::atomic<bool> stopped_{false};
};

}  // namespace quolvent
