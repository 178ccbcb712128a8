// Rows that don't depend on the unit of length: one survey, its mesh,
// topography and data scaled by factors from 1e-3 to 1e3 and shifted to a
// map origin far from 0, run whole and read back by the tests' own reader.
// A prism's sensitivity is a volume integral of 1 / r^3, so a scaled geometry
// gives the same row.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "support/matrix_reader.hpp"
#include "support/test_support.hpp"

namespace {

// The survey at factor 1: a 12 x 10 x 8 mesh of widths 1 to 2 (node eastings
// 0 1 2 3 4 6 7.5 9 10.5 11.5 12.5 13.5 14.5, northings every 1.25, node
// elevations 10 9 8 6.5 5 3.5 1.5 -0.5 -2.5) under a ground falling to the
// east from 9.2 to 8.3; surface data above it and boreholes below it, the
// last five on one node plane each (easting, northing or elevation).
const double survey_data[][3] = {{5.3, 4.1, 10.5}, {2.2, 7.9, 11.0}, {12.9, 0.6, 9.6},
                                 {6.3, 3.3, 7.1},  {9.6, 8.8, 4.4},  {1.7, 5.4, -1.2},
                                 {4.0, 6.2, 10.3}, {7.7, 5.0, 10.2}, {9.0, 3.3, 6.0},
                                 {11.2, 7.5, 2.7}, {5.3, 2.7, 5.0}};
const std::size_t ndata = 11, on_plane = 6;

// scaled_run: the rows of a whole run with every length times f and the map
// origin (east, north) added after, and the log's counts of cells and data.
struct scaled_run {
  std::vector<std::vector<float>> rows;
  std::string counts;
};

scaled_run run_at(double f, double east, double north) {
  qt::scratch_dir dir("qscale");
  std::ostringstream mesh, obs, topo;
  for (auto* s : {&mesh, &obs, &topo}) s->precision(15);
  mesh << "12 10 8\n"
       << east << " " << north << " " << f * 10 << "\n4*" << f << " " << 2 * f << " 3*" << 1.5 * f
       << " 4*" << f << "\n10*" << 1.25 * f << "\n2*" << f << " 3*" << 1.5 * f << " 3*" << 2 * f
       << "\n";
  obs << "65.0 -12.0 52000.0\n58.0 20.0 1\n" << ndata << "\n";
  for (const auto& d : survey_data)
    obs << east + f * d[0] << " " << north + f * d[1] << " " << f * d[2] << "\n";
  // Four points far outside the mesh: a plane z = 10.5 - 3.5 (x + 20) / 55.
  topo << "4\n";
  for (double x : {-20.0, 35.0})
    for (double y : {-30.0, 40.0})
      topo << east + f * x << " " << north + f * y << " " << f * (10.5 - 3.5 * (x + 20) / 55)
           << "\n";
  qt::write_file(dir.file("mesh.txt"), mesh.str());
  qt::write_file(dir.file("obs.mag"), obs.str());
  qt::write_file(dir.file("topo.txt"), topo.str());
  qt::write_file(dir.file("run.inp"), "mesh.txt\nobs.mag\ntopo.txt\nVALUE 1.0\nNONE\nnull\n0\n");
  const qt::program_run r = qt::run_program(dir.path.string(), {"run.inp", "2"});
  EXPECT_EQ(r.status, 0) << r.screen;
  scaled_run out;
  std::istringstream log(qt::read_file(dir.file("quolvent.log")));
  for (std::string line; std::getline(log, line);)
    if (line.find("# of") != std::string::npos || line.find("edge") != std::string::npos)
      out.counts += line + "\n";
  const std::vector<std::string> recs = matrix_records(dir.file("dulmarok.mtx"));
  EXPECT_EQ(recs.size(), 7 + ndata);
  for (std::size_t i = 6; i + 1 < recs.size(); ++i)
    out.rows.push_back(values_of<float>(recs[i], 0, recs[i].size() / 4));
  return out;
}

}  // namespace

// Down to millimetres and up to kilometres, and moved to a map origin. With
// cells of 1e-3 at a northing of 7e6 a double keeps only about seven digits
// within a cell, too few for 1e-6: the far origin is taken from 1e-2 up. Data
// on a node plane agree to 1e-3 of the row maximum, the others to 1e-6: the
// plane's value at factor 1 stands for a limit, by an offset of 0.001 of a
// unit cell; from 1 up that offset stays 0.001 in file units.
TEST(Scale, RowsAreTheSameAtEveryScaleAndMapOrigin) {
  const scaled_run ref = run_at(1.0, 0.0, 0.0);
  ASSERT_EQ(ref.rows.size(), ndata);
  EXPECT_NE(ref.counts.find("# of borehole data:       6"), std::string::npos) << ref.counts;
  const double placements[][3] = {{1e-3, 0, 0}, {1e3, 0, 0}, {1e-2, 5e5, 7e6}, {1e3, 5e5, 7e6}};
  for (const auto& [f, east, north] : placements) {
    SCOPED_TRACE(testing::Message() << "factor " << f << " origin " << east << " " << north);
    const scaled_run r = run_at(f, east, north);
    EXPECT_EQ(r.counts, ref.counts);
    ASSERT_EQ(r.rows.size(), ndata);
    for (std::size_t i = 0; i < ndata; ++i) {
      double top = 0.0, diff = 0.0;
      for (std::size_t k = 0; k < ref.rows[i].size(); ++k) {
        top = std::max(top, std::fabs(double{ref.rows[i][k]}));
        diff = std::max(diff, std::fabs(double{ref.rows[i][k]} - double{r.rows[i].at(k)}));
      }
      EXPECT_LE(diff, (i >= on_plane ? 1e-3 : 1e-6) * top) << "datum " << i + 1;
    }
  }
}
