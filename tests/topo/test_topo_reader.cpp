#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>

#include "model/mesh.hpp"
#include "model/model.hpp"
#include "support/test_support.hpp"
#include "topo/column_tops.hpp"
#include "topo/topo_reader.hpp"

namespace {

// The mesh of the bundled example: 30 x 30 cells of 20 m from (0, 0), top
// at 100, layers 5 x 5 m, 5 x 10 m, 5 x 20 m.
void example_mesh() {
  mesh = mesh_model{};
  mesh.nx = 30;
  mesh.ny = 30;
  mesh.nz = 15;
  mesh.dx.assign(30, 20.0);
  mesh.dy.assign(30, 20.0);
  mesh.dz = {5, 5, 5, 5, 5, 10, 10, 10, 10, 10, 20, 20, 20, 20, 20};
  mesh.z0 = 100.0;
  mesh.xn = {0.0};
  mesh.yn = {0.0};
  mesh.zn = {0.0};
  for (double d : mesh.dx) mesh.xn.push_back(mesh.xn.back() + d);
  for (double d : mesh.dy) mesh.yn.push_back(mesh.yn.back() + d);
  for (double d : mesh.dz) mesh.zn.push_back(mesh.zn.back() + d);
}

// Layers whose top lies above a flat ground at g: the column top of a
// ground that is flat over the column.
int32_t layers_above(double g) {
  int32_t t = 0;
  for (int32_t k = 1; k <= mesh.nz; ++k)
    if (mesh.z0 - mesh.zn[k - 1] > g) ++t;
  return t;
}

struct topo_run {
  bool stopped = false;
  std::string screen, log;
};

// Writes text as "topo.txt" in a scratch directory and reads it.
topo_run read_text(const std::string& text) {
  qt::scratch_dir dir("topo");
  dir.cd();
  qt::write_file("topo.txt", text);
  qt::capture cap;
  topo_run r;
  top_index.assign(static_cast<std::size_t>(mesh.nx * mesh.ny), -1);
  try {
    read_topography("topo.txt  ");
  } catch (const qt::stop_caught&) {
    r.stopped = true;
  }
  r.screen = cap.screen();
  r.log = cap.log();
  return r;
}

// A file: the count, then the points one a line.
struct pt {
  double e, n, z;
};
std::string file_of(const std::vector<pt>& pts, const std::string& head = "") {
  std::ostringstream s;
  s.precision(17);
  s << head << pts.size() << "\n";
  for (const auto& p : pts) s << p.e << " " << p.n << " " << p.z << "\n";
  return s.str();
}

// A regular grid of points over [lo, hi]^2, elevations from f.
template <class F>
std::vector<pt> grid(double lo, double hi, int m, F f) {
  std::vector<pt> v;
  for (int i = 0; i <= m; ++i)
    for (int j = 0; j <= m; ++j) {
      const double e = lo + (hi - lo) * i / m, n = lo + (hi - lo) * j / m;
      v.push_back({e, n, f(e, n)});
    }
  return v;
}

const std::string kReadError = "\nERROR reading topography file topo.txt\n";

}  // namespace

TEST(TopoReader, FlatGroundOverTheWholeMesh) {
  example_mesh();
  // Values off the layer boundaries: interpolating a constant is exact only
  // to the last bit.
  for (double g : {120.0, 100.5, 97.5, 89.0, 61.0, 0.0, -500.0}) {
    const auto r = read_text(file_of(grid(-10, 610, 8, [&](double, double) { return g; })));
    ASSERT_FALSE(r.stopped) << r.screen;
    EXPECT_EQ(r.screen, "");
    EXPECT_EQ(top_index, std::vector<int32_t>(900, layers_above(g))) << g;
  }
}

TEST(TopoReader, SlopingPlaneTakesEachColumnsLowestCorner) {
  // Ground falling to the east and north; the plane is reproduced by the
  // surface, and its lowest point over a cell is the cell's north-east corner.
  example_mesh();
  auto ground = [](double e, double n) { return 99.0 - 0.05 * e - 0.03 * n; };
  const auto r = read_text("! a plane\n! two comment lines\n" + file_of(grid(-20, 620, 16, ground)));
  ASSERT_FALSE(r.stopped) << r.screen;
  EXPECT_EQ(r.screen, "");
  int checked = 0;
  for (int32_t ix = 1; ix <= 30; ++ix)
    for (int32_t iy = 1; iy <= 30; ++iy) {
      const double g = ground(mesh.xn[ix], mesh.yn[iy]);
      // Columns whose lowest corner sits on a layer boundary could go either
      // way by the last bit of the interpolation.
      if (layers_above(g - 1e-9) != layers_above(g + 1e-9)) continue;
      ++checked;
      ASSERT_EQ(top_at(iy, ix), layers_above(g)) << iy << " " << ix;
    }
  EXPECT_GT(checked, 800);
}

