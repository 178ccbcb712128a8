// The control file: its fields, its echo in the log and its failure report.
#include <gtest/gtest.h>

#include "model/model.hpp"
#include "run/control_file.hpp"
#include "support/test_support.hpp"

namespace {

const std::string sample =
    "\nSample quolvent input file: (! must precede comments)\n\n"
    "mesh         ! mesh file\nobs.mag      ! data file\ntopo.dat     ! topography\n"
    "distance_weight.txt  ! weight file\ndaub2        ! wavelet: daubx, symmx, NONE\n"
    "1  0.05      ! itol, eps | null\n0-not output, 1-output diagnostic files\n\n";

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
  read_control_file(c.name);
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
    read_control_file(c.name);
    EXPECT_EQ(params.wavelet, k.wavelet) << k.line;
    EXPECT_FALSE(params.diag_flag);
  }
}

TEST(ControlFile, LogEchoCutsLinesAt200AndParsesUpTo500) {
  const std::string long_name = std::string(300, 'm');
  const std::string text = long_name + "   \no\nt\nw\ndaub3\nnull\n0\nextra   \n";
  control_case c(text);
  qt::capture cap;
  read_control_file(c.name);
  EXPECT_EQ(params.mesh_file, long_name);
  const std::string expected = "\nReading input file: " + c.name + "\n" + rule + std::string(200, 'm') +
                               "\no\nt\nw\ndaub3\nnull\n0\nextra\n" + rule;
  EXPECT_EQ(cap.log(), expected);
  // A field longer than 500 characters is cut at 500.
  control_case d(std::string(600, 'x') + "\no\nt\nw\ndaub3\nnull\n0\n");
  read_control_file(d.name);
  EXPECT_EQ(params.mesh_file, std::string(500, 'x'));
}

TEST(ControlFile, FailureReportsShowTheSample) {
  {
    control_case c("m\no\nt\nw\ndaub2\nnull\n");  // six lines
    qt::capture cap;
    EXPECT_THROW(read_control_file(c.name), qt::stop_caught);
    EXPECT_EQ(cap.screen(), "ERROR reading sensitivity input file " + c.name + "\n" + sample);
    EXPECT_EQ(cap.log(), "\nReading input file: " + c.name + "\n" + rule + "m\no\nt\nw\ndaub2\nnull\n" +
                             rule + sample);
  }
  {
    control_case c("m\no\nt\nw\ndaub2\nnull\n2\n");
    qt::capture cap;
    EXPECT_THROW(read_control_file(c.name), qt::stop_caught);
    EXPECT_EQ(cap.screen(),
              "\nERROR: enter 0 to not output, or 1 to output average uncompressed\n"
              "sensitivity model file.\n\nERROR reading sensitivity input file " +
                  c.name + "\n" + sample);
  }
  {
    control_case c("m\no\nt\nw\ndaub2\nnull\nyes\n");
    qt::capture cap;
    EXPECT_THROW(read_control_file(c.name), qt::stop_caught);
    EXPECT_EQ(cap.screen(), "ERROR reading sensitivity input file " + c.name + "\n" + sample);
  }
  {
    qt::capture cap;
    EXPECT_THROW(read_control_file("/nonexistent/run.inp   "), qt::stop_caught);
    EXPECT_EQ(cap.screen(), "\n ERROR: input file not found: /nonexistent/run.inp\n");
  }
}

TEST(ControlFile, InpPrintsTheSampleOnBothChannels) {
  qt::capture cap;
  EXPECT_THROW(read_control_file("-inp   "), qt::stop_caught);
  EXPECT_EQ(cap.screen(), sample);
  EXPECT_EQ(cap.log(), sample);
}
