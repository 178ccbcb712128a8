// The run's watch for interrupts: a signal sent during a run waits for a
// checkpoint and becomes a stop; an ignored one stays ignored; the thread's
// mask is its own again afterwards.
#include <gtest/gtest.h>

#include <csignal>
#include <pthread.h>

#include "base/channels.hpp"
#include "base/interrupt.hpp"
#include "support/test_support.hpp"

using namespace quolvent;

namespace {

sigset_t current_mask() {
  sigset_t m;
  pthread_sigmask(SIG_BLOCK, nullptr, &m);
  return m;
}

bool same_mask(const sigset_t& a, const sigset_t& b) {
  for (int sig = 1; sig < NSIG; ++sig)
    if (sigismember(&a, sig) != sigismember(&b, sig)) return false;
  return true;
}

}  // namespace

// Each interrupt, sent to the process, is held until the checkpoint, which
// stops with 128 + N and names the signal and the phase the run_log is in.
TEST(Interrupts, SignalBecomesAStopAtTheCheckpoint) {
  const struct {
    int sig;
    const char* text;
  } cases[] = {
      {SIGINT, "Interrupted by SIGINT during sens: the run is stopped."},
      {SIGTERM, "Interrupted by SIGTERM during sens: the run is stopped."},
      {SIGHUP, "Interrupted by SIGHUP during sens: the run is stopped."},
  };
  for (const auto& k : cases) {
    std::signal(k.sig, SIG_DFL);
    const sigset_t before = current_mask();
    qt::capture cap;
    {
      const interrupt_watch watch;
      cap.out.watch_interrupts(&watch);
      cap.out.enter_phase("sens");
      raise(k.sig);
      bool stopped = false;
      try {
        cap.out.check_interrupt();
      } catch (const stop& s) {
        stopped = true;
        EXPECT_EQ(s.status, 128 + k.sig);
        cap.out.deliver(s);
      }
      EXPECT_TRUE(stopped) << k.text;
      cap.out.check_interrupt();  // taken once: nothing is pending now
      cap.out.watch_interrupts(nullptr);
    }
    EXPECT_TRUE(same_mask(current_mask(), before));
    const std::string report =
        std::string("\n") + k.text + "\nOutputs it had not finished are left as they were.\n\n";
    EXPECT_EQ(cap.screen(), report);
    EXPECT_EQ(cap.log(), report);
  }
}

// An ignored signal (nohup, a script's background job) is no interrupt, and
// a SIGXFSZ that a write raised does not reach the caller after the run.
TEST(Interrupts, IgnoredSignalsAndFileSizeSignalsPassBy) {
  std::signal(SIGHUP, SIG_IGN);
  std::signal(SIGXFSZ, SIG_DFL);
  const sigset_t before = current_mask();
  qt::capture cap;
  {
    const interrupt_watch watch;
    cap.out.watch_interrupts(&watch);
    raise(SIGHUP);
    raise(SIGXFSZ);  // as a write past the file size limit raises it
    EXPECT_NO_THROW(cap.out.check_interrupt());
    cap.out.watch_interrupts(nullptr);
  }
  EXPECT_TRUE(same_mask(current_mask(), before));
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGHUP), 0);
  EXPECT_EQ(sigismember(&pending, SIGXFSZ), 0);
  std::signal(SIGHUP, SIG_DFL);
}
