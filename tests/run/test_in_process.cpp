// Whole runs inside the test process, one after another, against the same
// runs of the program: a run leaves nothing behind that the next one sees,
// and a stop ends a run, not the process.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "run/sens3d.hpp"
#include "support/test_support.hpp"

namespace {

const std::string examples = std::string(QUOLVENT_SOURCE_DIR) + "/examples/";

// timeless: the text with the clock readings of the timer lines and the time
// stamps taken out, the only parts of two runs' words that may differ.
std::string timeless(const std::string& text) {
  static const std::regex timer("cpu time: *[0-9]+:[0-9]{2}:[0-9]{2}\\.[0-9]{2}");
  static const std::regex stamp("(started|ended) on: .*");
  return std::regex_replace(std::regex_replace(text, timer, "cpu time: T"), stamp, "$1 on: D");
}

// in_process: the run of args in dir, in this process; its screen and status.
qt::program_run in_process(const qt::scratch_dir& dir, std::vector<std::string> args) {
  qt::program_run r;
  const auto old = std::filesystem::current_path();
  std::filesystem::current_path(dir.path);
  std::FILE* screen = std::tmpfile();
  std::vector<char*> argv;
  std::string exe = "quolvent";
  argv.push_back(exe.data());
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  r.status = quolvent::run_command_line(static_cast<int>(args.size()) + 1, argv.data(), screen);
  std::rewind(screen);
  for (int c; (c = std::fgetc(screen)) != EOF;) r.screen.push_back(static_cast<char>(c));
  std::fclose(screen);
  std::filesystem::current_path(old);
  return r;
}

// same_outputs: every file of a is in b with the same bytes (the log and the
// screen without their clock readings), and b has no other file.
void expect_same_outputs(const qt::scratch_dir& a, const qt::scratch_dir& b) {
  std::vector<std::string> names_a, names_b;
  for (const auto& e : std::filesystem::directory_iterator(a.path))
    names_a.push_back(e.path().filename().string());
  for (const auto& e : std::filesystem::directory_iterator(b.path))
    names_b.push_back(e.path().filename().string());
  std::sort(names_a.begin(), names_a.end());
  std::sort(names_b.begin(), names_b.end());
  EXPECT_EQ(names_a, names_b);
  for (const auto& name : names_a) {
    const std::string fa = qt::read_file(a.file(name)), fb = qt::read_file(b.file(name));
    if (name == "quolvent.log") {
      EXPECT_EQ(timeless(fa), timeless(fb)) << name;
    } else {
      EXPECT_TRUE(fa == fb) << name << " differs";
    }
  }
}

struct case_run {
  const char* what;
  std::string control;
  std::vector<std::string> files;  // name, text, name, text, ...
  std::string threads;
};

// A regular grid of data over a uniform mesh (the regular-grid loop),
// uncompressed, and the bundled example compressed with every text output.
std::vector<case_run> cases() {
  std::string obs = "65 20 50000\n65 20 1\n48\n";
  for (int j = 0; j < 6; ++j)
    for (int i = 0; i < 8; ++i)
      obs += std::to_string(25 + 20 * i) + ".0 " + std::to_string(25 + 20 * j) + ".0 4.0\n";
  return {
      {"bundled example, daub2",
       examples + "mesh.txt\n" + examples + "obs.mag\n" + examples +
           "topo.txt\nVALUE 1.0\ndaub2\nnull\n1\n",
       {},
       "2"},
      {"regular grid, uncompressed",
       "mesh.txt\nobs.mag\nnull\nVALUE 2.0\nNONE\nnull\n1\n",
       {"mesh.txt", "18 16 8\n0 0 0\n18*10.0\n16*10.0\n8*5.0\n", "obs.mag", obs},
       "1"},
      {"missing mesh", "nomesh.txt\nobs.mag\nnull\nVALUE 1.0\ndaub2\nnull\n0\n", {}, "2"},
  };
}

}  // namespace

TEST(InProcess, RunsOneAfterAnotherWriteWhatTheProgramWrites) {
  // Each case twice in this process, interleaved with the others, and once
  // by the program.
  const auto all = cases();
  for (int round = 0; round < 2; ++round) {
    for (const auto& k : all) {
      qt::scratch_dir by_program("qprog"), here("qhere");
      for (const auto* d : {&by_program, &here}) {
        qt::write_file(d->file("run.inp"), k.control);
        for (std::size_t f = 0; f + 1 < k.files.size(); f += 2)
          qt::write_file(d->file(k.files[f]), k.files[f + 1]);
      }
      const auto p = qt::run_program(by_program.path.string(), {"run.inp", k.threads});
      const auto h = in_process(here, {"run.inp", k.threads});
      EXPECT_EQ(h.status, p.status) << k.what;
      EXPECT_EQ(timeless(h.screen), timeless(p.screen)) << k.what;
      expect_same_outputs(by_program, here);
    }
  }
}

TEST(InProcess, NoDescriptorIsLeftOpenByRunsOrStops) {
  const auto all = cases();
  qt::scratch_dir d("qfd");
  for (const auto& k : all) {
    qt::write_file(d.file("run.inp"), k.control);
    for (std::size_t f = 0; f + 1 < k.files.size(); f += 2)
      qt::write_file(d.file(k.files[f]), k.files[f + 1]);
  }
  // The stopping case last written: run it, and a usage stop, many times.
  in_process(d, {"run.inp", "1"});
  const int before = qt::open_descriptors();
  for (int i = 0; i < 200; ++i) {
    in_process(d, {"run.inp", "1"});
    in_process(d, {});
  }
  EXPECT_EQ(qt::open_descriptors(), before);
}
