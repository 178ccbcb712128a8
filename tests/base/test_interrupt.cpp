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

// An interrupt is held until the checkpoint, which stops with 128 + N naming
// the signal and the phase, once. An ignored signal (nohup, a script's
// background job) is no interrupt, and a SIGXFSZ that a write raised does
// not reach the caller after the run.
TEST(Interrupts, SignalsBecomeAStopAtTheCheckpointOrPassBy) {
  const struct {
    int sig;
    void (*disposition)(int);
    int status;
    const char* report;
  } cases[] = {{SIGINT, SIG_DFL, 130,
                "\nInterrupted by SIGINT during sens: the run is stopped.\n"
                "Outputs it had not finished are left as they were.\n\n"},
               {SIGHUP, SIG_IGN, 0, ""},
               {SIGXFSZ, SIG_DFL, 0, ""}};
  for (const auto& k : cases) {
    std::signal(k.sig, k.disposition);
    sigset_t before, after, pending;
    pthread_sigmask(SIG_BLOCK, nullptr, &before);
    qt::capture cap;
    int status = 0;
    {
      const interrupt_watch watch;
      cap.out.watch_interrupts(&watch);
      cap.out.enter_phase("sens");
      raise(k.sig);
      try {
        cap.out.check_interrupt();
      } catch (const stop& s) {
        status = s.status;
        cap.out.deliver(s);
      }
      cap.out.check_interrupt();  // taken once: nothing is pending now
      cap.out.watch_interrupts(nullptr);
    }
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    for (int sig = 1; sig < NSIG; ++sig)
      EXPECT_EQ(sigismember(&after, sig), sigismember(&before, sig)) << sig;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, k.sig), 0) << k.sig;
    EXPECT_EQ(status, k.status) << k.sig;
    EXPECT_EQ(cap.screen(), k.report);
    EXPECT_EQ(cap.log(), k.report);
    std::signal(k.sig, SIG_DFL);
  }
}
