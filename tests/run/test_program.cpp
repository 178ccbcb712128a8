// Whole-program runs in a temporary directory: the screen and the log as the
// user sees them.
#include <gtest/gtest.h>

#include <omp.h>
#include <regex>

#include "support/test_support.hpp"

namespace {

std::string banner(int threads) {
  std::string b = "\nParallelized with OpenMP.  # of threads:" +
                  std::string(threads < 10 ? "  " : " ") + std::to_string(threads) + "\n";
  if (threads > omp_get_num_procs())
    b += "\nWARNING: more threads started than processors available.\n\n";
  b += "\nSALVU - Version 5.0 :  QUOLVENT\n"
       "   Sensitivity of magnetic data over a 3-D mesh,\n"
       "   stored with 3-D wavelet compression.\n\n";
  return b;
}

const std::string sample =
    "\nSample quolvent input file: (! must precede comments)\n\n"
    "mesh         ! mesh file\nobs.mag      ! data file\ntopo.dat     ! topography\n"
    "distance_weight.txt  ! weight file\ndaub2        ! wavelet: daubx, symmx, NONE\n"
    "1  0.05      ! itol, eps | null\n0-not output, 1-output diagnostic files\n\n";

const std::string rule = "\n" + std::string(64, '-') + "\n\n";

int default_threads() { return omp_get_max_threads(); }

// A control file whose mesh is missing: the run stops at the mesh, after the
// banner, the echo and the parameters.
const std::string control_missing_mesh =
    "nomesh.txt ! mesh\nobs.mag\nnull\nVALUE 1.0\ndaub2\n1 0.05\n0\n";

}  // namespace

// Runs that end before a control file is read: the usage (no log), the
// sample control file, and a control file that isn't there.
TEST(Program, UsageSampleAndMissingControlFile) {
  const struct {
    std::vector<std::string> args;
    std::string text;
    bool logged;
  } cases[] = {
      {{}, "\n   Usage: quolvent quolvent.inp  [nThreads]\n\n   For a sample input file, type: quolvent -inp\n",
       false},
      {{"-inp"}, sample, true},
      {{"absent.inp"}, "\n ERROR: input file not found: absent.inp\n", true},
  };
  for (const auto& k : cases) {
    qt::scratch_dir d("qprog");
    const auto r = qt::run_program(d.path.string(), k.args);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.screen, banner(default_threads()) + k.text);
    if (k.logged)
      EXPECT_EQ(qt::read_file(d.file("quolvent.log")), banner(default_threads()) + k.text);
    else
      EXPECT_FALSE(std::filesystem::exists(d.path / "quolvent.log"));
  }
}

TEST(Program, SixLineControlFileAndBadLineSeven) {
  qt::scratch_dir d("qprog");
  qt::write_file(d.file("six.inp"), "m\no\nt\nw\ndaub2\nnull\n");
  auto r = qt::run_program(d.path.string(), {"six.inp"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.screen, banner(default_threads()) + "ERROR reading sensitivity input file six.inp\n" + sample);
  EXPECT_EQ(qt::read_file(d.file("quolvent.log")),
            banner(default_threads()) + "\nReading input file: six.inp\n" + rule +
                "m\no\nt\nw\ndaub2\nnull\n" + rule + sample);

  qt::write_file(d.file("two.inp"), "m\no\nt\nw\ndaub2\nnull\n2\n");
  r = qt::run_program(d.path.string(), {"two.inp"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.screen, banner(default_threads()) +
                          "\nERROR: enter 0 to not output, or 1 to output average uncompressed\n"
                          "sensitivity model file.\n\n"
                          "ERROR reading sensitivity input file two.inp\n" + sample);
}

TEST(Program, ThreadArgument) {
  qt::scratch_dir d("qprog");
  qt::write_file(d.file("run.inp"), control_missing_mesh);
  const struct { std::vector<std::string> args; int threads; } cases[] = {
      {{"run.inp", "0"}, default_threads()},
      {{"run.inp", "abc"}, default_threads()},
      {{"run.inp", "4", "extra"}, default_threads()},
      {{"run.inp", "1"}, 1},
      {{"run.inp", std::to_string(omp_get_num_procs() + 1)}, omp_get_num_procs() + 1},
  };
  for (const auto& k : cases) {
    const auto r = qt::run_program(d.path.string(), k.args);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.screen.substr(0, banner(k.threads).size()), banner(k.threads)) << k.args[1];
    const std::string log = qt::read_file(d.file("quolvent.log"));
    EXPECT_EQ(log.substr(0, banner(k.threads).size()), banner(k.threads)) << k.args[1];
  }
}

TEST(Program, ParameterEchoInTheLog) {
  qt::scratch_dir d("qprog");
  qt::write_file(d.file("run.inp"), control_missing_mesh);
  qt::run_program(d.path.string(), {"run.inp", "1"});
  const std::string log = qt::read_file(d.file("quolvent.log"));
  const std::regex stamp("\nQUOLVENT started on: [ 1][0-9]/[0-3][0-9]/[0-9]{4}  [0-2][0-9]:[0-5][0-9]:[0-5][0-9]\n\n"
                         "with the following parameters:\n\n"
                         "          Input file: run.inp\n"
                         "   Observations file: obs.mag\n"
                         "           Mesh file: nomesh.txt\n"
                         "     Topography file: null\n"
                         " Wavelet compression: daub2\n"
                         " Wavelet   threshold: relative accuracy =0.0500\n\n");
  EXPECT_TRUE(std::regex_search(log, stamp)) << log;

  qt::write_file(d.file("b.inp"), "nomesh.txt\no\nnull\nw\nNONE\n2 0.001\n0\n");
  qt::run_program(d.path.string(), {"b.inp", "1"});
  const std::string log2 = qt::read_file(d.file("quolvent.log"));
  EXPECT_NE(log2.find(" Wavelet compression: NONE \n Wavelet   threshold: relative threshold =0.0010\n"),
            std::string::npos) << log2;

  qt::write_file(d.file("c.inp"), "nomesh.txt\no\nnull\nw\ndaub\nNULL\n0\n");
  qt::run_program(d.path.string(), {"c.inp", "1"});
  const std::string log3 = qt::read_file(d.file("quolvent.log"));
  EXPECT_NE(log3.find(" Wavelet compression: daub \n Wavelet   threshold: default\n"),
            std::string::npos) << log3;
}
