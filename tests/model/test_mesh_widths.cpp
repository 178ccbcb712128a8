// Cell widths that are not positive: the mesh reader names the first one in
// the order of the file (easting, northing, then the layers). The length
// scale of a mesh: its smallest width, never above 1.
#include <gtest/gtest.h>

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

TEST(MeshWidths, LengthScaleIsTheSmallestWidthUpToOne) {
  EXPECT_EQ(mesh_length_scale(qt::uniform_mesh(3, 2, 2, 20, 5, 10)), 1.0);
  EXPECT_EQ(mesh_length_scale(qt::uniform_mesh(3, 2, 2, 1, 1, 1)), 1.0);
  EXPECT_EQ(mesh_length_scale(qt::uniform_mesh(3, 2, 2, 0.02, 0.5, 0.01)), 0.01);
  mesh_model m = qt::uniform_mesh(3, 2, 2, 20, 5, 10);
  m.dy[1] = 0.25;
  EXPECT_EQ(mesh_length_scale(m), 0.25);
  EXPECT_EQ(mesh_length_scale(qt::uniform_mesh(0, 0, 0, 1, 1, 1)), 1.0);
}