TEST(TopoReader, EastingAndNorthingAreNotMixedUp) {
  // Ground low in the west only: the western columns go deep.
  example_mesh();
  auto ground = [](double e, double) { return e < 300 ? 40.0 : 99.5; };
  std::vector<pt> pts;
  for (int i = 0; i <= 12; ++i)
    for (int j = 0; j <= 12; ++j) {
      const double e = -5 + 610.0 * i / 12 + (i == 6 ? -30 : 0), n = -5 + 610.0 * j / 12;
      pts.push_back({e, n, ground(e, n)});
    }
  const auto r = read_text(file_of(pts));
  ASSERT_FALSE(r.stopped) << r.screen;
  EXPECT_EQ(top_at(15, 1), layers_above(40.0));
  EXPECT_EQ(top_at(1, 5), layers_above(40.0));
  EXPECT_EQ(top_at(15, 30), 1);
  EXPECT_EQ(top_at(30, 25), 1);
}

TEST(TopoReader, CornerNodesTakeTheNearestPointsElevation) {
  // Points well inside the mesh, at 100 but for one near each corner, which
  // lies inside the hull of the others. Each plan corner becomes a node with
  // that point's elevation, and the corner column goes down to it.
  example_mesh();
  std::vector<pt> pts{{5, 300, 100},   {300, 5, 100},   {595, 300, 100}, {300, 595, 100},
                      {300, 300, 100}, {160, 160, 30},  {160, 440, 50},  {440, 160, 70},
                      {440, 440, 88}};
  const auto r = read_text(file_of(pts));
  ASSERT_FALSE(r.stopped) << r.screen;
  EXPECT_EQ(r.screen, "");
  EXPECT_EQ(top_at(1, 1), 10);    // corner (xn(1), yn(1)): 30
  EXPECT_EQ(top_at(30, 1), 8);    // corner (xn(1), yn(ny+1)): 50
  EXPECT_EQ(top_at(1, 30), 6);    // corner (xn(nx+1), yn(1)): 70
  EXPECT_EQ(top_at(30, 30), 3);   // corner (xn(nx+1), yn(ny+1)): 88
}

TEST(TopoReader, NoCornerWithinAQuarterCellOfAPoint) {
  // Points on the line y = 1.5 x - 5 (exact in binary), reaching beyond the
  // mesh to the east and north, so that only corner (0, 0) can come in.
  // Starting at (4, 1), 4.12 from that corner (tol = 5): no corner, and the
  // nodes are collinear. Starting at (6, 4), 7.2 from it: the corner comes in
  // off the line, and the run goes on.
  example_mesh();
  for (double x0 : {4.0, 6.0}) {
    std::vector<pt> line;
    for (int i = 0; i <= 62; ++i) {
      const double x = x0 + 10.0 * i;
      line.push_back({x, 1.5 * x - 5.0, 90});
    }
    const auto r = read_text(file_of(line));
    EXPECT_EQ(r.stopped, x0 == 4.0) << x0;
    EXPECT_EQ(r.screen, x0 == 4.0 ? "\nError: Points in the topography file are collinear.\n" : "");
  }
}

TEST(TopoReader, FileEndingInsideItsPoints) {
  example_mesh();
  auto r = read_text("5\n10 10 90\n20 500 90\n500 20 90\n");
  EXPECT_TRUE(r.stopped);
  EXPECT_EQ(r.screen, kReadError);
  EXPECT_EQ(r.log, kReadError);
  // A point cut short on the last line.
  r = read_text("3\n10 10 90\n20 500 90\n500 20\n");
  EXPECT_TRUE(r.stopped);
  EXPECT_EQ(r.screen, kReadError);
}

TEST(TopoReader, CountFarLargerThanThePointsPresent) {
  example_mesh();
  const auto r = read_text("2000000000\n10 10 90\n20 500 90\n500 20 90\n");
  EXPECT_TRUE(r.stopped);
  EXPECT_EQ(r.screen, kReadError);
}

TEST(TopoReader, BadValuesInAPoint) {
  example_mesh();
  for (const char* bad : {"3\n10 10 90\nabc 500 90\n500 20 90\n", "3\n10 10 90\n20 500 nan\n500 20 90\n",
                          "3\n10 10 90\n20 500 1e999\n500 20 90\n", "3\n10 10 90\n ! 20 500 90\n500 20 90\n"}) {
    const auto r = read_text(bad);
    EXPECT_TRUE(r.stopped) << bad;
    EXPECT_EQ(r.screen, kReadError) << bad;
  }
}

