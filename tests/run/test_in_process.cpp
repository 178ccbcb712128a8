// Whole runs inside the test process, as an embedding program makes them (the
// Python module's tests compare their files with the program's): a stop ends
// a run, not the process, and leaves behind no descriptor; the caller's own
// signal mask is given back.
#include <gtest/gtest.h>

#include <csignal>
#include <pthread.h>

#include "support/test_support.hpp"

TEST(InProcess, StopsLeaveNoDescriptorAndRunsGiveBackTheSignalMask) {
  qt::scratch_dir d("qfd");
  qt::write_flat_survey(d, 6, 5, 4, 8, false, "daub2");
  qt::write_file(d.file("stop.inp"), "nomesh.txt\nobs.mag\nnull\nVALUE 1.0\ndaub2\nnull\n0\n");
  qt::run_in_process(d, {"stop.inp", "1"});  // what the first run sets up for good
  const int before = qt::open_descriptors();
  for (int i = 0; i < 20; ++i) {
    qt::run_in_process(d, {"stop.inp", "1"});
    qt::run_in_process(d, {});
  }
  EXPECT_EQ(qt::open_descriptors(), before);
  // A stop after the banner, the echo and the parameters, then a whole run:
  // SIGHUP held back by the caller stays held, without what the run held back.
  for (const char* control : {"stop.inp", "run.inp"}) {
    sigset_t own, held, after;
    sigemptyset(&own);
    sigaddset(&own, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &own, nullptr);
    pthread_sigmask(SIG_BLOCK, nullptr, &held);
    qt::run_in_process(d, {control, "2"});
    pthread_sigmask(SIG_UNBLOCK, &own, &after);
    for (int sig = 1; sig < NSIG; ++sig)
      EXPECT_EQ(sigismember(&after, sig), sigismember(&held, sig)) << sig;
  }
  EXPECT_TRUE(std::filesystem::exists(d.path / "dulmarok.mtx"));
}
