// Rows that don't depend on the unit of length: one survey, its mesh,
// topography and data scaled by factors from 1e-3 to 1e3 and shifted to a
// map origin far from 0, run whole and read back by the tests' own reader.
// A prism's sensitivity is a volume integral of 1 / r^3, so a scaled geometry
// gives the same row. The regular survey test takes the same verdict at
// every scale.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "model/mesh.hpp"
#include "model/model.hpp"
#include "sens/grid_check.hpp"
#include "support/matrix_reader.hpp"
#include "support/test_support.hpp"

using namespace quolvent;

namespace {

// num: a length as a user writes it in a file.
std::string num(double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.15g", v);
  return buf;
}

// placement: the factor on every length, and the map origin added to the
// eastings and northings after it.
struct placement {
  double f;
  double east, north;
};

struct datum {
  double x, y, z;
  bool on_plane;  // exactly on a node plane of one axis
};

// The survey at factor 1: a 12 x 10 x 8 mesh of widths 1 to 2 (node eastings
// 0 1 2 3 4 6 7.5 9 10.5 11.5 12.5 13.5 14.5, northings every 1.25, node
// elevations 10 9 8 6.5 5 3.5 1.5 -0.5 -2.5) under a ground falling to the
// east from 9.2 to 8.3; surface data above it and boreholes below it, five
// of them on one node plane each (easting, northing or elevation).
const std::vector<datum> survey_data{
    {5.3, 4.1, 10.5, false}, {2.2, 7.9, 11.0, false}, {12.9, 0.6, 9.6, false},
    {6.3, 3.3, 7.1, false},  {9.6, 8.8, 4.4, false},  {1.7, 5.4, -1.2, false},
    {4.0, 6.2, 10.3, true},  {7.7, 5.0, 10.2, true},  {9.0, 3.3, 6.0, true},
    {11.2, 7.5, 2.7, true},  {5.3, 2.7, 5.0, true},
};

// write_survey: the mesh, data, topography and control files of the survey
// at placement p.
void write_survey(const qt::scratch_dir& dir, const placement& p) {
  const double f = p.f;
  auto e = [&](double x) { return num(p.east + f * x); };
  auto n = [&](double y) { return num(p.north + f * y); };
  qt::write_file(dir.file("mesh.txt"),
                 "12 10 8\n" + e(0) + " " + n(0) + " " + num(f * 10) + "\n4*" + num(f) + " " +
                     num(2 * f) + " 3*" + num(1.5 * f) + " 4*" + num(f) + "\n10*" +
                     num(1.25 * f) + "\n2*" + num(f) + " 3*" + num(1.5 * f) + " 3*" +
                     num(2 * f) + "\n");
  std::ostringstream obs;
  obs << "65.0 -12.0 52000.0\n58.0 20.0 1\n" << survey_data.size() << "\n";
  for (const datum& d : survey_data) obs << e(d.x) << " " << n(d.y) << " " << num(f * d.z) << "\n";
  qt::write_file(dir.file("obs.mag"), obs.str());
  // Four points far outside the mesh: a plane z = 10.5 - 3.5 (x + 20) / 55.
  std::ostringstream topo;
  topo << "4\n";
  for (double x : {-20.0, 35.0})
    for (double y : {-30.0, 40.0})
      topo << e(x) << " " << n(y) << " " << num(f * (10.5 - 3.5 * (x + 20) / 55)) << "\n";
  qt::write_file(dir.file("topo.txt"), topo.str());
  qt::write_file(dir.file("run.inp"), "mesh.txt\nobs.mag\ntopo.txt\nVALUE 1.0\nNONE\nnull\n0\n");
}

// write_grid: a regular survey over a uniform 16 x 14 x 6 mesh of unit cells
// at placement p: data over every other cell centre, half a cell above the
// top, no topography.
void write_grid(const qt::scratch_dir& dir, const placement& p) {
  const double f = p.f;
  qt::write_file(dir.file("mesh.txt"), "16 14 6\n" + num(p.east) + " " + num(p.north) + " " +
                                           num(f * 3) + "\n16*" + num(f) + "\n14*" + num(f) +
                                           "\n6*" + num(f) + "\n");
  std::ostringstream obs;
  obs << "65.0 -12.0 52000.0\n58.0 20.0 1\n" << 8 * 7 << "\n";
  for (int j = 0; j < 7; ++j)
    for (int i = 0; i < 8; ++i)
      obs << num(p.east + f * (0.5 + 2 * i)) << " " << num(p.north + f * (0.5 + 2 * j)) << " "
          << num(f * 3.5) << "\n";
  qt::write_file(dir.file("obs.mag"), obs.str());
  qt::write_file(dir.file("run.inp"), "mesh.txt\nobs.mag\nnull\nVALUE 1.0\nNONE\nnull\n0\n");
}

using writer = void (*)(const qt::scratch_dir&, const placement&);

// scaled_run: the rows of a whole run at placement p, and its log.
struct scaled_run {
  std::vector<std::vector<float>> rows;
  std::string log;
};

scaled_run run_at(writer write, const placement& p) {
  qt::scratch_dir dir("qscale");
  write(dir, p);
  const qt::program_run r = qt::run_program(dir.path.string(), {"run.inp", "2"});
  EXPECT_EQ(r.status, 0);
  scaled_run out;
  out.log = qt::read_file(dir.file("quolvent.log"));
  const std::vector<std::string> recs = matrix_records(dir.file("dulmarok.mtx"));
  if (recs.empty()) {
    ADD_FAILURE() << "no matrix file at factor " << p.f << "\n" << r.screen;
    return out;
  }
  const auto sizes = values_of<int32_t>(recs[0], 0, 2);
  const std::size_t ndata = static_cast<std::size_t>(sizes[0]);
  const std::size_t n = static_cast<std::size_t>(sizes[1]);
  EXPECT_EQ(recs.size(), 7 + ndata);
  for (std::size_t i = 0; i < ndata && 6 + i < recs.size(); ++i)
    out.rows.push_back(values_of<float>(recs[6 + i], 0, n));
  return out;
}

// counts: the lines of the log that say what the run made of the survey.
std::string counts(const std::string& log) {
  std::string s;
  for (const char* label : {"# of cells below topo:", "# of surface  data:", "# of borehole data:"}) {
    const std::size_t p = log.find(label);
    s += p == std::string::npos ? std::string("none") : log.substr(p, log.find('\n', p) - p);
    s += "\n";
  }
  return s;
}

// expect_same_rows: the rows of r agree with those of ref to rel_tol(i) of
// the largest entry of each row of ref.
template <typename F>
void expect_same_rows(const scaled_run& ref, const scaled_run& r, F rel_tol) {
  EXPECT_EQ(counts(r.log), counts(ref.log));
  EXPECT_EQ(r.log.find("edge"), std::string::npos);
  ASSERT_EQ(r.rows.size(), ref.rows.size());
  for (std::size_t i = 0; i < ref.rows.size(); ++i) {
    const std::vector<float>& a = ref.rows[i];
    const std::vector<float>& b = r.rows[i];
    ASSERT_EQ(b.size(), a.size());
    double top = 0.0, diff = 0.0;
    for (std::size_t k = 0; k < a.size(); ++k) {
      top = std::max(top, std::fabs(double{a[k]}));
      diff = std::max(diff, std::fabs(double{a[k]} - double{b[k]}));
    }
    EXPECT_GT(top, 0.0);
    EXPECT_LE(diff, rel_tol(i) * top) << "datum " << i + 1;
  }
}

// Placements: the unit scaled down to millimetres and up to kilometres, and
// moved to a map origin. With cells of 1e-3 at a northing of 7e6 a double
// keeps only about seven digits within a cell, too few for 1e-6: the far
// origin is taken from cells of 1e-2 up.
const placement placements[] = {{1e-3, 0, 0},           {1e-2, 0, 0},
                                {1e3, 0, 0},            {1e-2, 500000, 7000000},
                                {1.0, 500000, 7000000}, {1e3, 500000, 7000000}};

}  // namespace