TEST(TopoReader, HeaderWithoutACount) {
  example_mesh();
  const std::string no_count = "\nERROR reading topography file topo.txt: no number of points on its count line\n";
  const std::string no_line = "\nERROR reading topography file topo.txt: no count line\n";
  struct {
    const char* text;
    const std::string& words;
  } cases[] = {
      {"! only comments\n! here\n", no_line},
      {"", no_line},
      {"three\n1 1 1\n", no_count},
      {"\n3\n1 1 1\n", no_count},
      {" ! not a comment line\n3\n", no_count},
      // The count stands behind the 40 characters of the count line.
      {"                                        3\n10 10 90\n20 500 90\n500 20 90\n", no_count},
  };
  for (const auto& c : cases) {
    const auto r = read_text(c.text);
    EXPECT_TRUE(r.stopped) << c.text;
    EXPECT_EQ(r.screen, c.words) << c.text;
    EXPECT_EQ(r.log, c.words) << c.text;
  }
  // Within the 40 characters it counts, and text behind the count is ignored.
  const auto r = read_text("                                      30 points\n" +
                           file_of(grid(-10, 610, 5, [](double, double) { return 95.0; }))
                               .substr(3));
  EXPECT_FALSE(r.stopped) << r.screen;
}

TEST(TopoReader, CloudOutsideTheMesh) {
  example_mesh();
  const std::string words = "\nError: Topography is outside the mesh.\n";
  const std::vector<std::vector<pt>> clouds{
      {{700, 10, 90}, {800, 10, 90}, {750, 300, 90}},    // east
      {{10, -700, 90}, {300, -800, 90}, {50, -300, 90}},  // south
      {{600, 10, 90}, {800, 10, 90}, {750, 300, 90}},    // touching the east side
      {{10, -70, 90}, {300, -80, 90}, {50, 0, 90}},      // touching the south side
  };
  for (const auto& c : clouds) {
    const auto r = read_text(file_of(c));
    EXPECT_TRUE(r.stopped);
    EXPECT_EQ(r.screen, words);
    EXPECT_EQ(r.log, words);
  }
  for (const char* none : {"0\n", "-4\n1 1 1\n"}) {
    const auto r = read_text(none);
    EXPECT_TRUE(r.stopped);
    EXPECT_EQ(r.screen, words);
  }
}

TEST(TopoReader, SmallCloudWarnsAndGoesOn) {
  example_mesh();
  const std::string words = "Warning: Topography region is not large enough.\n";
  // 170 of 600 along the easting: below 0.3 of the plan.
  auto small = grid(0, 1, 4, [](double, double) { return 82.0; });
  for (auto& p : small) {
    p.e *= 170;
    p.n *= 600;
  }
  auto r = read_text(file_of(small));
  ASSERT_FALSE(r.stopped) << r.screen;
  EXPECT_EQ(r.screen, words);
  EXPECT_EQ(r.log, words);
  EXPECT_EQ(top_index, std::vector<int32_t>(900, layers_above(82.0)));
  // Exactly 0.3: no warning.
  for (auto& p : small) p.e *= 180.0 / 170.0;
  r = read_text(file_of(small));
  ASSERT_FALSE(r.stopped) << r.screen;
  EXPECT_EQ(r.screen, "");
}

TEST(TopoReader, DuplicatePointsAreAllListedBeforeTheStop) {
  example_mesh();
  // (10, 20) three times: 3 pairs; (30, 40) twice: 1 pair; (10, 40) and
  // (30, 20) share one coordinate only. Elevations don't matter.
  const std::vector<pt> pts{{10, 20, 1}, {-5, -5, 90}, {30, 40, 5}, {10, 20, 2}, {610, -5, 90},
                            {10, 40, 7}, {30, 20, 7}, {10, 20, 3}, {30, 40, 6},  {300, 610, 90}};
  const auto r = read_text(file_of(pts));
  EXPECT_TRUE(r.stopped);
  const std::string a = "  1.00000000E+01  2.00000000E+01\n";
  const std::string b = "  3.00000000E+01  4.00000000E+01\n";
  const std::string words = "\nDuplicate points:\n" + a + a + a + b +
                            "\nError: 4 duplicate points found in topography file.\n\n";
  EXPECT_EQ(r.screen, words);
  EXPECT_EQ(r.log, words);
}

