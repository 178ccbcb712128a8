// The control file: its fields and its echo in the log. The failure reports
// are checked on whole runs (test_program.cpp).
#include <gtest/gtest.h>

#include <tuple>

#include "run/control_file.hpp"
#include "support/test_support.hpp"

using namespace quolvent;

namespace {

// read_text: the control file of text read with cap's log.
run_params read_text(const std::string& text, qt::capture& cap) {
  qt::scratch_dir dir("qctl");
  qt::write_file(dir.file("run.inp"), text);
  return read_control_file(dir.file("run.inp"), cap.out);
}

}  // namespace

TEST(ControlFile, FieldsFollowTheLineRules) {
  qt::capture cap;
  const run_params p = read_text(
      "mesh.txt ! the mesh\n  obs.mag\n!no topography\nVALUE 2.5 ! weights\nnull and more\n"
      "1 0.05 ! eps\n1 ! write the diagnostic files\nan eighth line\n",
      cap);
  EXPECT_EQ(std::tie(p.mesh_file, p.obs_file, p.topo_file, p.weight_file, p.wavelet, p.eps_line),
            std::make_tuple("mesh.txt", "  obs.mag", "", "VALUE 2.5", "daub2", "1 0.05"));
  EXPECT_TRUE(p.write_diagnostics);
  EXPECT_EQ(cap.screen(), "");
}

TEST(ControlFile, WaveletFieldTakesFiveCharactersAndNoCommentCut) {
  const struct {
    const char* line;
    const char* wavelet;
  } cases[] = {{"NULL", "daub2"}, {"Null", "Null "},   {"NONE ! none", "NONE "},
               {"daub!", "daub!"}, {"symm4", "symm4"}, {"", "     "}};
  for (const auto& k : cases) {
    qt::capture cap;
    EXPECT_EQ(read_text(std::string("m\no\nt\nw\n") + k.line + "\nnull\n0\n", cap).wavelet,
              k.wavelet) << k.line;
  }
}

// The echo cuts lines at 200 characters and trailing blanks; a field is read
// up to 500.
TEST(ControlFile, LogEchoCutsLinesAt200AndParsesUpTo500) {
  qt::capture cap;
  EXPECT_EQ(read_text(std::string(300, 'm') + "   \no\nt\nw\ndaub3\nnull\n0\nextra   \n", cap)
                .mesh_file,
            std::string(300, 'm'));
  const std::string rule = "\n" + std::string(64, '-') + "\n\n";
  EXPECT_TRUE(cap.log().ends_with(rule + std::string(200, 'm') +
                                  "\no\nt\nw\ndaub3\nnull\n0\nextra\n" + rule));
  EXPECT_EQ(read_text(std::string(600, 'x') + "\no\nt\nw\ndaub3\nnull\n0\n", cap).mesh_file,
            std::string(500, 'x'));
}
