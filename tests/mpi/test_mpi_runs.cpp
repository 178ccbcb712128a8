// quolvent-mpi under mpirun with 3 processes of 1 thread and 2 of 2 against
// the plain program: every output the same to the byte, the log
// and the screen but for their times, their thread count and the line of
// processes. A bad input and a stop inside the row loop of one process end
// every process, with the report once and no matrix file; processes without
// rows take part all the same.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "support/layout_runs.hpp"

namespace {

// mpi_environment: Open MPI refuses to run as root unless told (CI runs as
// root); it keeps what it allocates to the end of the process, which a leak
// check under the sanitizers would count; the interrupts act as for a program
// started by hand.
void mpi_environment() {
  setenv("OMPI_ALLOW_RUN_AS_ROOT", "1", 1);
  setenv("OMPI_ALLOW_RUN_AS_ROOT_CONFIRM", "1", 1);
  setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
  qt::as_in_a_terminal();
}

std::vector<std::string> mpi_args(int ranks, int threads) {
  return {"-np", std::to_string(ranks), "--oversubscribe", "--bind-to", "none", QUOLVENT_MPI_EXE,
          "run.inp", std::to_string(threads)};
}

qt::child_program start_mpi(const qt::scratch_dir& d, int ranks, int threads) {
  return qt::start_command(QUOLVENT_MPIEXEC, d.path.string(), mpi_args(ranks, threads),
                           mpi_environment);
}

std::size_t count(const std::string& text, const std::string& what) {
  std::size_t k = 0;
  for (std::size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) ++k;
  return k;
}

// rank_pid: the process of rank `rank` among the children of mpirun (pid),
// by the rank Open MPI puts in its environment; -1 when there is none.
int rank_pid(int pid, int rank) {
  for (const auto& e : std::filesystem::directory_iterator("/proc")) {
    const std::string name = e.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream stat(e.path() / "stat");
    std::string comm_and_state, word;
    int self = 0, state_ppid = 0;
    stat >> self >> comm_and_state >> word >> state_ppid;
    if (state_ppid != pid) continue;
    std::ifstream env(e.path() / "environ");
    std::string var;
    while (std::getline(env, var, '\0'))
      if (var == "OMPI_COMM_WORLD_RANK=" + std::to_string(rank)) return self;
  }
  return -1;
}

}  // namespace

// Surveys of the layouts (compressed over hills with boreholes and directions
// of their own in the general loop, uncompressed in the regular-grid loop,
// lines in the log from a row), and regular grids of fewer data than
// processes have groups of rows: the third process without rows, then the
// first with them all.
TEST(MpiRuns, EveryOutputTheSameAsThePlainProgram) {
  const auto layouts = qt::layout_surveys();
  const std::vector<qt::layout_survey> surveys{
      layouts[0], layouts[3], layouts[4],
      {"grid_daub2_20_data", "daub2", 1, qt::layout_kind::grid, 20},
      {"grid_daub2_2_data", "daub2", 1, qt::layout_kind::grid, 2}};
  for (const auto& k : surveys) {
    std::map<std::string, std::string> plain;
    {
      qt::scratch_dir d("qmpi");
      qt::write_layout_survey(d, k);
      const auto r = qt::run_program(d.path.string(), {"run.inp", "1"});
      ASSERT_EQ(r.status, 0) << k.name << r.screen << r.errors;
      plain = qt::layout_outputs(d, r.screen);
    }
    // The edge survey's lines come from its sample row and from its row in
    // the loop, which a process other than the first computes.
    if (k.kind == qt::layout_kind::edge)
      EXPECT_GE(count(plain.at("quolvent.log"), "Observation point          37  is on the edge"), 2u);
    for (const auto& [ranks, threads] : {std::pair{3, 1}, {2, 2}}) {
      qt::scratch_dir d("qmpi");
      qt::write_layout_survey(d, k);
      const auto r = start_mpi(d, ranks, threads).wait();
      const std::string layout = k.name + std::string(", ") + std::to_string(ranks) +
                                 " processes x " + std::to_string(threads) + " threads";
      ASSERT_EQ(r.status, 0) << layout << "\n" << r.screen << r.errors;
      EXPECT_NE(r.screen.find("MPI processes (ranks):  " + std::to_string(ranks) +
                              ",  threads each:  " + std::to_string(threads) + "\n"),
                std::string::npos)
          << r.screen;
      const auto outputs = qt::layout_outputs(d, r.screen);
      ASSERT_EQ(outputs.size(), plain.size()) << layout;
      for (const auto& [name, bytes] : plain)
        EXPECT_TRUE(outputs.at(name) == bytes) << layout << ": " << name;
      EXPECT_EQ(qt::temporary_outputs(d), std::vector<std::string>{}) << layout;
    }
  }
}