// The general survey: data on a node plane agree to 1e-3 of the row maximum,
// the others to 1e-6. The plane's value at factor 1 stands for a limit, by
// an offset of 0.001 of a unit cell; from 1 up that offset stays 0.001 in
// file units, which brings the rows nearer the limit.
TEST(Scale, RowsAreTheSameAtEveryScaleAndMapOrigin) {
  const scaled_run ref = run_at(write_survey, {1.0, 0.0, 0.0});
  ASSERT_EQ(ref.rows.size(), survey_data.size());
  EXPECT_NE(counts(ref.log).find("# of borehole data:       6"), std::string::npos)
      << counts(ref.log);
  for (const placement& p : placements) {
    SCOPED_TRACE(testing::Message() << "factor " << p.f << " origin " << p.east << " " << p.north);
    expect_same_rows(ref, run_at(write_survey, p),
                     [](std::size_t i) { return survey_data[i].on_plane ? 1e-3 : 1e-6; });
  }
}

// The regular survey at every scale: its rows agree to 1e-6; and the regular
// survey test passes a grid and fails a line of data whose last gap is half
// the others, also where half a gap is below 0.001 in file units.
TEST(Scale, RegularSurveyAtEveryScale) {
  const scaled_run ref = run_at(write_grid, {1.0, 0.0, 0.0});
  ASSERT_EQ(ref.rows.size(), 56u);
  for (const placement& p : placements) {
    SCOPED_TRACE(testing::Message() << "factor " << p.f << " origin " << p.east << " " << p.north);
    expect_same_rows(ref, run_at(write_grid, p), [](std::size_t) { return 1e-6; });
    const double f = p.f;
    const mesh_model mesh = qt::uniform_mesh(16, 14, 6, f, f, f, p.east, p.north, 3 * f);
    for (const bool even : {true, false}) {
      obs_set obs = qt::field(65, -12, 58, 20);
      for (const double y : {0.5, 2.5, 4.5})
        for (const double x : {0.5, 2.5, 4.5, even ? 6.5 : 5.5})
          qt::add_datum(obs, p.east + f * x, p.north + f * y, 3.5 * f);
      const grid_survey g = grid_check(mesh, obs, datum_kind::surface);
      EXPECT_EQ(g.regular, even);
      if (even) EXPECT_EQ(g.ref_datum, 12);  // (6.5, 4.5), nearest the centre (8, 7)
    }
  }
}
