// quolvent-mpi under mpirun, 3 processes of 1 thread and 2 of 2, against the
// plain program: every output the same to the byte, the log and the screen but
// for their times, thread counts and line of processes. A stop in one process
// ends every process with the report once.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "support/layout_runs.hpp"

namespace {

// start_mpi: quolvent-mpi under mpirun. Open MPI refuses to run as root unless
// told (CI runs as root) and keeps what it allocates to the end of the process,
// which the sanitizers' leak check would count.
qt::child_program start_mpi(const qt::scratch_dir& d, int ranks, int threads) {
  const std::vector<std::string> args{"-np", std::to_string(ranks), "--oversubscribe",
                                      "--bind-to", "none", QUOLVENT_MPI_EXE, "run.inp",
                                      std::to_string(threads)};
  return qt::start_program(d.path.string(), args, [] {
    setenv("OMPI_ALLOW_RUN_AS_ROOT", "1", 1);
    setenv("OMPI_ALLOW_RUN_AS_ROOT_CONFIRM", "1", 1);
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    qt::as_in_a_terminal();
  }, QUOLVENT_MPIEXEC);
}

std::size_t count(const std::string& text, const std::string& what) {
  std::size_t k = 0;
  for (std::size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) ++k;
  return k;
}

// rank_pid: the child of mpirun (pid) with the rank `rank` in the environment
// Open MPI gives it; -1 when there is none.
int rank_pid(int pid, int rank) {
  for (const auto& task : std::filesystem::directory_iterator(
           "/proc/" + std::to_string(pid) + "/task")) {
    std::ifstream children(task.path() / "children");
    for (int child; children >> child;) {
      std::ifstream env("/proc/" + std::to_string(child) + "/environ");
      for (std::string var; std::getline(env, var, '\0');)
        if (var == "OMPI_COMM_WORLD_RANK=" + std::to_string(rank)) return child;
    }
  }
  return -1;
}

// write_survey: the survey of k, with a weighting file of the text given.
void write_survey(const qt::scratch_dir& d, const qt::layout_survey& k, const std::string& w) {
  qt::write_layout_survey(d, k);
  if (w.empty()) return;
  qt::write_file(d.file("w.txt"), w);
  qt::write_file(d.file("run.inp"), "mesh.txt\nobs.mag\nnull\nw.txt\ndaub2\nnull\n1\n");
}

}  // namespace

// The layouts' surveys (both row loops, compressed and not, a row's line in
// the log), grids of fewer data than the processes have groups of rows (the
// third process without rows, then the first with them all), and a weighting
// file short of values (the report once, no matrix file).
TEST(MpiRuns, EveryOutputTheSameAsThePlainProgram) {
  const auto layouts = qt::layout_surveys();
  const std::vector<std::pair<qt::layout_survey, std::string>> surveys{
      {layouts[0], ""}, {layouts[3], ""}, {layouts[4], ""},
      {{"grid_daub2_20_data", "daub2", 1, qt::layout_kind::grid, 20}, ""},
      {{"grid_daub2_2_data", "daub2", 1, qt::layout_kind::grid, 2}, ""},
      {layouts[2], "1.0\n2.0\n"}};
  for (const auto& [k, weights] : surveys) {
    qt::scratch_dir p("qmpi");
    write_survey(p, k, weights);
    const auto plain =
        qt::layout_outputs(p, qt::run_program(p.path.string(), {"run.inp", "1"}).screen);
    ASSERT_EQ(plain.count("dulmarok.mtx"), weights.empty() ? 1u : 0u) << k.name;
    // The edge line comes from the sample row and the row, which another process makes.
    if (k.kind == qt::layout_kind::edge)
      EXPECT_GE(count(plain.at("quolvent.log"), "point          37  is on the edge"), 2u);
    for (const auto& [ranks, threads] : {std::pair{3, 1}, {2, 2}}) {
      qt::scratch_dir d("qmpi");
      write_survey(d, k, weights);
      const auto r = start_mpi(d, ranks, threads).wait();
      const std::string layout = "MPI processes (ranks):  " + std::to_string(ranks) +
                                 ",  threads each:  " + std::to_string(threads) + "\n";
      ASSERT_EQ(r.status, 0) << k.name << ", " << layout << r.screen << r.errors;
      EXPECT_NE(r.screen.find(layout), std::string::npos) << r.screen;
      EXPECT_TRUE(qt::layout_outputs(d, r.screen) == plain) << k.name << ", " << layout << r.screen;
    }
  }
}

// SIGTERM to the second of three processes in its rows (held there with
// SIGSTOP while the others finish theirs and wait): every process ends, 128 +
// 15, the report once, an earlier matrix file as it was, no temporary file.
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
  const std::string report = "Interrupted by SIGTERM during sens: the run is stopped.\n"
                             "Outputs it had not finished are left as they were.\n";
  const std::string log = qt::read_file(d.file("quolvent.log"));
  EXPECT_EQ(r.status, 128 + SIGTERM);
  EXPECT_EQ(count(r.screen, report), 1u) << r.screen;
  EXPECT_TRUE(log.ends_with(report + "\n") && count(log, report) == 1) << log;
  EXPECT_EQ(qt::read_file(d.file("dulmarok.mtx")), earlier);
  EXPECT_EQ(qt::temporary_outputs(d), std::vector<std::string>{});
}

// The folder's rules as the plain program keeps them: quolvent-mpi started
// while quolvent holds the folder stops on every process at once, status 75,
// the report once, the log untouched; a read-only earlier matrix file is
// replaced; a directory in the matrix file's place stops the run before the
// first row.
TEST(MpiRuns, FolderRulesAsThePlainProgram) {
  qt::scratch_dir d("qmpi");
  qt::write_flat_survey(d, 18, 16, 8, 48, false, "daub2");
  auto first = qt::start_held(d.path.string(), {"run.inp", "1"}, qt::has_log);
  ASSERT_GT(first.pid, 0);
  const std::string log = qt::read_file(d.file("quolvent.log"));
  const auto second = start_mpi(d, 2, 1).wait();
  EXPECT_EQ(second.status, 75);
  EXPECT_EQ(count(second.screen, "ERROR: another run is writing its outputs in "), 1u)
      << second.screen;
  EXPECT_EQ(qt::read_file(d.file("quolvent.log")), log);
  ASSERT_EQ(qt::let_go(first).status, 0);

  const std::string matrix = qt::read_file(d.file("dulmarok.mtx"));
  const auto read_only = std::filesystem::perms{0444};
  std::filesystem::permissions(d.path / "dulmarok.mtx", read_only);
  EXPECT_EQ(start_mpi(d, 2, 1).wait().status, 0);
  EXPECT_EQ(qt::read_file(d.file("dulmarok.mtx")), matrix);
  EXPECT_EQ(std::filesystem::status(d.path / "dulmarok.mtx").permissions(), read_only);

  std::filesystem::remove(d.path / "dulmarok.mtx");
  std::filesystem::create_directory(d.path / "dulmarok.mtx");
  const auto r = start_mpi(d, 2, 1).wait();
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.screen.find("Calculating"), std::string::npos) << r.screen;
  EXPECT_EQ(count(r.screen, "ERROR: cannot write dulmarok.mtx: Is a directory"), 1u) << r.screen;
}