// A weighting file short of values: every process stops reading it, the
// report is on the screen and in the log once, as the plain program gives
// it, and there is no matrix file.
TEST(MpiRuns, BadInputReportedOnce) {
  const qt::layout_survey k{"grid_daub2", "daub2", 1, qt::layout_kind::grid, 80};
  qt::scratch_dir p("qmpi"), d("qmpi");
  for (const auto* dir : {&p, &d}) {
    qt::write_layout_survey(*dir, k);
    qt::write_file(dir->file("w.txt"), "1.0\n2.0\n");
    qt::write_file(dir->file("run.inp"), "mesh.txt\nobs.mag\nnull\nw.txt\ndaub2\nnull\n1\n");
  }
  const auto plain = qt::layout_outputs(p, qt::run_program(p.path.string(), {"run.inp", "1"}).screen);
  const auto r = start_mpi(d, 3, 1).wait();
  EXPECT_EQ(r.status, 0) << r.errors;
  const auto outputs = qt::layout_outputs(d, r.screen);
  EXPECT_TRUE(outputs == plain) << r.screen;
  EXPECT_EQ(count(outputs.at("quolvent.log"), "ERROR: end reached reading weighting file w.txt"), 1u);
  EXPECT_EQ(count(r.screen, "ERROR: end reached reading weighting file w.txt"), 1u);
  EXPECT_FALSE(std::filesystem::exists(d.path / "dulmarok.mtx"));
}

// SIGTERM to the second of three processes while it is in its rows (held
// there with SIGSTOP, while the others finish theirs and wait for it): every
// process ends, with 128 + 15, the report once on the screen and in the log,
// an earlier matrix file as it was and no temporary file.
TEST(MpiRuns, StopInsideTheRowLoopOfOneProcess) {
  qt::scratch_dir d("qmpi");
  qt::write_flat_survey(d, 40, 40, 20, 600, false, "daub2");
  const std::string earlier = "an earlier run's matrix file\n";
  qt::program_run r;
  bool hit = false;
  for (int attempt = 0; attempt < 3 && !hit; ++attempt) {
    qt::write_file(d.file("dulmarok.mtx"), earlier);
    auto child = start_mpi(d, 3, 1);
    // Rows are under way everywhere once the line shows 5 %.
    qt::wait_until([&] { return child.screen().find("  0  5") != std::string::npos; });
    const int pid = rank_pid(child.pid, 1);
    if (pid > 0) {
      kill(pid, SIGSTOP);
      // The others' rows come to an end meanwhile; the line stops short.
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      hit = child.screen().find(" 100.") == std::string::npos;
      if (hit) kill(pid, SIGTERM);
      kill(pid, SIGCONT);
    }
    r = child.wait();
  }
  ASSERT_TRUE(hit) << r.screen;
  const std::string report =
      "Interrupted by SIGTERM during sens: the run is stopped.\n"
      "Outputs it had not finished are left as they were.\n";
  const std::string log = qt::read_file(d.file("quolvent.log"));
  EXPECT_EQ(r.status, 128 + SIGTERM);
  EXPECT_EQ(count(r.screen, report), 1u) << r.screen;
  EXPECT_EQ(count(log, report), 1u) << log;
  EXPECT_TRUE(log.ends_with(report + "\n")) << log;
  EXPECT_EQ(qt::read_file(d.file("dulmarok.mtx")), earlier);
  EXPECT_EQ(qt::temporary_outputs(d), std::vector<std::string>{});
}
