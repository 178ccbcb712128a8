// Cell widths that are not positive: the mesh reader names the first one in
// the order of the file (easting, northing, then the layers), and a run with
// one stops before it computes anything, leaving no matrix file. The length
// scale of a mesh: its smallest width, never above 1.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "base/stop.hpp"
#include "model/mesh.hpp"
#include "model/model.hpp"
#include "support/test_support.hpp"

using namespace quolvent;

TEST(MeshWidths, TheFirstWidthThatIsNotPositiveIsNamed) {
  const std::string e = "\nERROR reading mesh file: m.txt\nThe cell width ";
  const struct {
    std::string text, report;
  } cases[] = {
      {"30 2 2\n0 0 0\n29*20.0 -20.0\n2*5\n2*5\n", e + "30 along easting is not positive: -2.000000E+01\n"},
      {"3 2 2\n0 0 0\n0 1 1\n2*5\n2*5\n", e + "1 along easting is not positive: 0.000000E+00\n"},
      {"3 2 2\n0 0 0\n1 1 -0.0\n2*5\n2*5\n", e + "3 along easting is not positive: -0.000000E+00\n"},
      {"3 4 2\n0 0 0\n3*1\n5 5 0 -1\n2*5\n", e + "3 along northing is not positive: 0.000000E+00\n"},
      {"3 2 3\n0 0 0\n3*1\n2*5\n2.5, -1e-300 -7\n", e + "2 along depth is not positive: -1.000000E-300\n"},
      // Northing before depth, easting before both, whatever the signs.
      {"3 2 2\n0 0 0\n3*1\n5 -5\n-5 5\n", e + "2 along northing is not positive: -5.000000E+00\n"},
      {"3 2 2\n0 0 0\n1 1 -3\n0 5\n-5 5\n", e + "3 along easting is not positive: -3.000000E+00\n"},
  };
  for (const auto& c : cases) {
    qt::scratch_dir dir("widths");
    dir.cd();
    qt::write_file("m.txt", c.text);
    qt::capture cap;
    EXPECT_TRUE(cap.stops([] { read_mesh("m.txt  "); })) << c.text;
    EXPECT_EQ(cap.screen(), c.report) << c.text;
    EXPECT_EQ(cap.log(), c.report) << c.text;
  }
}

TEST(MeshWidths, ARunWithANegativeWidthLeavesNoMatrixFile) {
  qt::scratch_dir dir("widthrun");
  qt::write_file(dir.file("mesh.txt"), "30 10 4\n0 0 100\n29*20.0 -20.0\n10*20.0\n4*10.0\n");
  qt::write_file(dir.file("obs.mag"), "60 10 50000\n60 10 1\n1\n300 100 110\n");
  qt::write_file(dir.file("run.inp"), "mesh.txt\nobs.mag\nnull\nVALUE 1.0\ndaub2\n1 0.05\n1\n");
  const qt::program_run r = qt::run_program(dir.path.string(), {"run.inp", "1"});
  EXPECT_EQ(r.status, 0);
  const std::string report =
      "\nERROR reading mesh file: mesh.txt\nThe cell width 30 along easting is not positive: "
      "-2.000000E+01\n";
  EXPECT_NE(r.screen.find(report), std::string::npos) << r.screen;
  EXPECT_NE(qt::read_file(dir.file("quolvent.log")).find(report), std::string::npos);
  for (const char* f : {"dulmarok.mtx", "sensitivity.txt"})
    EXPECT_FALSE(std::filesystem::exists(dir.path / f)) << f;
}

TEST(MeshWidths, LengthScaleIsTheSmallestWidthUpToOne) {
  EXPECT_EQ(mesh_length_scale(qt::uniform_mesh(3, 2, 2, 20, 5, 10)), 1.0);
  EXPECT_EQ(mesh_length_scale(qt::uniform_mesh(3, 2, 2, 1, 1, 1)), 1.0);
  EXPECT_EQ(mesh_length_scale(qt::uniform_mesh(3, 2, 2, 0.02, 0.5, 0.01)), 0.01);
  mesh_model m = qt::uniform_mesh(3, 2, 2, 20, 5, 10);
  m.dy[1] = 0.25;
  EXPECT_EQ(mesh_length_scale(m), 0.25);
  EXPECT_EQ(mesh_length_scale(qt::uniform_mesh(0, 0, 0, 1, 1, 1)), 1.0);
}
