// The control file: its fields and its echo in the log. The failure reports
// are checked on whole runs (test_program.cpp).
#include <gtest/gtest.h>

#include "run/control_file.hpp"
#include "support/test_support.hpp"

using namespace quolvent;

namespace {

const std::string rule = "\n" + std::string(64, '-') + "\n\n";

struct control_case {
  qt::scratch_dir dir{"qctl"};
  std::string name;
  explicit control_case(const std::string& text) {
    name = dir.file("run.inp");
    qt::write_file(name, text);
  }
};

}  // namespace

TEST(ControlFile, FieldsFollowTheLineRules) {
  control_case c(
      "mesh.txt ! the mesh\n"
      "  obs.mag\n"
      "!no topography\n"
      "VALUE 2.5 ! weights\n"
      "null and more\n"
      "1 0.05 ! eps\n"
      "1 ! write the diagnostic files\n"
      "an eighth line\n");
  qt::capture cap;
  const run_params params = read_control_file(c.name, cap.out);
  EXPECT_EQ(params.mesh_file, "mesh.txt");
  EXPECT_EQ(params.obs_file, "  obs.mag");
  EXPECT_EQ(params.topo_file, "");
  EXPECT_EQ(params.weight_file, "VALUE 2.5");
  EXPECT_EQ(params.wavelet, "daub2");
  EXPECT_EQ(params.eps_line, "1 0.05");
  EXPECT_TRUE(params.diag_flag);
  EXPECT_EQ(cap.screen(), "");
}

TEST(ControlFile, WaveletFieldTakesFiveCharactersAndNoCommentCut) {
  const struct { const char* line; const char* wavelet; } cases[] = {
      {"NULL", "daub2"}, {"Null", "Null "}, {"NONE ! none", "NONE "},
      {"daub2!", "daub2"}, {"daub!", "daub!"}, {"symm4", "symm4"}, {"", "     "},
  };
  for (const auto& k : cases) {
    control_case c(std::string("m\no\nt\nw\n") + k.line + "\nnull\n0\n");
    qt::capture cap;
    const run_params params = read_control_file(c.name, cap.out);
    EXPECT_EQ(params.wavelet, k.wavelet) << k.line;
    EXPECT_FALSE(params.diag_flag);
  }
}

TEST(ControlFile, LogEchoCutsLinesAt200AndParsesUpTo500) {
  const std::string long_name = std::string(300, 'm');
  const std::string text = long_name + "   \no\nt\nw\ndaub3\nnull\n0\nextra   \n";
  control_case c(text);
  qt::capture cap;
  EXPECT_EQ(read_control_file(c.name, cap.out).mesh_file, long_name);
  const std::string expected = "\nReading input file: " + c.name + "\n" + rule + std::string(200, 'm') +
                               "\no\nt\nw\ndaub3\nnull\n0\nextra\n" + rule;
  EXPECT_EQ(cap.log(), expected);
  // A field longer than 500 characters is cut at 500.
  control_case d(std::string(600, 'x') + "\no\nt\nw\ndaub3\nnull\n0\n");
  EXPECT_EQ(read_control_file(d.name, cap.out).mesh_file, std::string(500, 'x'));
}