TEST(TopoReader, NegativeCoordinatesInTheDuplicateList) {
  example_mesh();
  const std::vector<pt> pts{{-12.5, 300, 1}, {-12.5, 300, 2}, {610, -5, 90}, {300, 610, 90}};
  const auto r = read_text(file_of(pts));
  EXPECT_TRUE(r.stopped);
  EXPECT_EQ(r.screen, "\nDuplicate points:\n -1.25000000E+01  3.00000000E+02\n"
                      "\nError: 1 duplicate points found in topography file.\n\n");
}

TEST(TopoReader, CollinearPoints) {
  example_mesh();
  const std::string words = "\nError: Points in the topography file are collinear.\n";
  // A diagonal over the whole mesh: no corner is added, and the nodes are on
  // one line.
  std::vector<pt> line;
  for (int i = 0; i <= 20; ++i) line.push_back({-10.0 + 31 * i, -10.0 + 31 * i, 90});
  auto r = read_text(file_of(line));
  EXPECT_TRUE(r.stopped);
  EXPECT_EQ(r.screen, words);
  EXPECT_EQ(r.log, words);
  // A north-south line across the mesh: it covers none of the plan area.
  std::vector<pt> ns;
  for (int i = 0; i <= 10; ++i) ns.push_back({300, -10.0 + 62 * i, 90});
  r = read_text(file_of(ns));
  EXPECT_TRUE(r.stopped);
  EXPECT_EQ(r.screen, "Warning: Topography region is not large enough.\n" + words);
  // A line inside the mesh: the corners come in off the line, and the run
  // goes on.
  std::vector<pt> inner;
  for (int i = 0; i <= 10; ++i) inner.push_back({100.0 + 40 * i, 100.0 + 40 * i, 92});
  r = read_text(file_of(inner));
  EXPECT_FALSE(r.stopped) << r.screen;
  EXPECT_EQ(r.screen, "");
  EXPECT_EQ(top_index, std::vector<int32_t>(900, layers_above(92.0)));
}

TEST(TopoReader, FewerThanThreeNodesGiveGroundAtZero) {
  example_mesh();
  // Two points whose box covers the mesh: no corner, no triangulation, every
  // sample 0.0.
  const auto r = read_text(file_of({{-10, -10, 90}, {610, 610, 95}}));
  ASSERT_FALSE(r.stopped) << r.screen;
  EXPECT_EQ(r.screen, "");
  EXPECT_EQ(top_index, std::vector<int32_t>(900, layers_above(0.0)));
}

TEST(TopoReader, MissingFile) {
  example_mesh();
  qt::scratch_dir dir;
  dir.cd();
  qt::capture cap;
  EXPECT_THROW(read_topography("no_such_topo.txt   "), qt::stop_caught);
  EXPECT_EQ(cap.screen(), "\n ERROR: topography file not found: no_such_topo.txt\n");
}

TEST(TopoReader, BundledExample) {
  // The example's topography covers the mesh, varies over several layers,
  // and keeps the ground at the borehole (310, 310) above its top datum at 45.
  qt::capture cap;
  read_mesh(QUOLVENT_SOURCE_DIR "/examples/mesh.txt");
  read_topography(QUOLVENT_SOURCE_DIR "/examples/topo.txt");
  EXPECT_EQ(cap.screen(), "");
  ASSERT_EQ(top_index.size(), 900u);
  const auto [lo, hi] = std::minmax_element(top_index.begin(), top_index.end());
  EXPECT_LE(*lo, 1);
  EXPECT_GE(*hi, 5);
  // Column of (310, 310): ix = iy = 16. Its top stays above the borehole's
  // depth of 60 (elevation 40): layer 7 ends at depth 45.
  EXPECT_LE(top_at(16, 16), 7);
  // Survey points at 105 are all above ground: the top never exceeds the
  // layers above 60.
  EXPECT_LE(*hi, layers_above(60.0));
}

TEST(TopoReader, CoordinatesWhoseArithmeticOverflows) {
  // Finite values so large that products of coordinate differences overflow
  // leave the tests of the triangulation without meaning. The run must end
  // in an orderly way: a stop with a message, or tops within the mesh.
  example_mesh();
  for (const char* huge : {"6e254", "-6e254", "1.7e308", "1e160"}) {
    const std::string big(huge);
    const auto r = read_text("5\n1 1 5\n590 2 40\n9 430 45\n" + big + " " + big + " 1\n300 300 50\n");
    if (r.stopped) {
      EXPECT_EQ(r.screen, "\nError: Points in the topography file are collinear.\n") << huge;
    } else {
      for (int32_t t : top_index) ASSERT_TRUE(t >= 0 && t <= mesh.nz) << huge;
    }
  }
}
