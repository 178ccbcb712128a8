// Whole-program runs in a temporary directory: the screen and the log as the
// user sees them.
#include <gtest/gtest.h>

#include <omp.h>
#include <regex>

#include "support/test_support.hpp"

namespace {

std::string banner(int threads = omp_get_max_threads()) {
  std::string b = "\nParallelized with OpenMP.  # of threads:" +
                  std::string(threads < 10 ? "  " : " ") + std::to_string(threads) + "\n";
  if (threads > omp_get_num_procs())
    b += "\nWARNING: more threads started than processors available.\n\n";
  return b + "\nSALVU - Version 5.0 :  QUOLVENT\n"
             "   Sensitivity of magnetic data over a 3-D mesh,\n"
             "   stored with 3-D wavelet compression.\n\n";
}

const std::string sample =
    "\nSample quolvent input file: (! must precede comments)\n\n"
    "mesh         ! mesh file\nobs.mag      ! data file\ntopo.dat     ! topography\n"
    "distance_weight.txt  ! weight file\ndaub2        ! wavelet: daubx, symmx, NONE\n"
    "1  0.05      ! itol, eps | null\n0-not output, 1-output diagnostic files\n\n";

// A control file whose mesh is missing: the run stops at the mesh, after the
// banner, the echo and the parameters.
std::string missing_mesh(const std::string& wavelet_and_eps = "daub2\n1 0.05") {
  return "nomesh.txt ! mesh\nobs.mag\nnull\nVALUE 1.0\n" + wavelet_and_eps + "\n0\n";
}

}  // namespace

// Runs that end before a control file is read (the usage, without a log; the
// sample; a control file that isn't there) or while it is read (six lines, a
// bad line 7): the screen, and the log with the file's echo.
TEST(Program, RunsThatEndAtTheControlFile) {
  const std::string six = "m\no\nt\nw\ndaub2\nnull\n", rule = "\n" + std::string(64, '-') + "\n\n";
  const auto echo = [&](const std::string& name, const std::string& text) {
    return "\nReading input file: " + name + "\n" + rule + text + rule + sample;
  };
  const std::string absent = "\n ERROR: input file not found: absent.inp\n";
  const struct {
    std::vector<std::string> args;
    std::string screen;
    std::string log;  // empty: no log file
  } cases[] = {
      {{},
       "\n   Usage: quolvent quolvent.inp  [nThreads]\n\n   For a sample input file, type: "
       "quolvent -inp\n",
       ""},
      {{"-inp"}, sample, sample},
      {{"absent.inp"}, absent, absent},
      {{"six.inp"},
       "ERROR reading sensitivity input file six.inp\n" + sample,
       echo("six.inp", six)},
      {{"two.inp"},
       "\nERROR: enter 0 to not output, or 1 to output average uncompressed\nsensitivity model "
       "file.\n\nERROR reading sensitivity input file two.inp\n" + sample,
       echo("two.inp", six + "2\n")},
  };
  for (const auto& k : cases) {
    qt::scratch_dir d("qprog");
    qt::write_file(d.file("six.inp"), six);
    qt::write_file(d.file("two.inp"), six + "2\n");
    const auto r = qt::run_program(d.path.string(), k.args);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.screen, banner() + k.screen);
    if (!k.log.empty())
      EXPECT_EQ(qt::read_file(d.file("quolvent.log")), banner() + k.log);
    else
      EXPECT_FALSE(std::filesystem::exists(d.path / "quolvent.log"));
  }
}

TEST(Program, ThreadArgument) {
  qt::scratch_dir d("qprog");
  qt::write_file(d.file("run.inp"), missing_mesh());
  const int many = omp_get_num_procs() + 1;
  const struct {
    std::vector<std::string> args;
    int threads;
  } cases[] = {{{"run.inp", "0"}, omp_get_max_threads()},
               {{"run.inp", "abc"}, omp_get_max_threads()},
               {{"run.inp", "4", "extra"}, omp_get_max_threads()},
               {{"run.inp", std::to_string(many)}, many}};
  for (const auto& k : cases) {
    const auto r = qt::run_program(d.path.string(), k.args);
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.screen.starts_with(banner(k.threads))) << k.args[1];
    EXPECT_TRUE(qt::read_file(d.file("quolvent.log")).starts_with(banner(k.threads))) << k.args[1];
  }
}

// The parameters in the log: the wavelet field as read, and each kind of
// threshold line.
TEST(Program, ParameterEchoInTheLog) {
  const struct {
    const char* control;
    const char* shown;
  } cases[] = {{"daub2\n1 0.05", "daub2\n Wavelet   threshold: relative accuracy =0.0500"},
               {"NONE\n2 0.001", "NONE \n Wavelet   threshold: relative threshold =0.0010"},
               {"daub\nNULL", "daub \n Wavelet   threshold: default"}};
  qt::scratch_dir d("qprog");
  for (const auto& k : cases) {
    qt::write_file(d.file("run.inp"), missing_mesh(k.control));
    qt::run_program(d.path.string(), {"run.inp", "1"});
    const std::regex echo(
        "\nQUOLVENT started on: [ 1][0-9]/[0-3][0-9]/[0-9]{4}  [0-2][0-9]:[0-5][0-9]:[0-5][0-9]\n\n"
        "with the following parameters:\n\n          Input file: run.inp\n"
        "   Observations file: obs.mag\n           Mesh file: nomesh.txt\n"
        "     Topography file: null\n Wavelet compression: " + std::string(k.shown) + "\n\n");
    EXPECT_TRUE(std::regex_search(qt::read_file(d.file("quolvent.log")), echo)) << k.control;
  }
}
