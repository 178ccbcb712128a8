// The run's watch for interrupts.
#include "base/interrupt.hpp"

#include <cerrno>
#include <ctime>
#include <pthread.h>

#include "base/stop.hpp"

namespace quolvent {

namespace {

// The interrupts a batch system or a terminal sends to end a run.
constexpr int interrupts[] = {SIGINT, SIGTERM, SIGHUP};

// takes_signal: the process would act on sig (its action is not to ignore it)
// and the calling thread does not hold it back already.
bool takes_signal(int sig, const sigset_t& mask) {
  struct sigaction now {};
  if (sigaction(sig, nullptr, &now) != 0) return false;
  return now.sa_handler != SIG_IGN && sigismember(&mask, sig) == 0;
}

}  // namespace

std::string signal_name(int sig) {
  switch (sig) {
    case SIGINT: return "SIGINT";
    case SIGTERM: return "SIGTERM";
    case SIGHUP: return "SIGHUP";
    default: return "signal " + std::to_string(sig);
  }
}

interrupt_watch::interrupt_watch() {
  sigemptyset(&watched_);
  sigemptyset(&blocked_);
  pthread_sigmask(SIG_BLOCK, nullptr, &saved_);
  for (int sig : interrupts) {
    if (!takes_signal(sig, saved_)) continue;
    sigaddset(&watched_, sig);
    sigaddset(&blocked_, sig);
    any_ = true;
  }
  if (takes_signal(SIGXFSZ, saved_)) sigaddset(&blocked_, SIGXFSZ);
  pthread_sigmask(SIG_BLOCK, &blocked_, nullptr);
}

interrupt_watch::~interrupt_watch() {
  // A write past the file size limit raised SIGXFSZ on this thread; its
  // failure has been reported, and the signal would end the caller.
  if (sigismember(&blocked_, SIGXFSZ) == 1) {
    sigset_t xfsz;
    sigemptyset(&xfsz);
    sigaddset(&xfsz, SIGXFSZ);
    const timespec none{0, 0};
    while (sigtimedwait(&xfsz, nullptr, &none) == SIGXFSZ) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
}

void interrupt_watch::check(std::string_view phase) const {
  if (!any_) return;
  const timespec none{0, 0};
  siginfo_t info;
  // A wait cut short (EINTR: the process was stopped and continued, as a
  // job is) looks again, so that a signal sent meanwhile is not passed over.
  int sig = -1;
  do {
    sig = sigtimedwait(&watched_, &info, &none);
  } while (sig < 0 && errno == EINTR);
  if (sig <= 0) return;  // nothing pending
  stop s;
  s.screen_lines = {"",
                    "Interrupted by " + signal_name(sig) + " during " + std::string(phase) +
                        ": the run is stopped.",
                    "Outputs it had not finished are left as they were.", ""};
  s.log_lines = s.screen_lines;
  s.status = 128 + sig;
  s.kind = stop_kind::interrupted;
  throw s;
}

}  // namespace quolvent
