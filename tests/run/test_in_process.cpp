// Whole runs inside the test process (as an embedding program makes them)
// against the same runs of the program: a stop ends a run, not the process,
// and leaves behind no descriptor and nothing that the next run sees.
#include <gtest/gtest.h>

#include <csignal>
#include <pthread.h>

#include "support/layout_runs.hpp"

// The mesh file missing (a stop after the banner, the echo and the
// parameters), then the whole survey. The caller's own signal mask (SIGHUP
// held back) is given back, without what the run held back itself.
TEST(InProcess, AfterAStopARunWritesWhatTheProgramWrites) {
  const qt::layout_survey k{"grid_daub2", "daub2", 1, qt::layout_kind::grid, 80};
  for (const bool whole : {false, true}) {
    qt::scratch_dir by_program("qprog"), here("qhere");
    for (const auto* d : {&by_program, &here}) {
      qt::write_layout_survey(*d, k);
      if (!whole) std::filesystem::remove(d->path / "mesh.txt");
    }
    const auto p = qt::run_program(by_program.path.string(), {"run.inp", "2"});
    sigset_t own, before, after;
    sigemptyset(&own);
    sigaddset(&own, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &own, nullptr);
    pthread_sigmask(SIG_BLOCK, nullptr, &before);
    const auto h = qt::run_in_process(here, {"run.inp", "2"});
    pthread_sigmask(SIG_UNBLOCK, &own, &after);
    for (int sig = 1; sig < NSIG; ++sig)
      EXPECT_EQ(sigismember(&after, sig), sigismember(&before, sig)) << sig;
    EXPECT_EQ(h.status, p.status) << whole;
    const auto want = qt::layout_outputs(by_program, p.screen);
    const auto got = qt::layout_outputs(here, h.screen);
    EXPECT_EQ(want.count("dulmarok.mtx"), whole ? 1u : 0u);
    ASSERT_EQ(got.size(), want.size()) << whole;
    for (const auto& [name, bytes] : want) EXPECT_TRUE(got.at(name) == bytes) << name;
  }
}

TEST(InProcess, NoDescriptorIsLeftOpenByStops) {
  qt::scratch_dir d("qfd");
  qt::write_file(d.file("run.inp"), "nomesh.txt\nobs.mag\nnull\nVALUE 1.0\ndaub2\nnull\n0\n");
  qt::run_in_process(d, {"run.inp", "1"});  // what the first run sets up for good
  const int before = qt::open_descriptors();
  for (int i = 0; i < 20; ++i) {
    qt::run_in_process(d, {"run.inp", "1"});
    qt::run_in_process(d, {});
  }
  EXPECT_EQ(qt::open_descriptors(), before);
}
