// The sensitivity model and the data files, line by line.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "model/model.hpp"
#include "output/diagnostic_files.hpp"
#include "support/test_support.hpp"

TEST(WriteSensitivityModel, AirCellsAndValuesOverVolume) {
  qt::scratch_dir dir;
  dir.cd();
  mesh = mesh_model{};
  mesh.ny = 2;
  mesh.nx = 2;
  mesh.nz = 3;
  mesh.dy = {2, 4};
  mesh.dx = {1, 5};
  mesh.dz = {10, 0.5, 2};
  const std::vector<int32_t> tops = {0, 3, 1, 2};  // (iy, ix), iy fastest
  // Columns in file order (iy outermost): (1,1) top 0, (1,2) top 1, (2,1) top 3,
  // (2,2) top 2.
  const std::vector<double> v = {20, -3, 4, 50, 1, 80};
  write_sensitivity_model(v, tops, "sens.txt");
  const std::vector<std::string> want = {
      " 1.00000E+00",   // 20 / (10 * 1 * 2)
      "-3.00000E+00",   // -3 / (0.5 * 1 * 2)
      " 1.00000E+00",   // 4 / (2 * 1 * 2)
      " 1.0E-20",
      " 1.00000E+01",   // 50 / (0.5 * 5 * 2)
      " 5.00000E-02",   // 1 / (2 * 5 * 2)
      " 1.0E-20", " 1.0E-20", " 1.0E-20",
      " 1.0E-20", " 1.0E-20",
      " 2.00000E+00",   // 80 / (2 * 5 * 4)
  };
  EXPECT_EQ(qt::read_lines("sens.txt"), want);

  // A cell of no volume shows 0, not Inf.
  mesh.dz = {10, 0, 2};
  write_sensitivity_model(v, tops, "sens0.txt");
  EXPECT_EQ(qt::read_lines("sens0.txt")[1], " 0.00000E+00");

  // Fewer values than cells below the ground: an orderly stop.
  qt::capture cap;
  EXPECT_THROW(write_sensitivity_model({1, 2}, tops, "short.txt"), qt::stop_caught);
}

TEST(WriteDataFile, HeaderAndLinesForBothDirectionForms) {
  qt::scratch_dir dir;
  dir.cd();
  obs = obs_set{};
  obs.incl = 65.5;
  obs.decl = -3.25;
  obs.geomag = 51234.5;
  obs.aincl = 90;
  obs.adecl = 0;
  obs.idir = 1;
  obs.ndata = 2;
  obs.obs_x = {1234.5, -20};
  obs.obs_y = {-0.125, 3e5};
  obs.obs_z = {100, 0};
  write_data_file("d1.txt", {0.5, -1234.5678});
  const std::vector<std::string> want1 = {
      "     65.50     -3.25  51234.50  !! incl, decl, geomag",
      "     90.00      0.00      1     !! aincl, adecl, idir",
      "      2                         !! # of data",
      "  1.234500000E+03 -1.250000000E-01  1.000000000E+02    5.000000E-01",
      " -2.000000000E+01  3.000000000E+05  0.000000000E+00   -1.234568E+03",
  };
  EXPECT_EQ(qt::read_lines("d1.txt"), want1);

  obs.idir = 0;
  obs.obs_aincl = {45, -12.5};
  obs.obs_adecl = {100.25, 0};
  write_data_file("d0.txt", {0.5, 2});
  const std::vector<std::string> lines = qt::read_lines("d0.txt");
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[1], "     90.00      0.00      0     !! aincl, adecl, idir");
  EXPECT_EQ(lines[3],
            "  1.234500000E+03 -1.250000000E-01  1.000000000E+02    4.5000E+01  1.0025E+02"
            "    5.000000E-01");
}
