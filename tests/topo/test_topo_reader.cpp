// Topography reader and column tops: the exact texts of every failure, the warning, the
// frame at the mesh corners, and the tops of grounds of known shape, flat ones on layer boundaries.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <iomanip>
#include <sstream>

#include "model/mesh.hpp"
#include "model/model.hpp"
#include "support/test_support.hpp"
#include "topo/column_tops.hpp"
#include "topo/ground.hpp"

using namespace quolvent;

namespace {

// 30 x 30 columns of 20 m from (0, 0); 15 layers of 5 m under a top at 100.
const mesh_model mesh30 = qt::uniform_mesh(30, 30, 15, 20.0, 20.0, 5.0, 0.0, 0.0, 100.0);

// Layers whose top lies above a ground at g.
int32_t layers_above(double g) {
  const auto above = [g](double z) { return mesh30.z0 - z > g; };
  return static_cast<int32_t>(std::count_if(mesh30.zn.begin(), mesh30.zn.end() - 1, above));
}

// A topography file of (easting, northing, elevation) points, to 12 digits.
std::string file_of(const std::vector<std::array<double, 3>>& p) {
  std::ostringstream s;
  s << p.size() << "\n" << std::setprecision(12);
  for (const auto& q : p) s << q[0] << " " << q[1] << " " << q[2] << "\n";
  return s.str();
}
// (m + 1)^2 points over [e0, e1] x [n0, n1] at elevation z.
std::string grid(double e0, double e1, double n0, double n1, int m, double z) {
  std::vector<std::array<double, 3>> p;
  for (int i = 0; i <= m; ++i)
    for (int j = 0; j <= m; ++j) p.push_back({e0 + (e1 - e0) * i / m, n0 + (n1 - n0) * j / m, z});
  return file_of(p);
}
// count points along a line at elevation z.
std::string line(double e0, double n0, double de, double dn, int count, double z) {
  std::vector<std::array<double, 3>> p;
  for (int i = 0; i < count; ++i) p.push_back({e0 + de * i, n0 + dn * i, z});
  return file_of(p);
}

// read_text: writes text as "topo.txt" and reads the named file over mesh. words: the screen,
// with "<stop>" behind it if the reader stopped (the log must agree); tops: the column tops.
struct reading { std::string words; std::vector<int32_t> tops; };
reading read_text(const std::string& text, const std::string& name = "topo.txt  ",
                  const mesh_model& mesh = mesh30) {
  qt::scratch_dir dir("topo");
  dir.cd();
  qt::write_file("topo.txt", text);
  qt::capture cap;
  reading r;
  const bool stopped = cap.stops([&] { r.tops = read_topography(name, mesh, cap.out); });
  EXPECT_EQ(cap.log(), cap.screen()) << text;
  r.words = cap.screen() + (stopped ? "<stop>" : "");
  return r;
}

}  // namespace

TEST(TopoReader, TextsOfFailuresAndWarningsAndTheTopsOfFlatGrounds) {
  const std::string read = "\nERROR reading topography file topo.txt", point = read + "\n<stop>";
  const std::string no_count = read + ": no number of points on its count line\n<stop>";
  const std::string outside = "\nError: Topography is outside the mesh.\n<stop>";
  const std::string collinear = "\nError: Points in the topography file are collinear.\n<stop>";
  const std::string warning = "Warning: Topography region is not large enough.\n";
  const std::string a = "  1.00000000E+01  2.00000000E+01\n";
  const std::string three = "10 10 90\n20 500 90\n500 20 90\n";
  struct {
    std::string text, words;
    double ground = NAN;  // of all columns, when the run goes on
    std::string name = "topo.txt  ";
  } cases[] = {
      // The file ends inside its points (no room made for the count); bad numbers.
      {"2000000000\n" + three, point}, {"3\n1 1 1\nabc 2 2\n3 3 3\n", point},
      {"! only comments\n! here\n", read + ": no count line\n<stop>"},
      {std::string(40, ' ') + "3\n" + three, no_count},  // behind the 40 characters
      {"", "\n ERROR: topography file not found: Null\n<stop>", NAN, "Null"}, {"0\n", outside},
      {file_of({{600, 10, 90}, {800, 10, 90}, {750, 300, 90}}), outside},  // touching
      // (10, 20) three times: 3 pairs; (30, 40) twice: 1; (10, 40) and
      // (30, 20) share one coordinate only. Elevations don't count.
      {file_of({{10, 20, 1}, {-5, -5, 90}, {30, 40, 5}, {10, 20, 2}, {610, -5, 90}, {10, 40, 7},
                {30, 20, 7}, {10, 20, 3}, {30, 40, 6}, {300, 610, 90}}),
       "\nDuplicate points:\n" + a + a + a + "  3.00000000E+01  4.00000000E+01\n\n"
       "Error: 4 duplicate points found in topography file.\n\n<stop>"},
      {line(300, -10, 0, 62, 11, 90), warning + collinear},
      // From (4, 1) on northing = 1.5 easting - 5: 4.1 from the corner (0, 0),
      // within a quarter cell, so no corner comes in; from (6, 4), 7.2 from it.
      {line(4, 1, 10, 15, 63, 90), collinear},
      {line(6, 4, 10, 15, 63, 91), "", 91},
      // A line inside the mesh: the corners come in off it, at its elevation.
      {line(100, 100, 40, 40, 11, 92), "", 92},
      {grid(0, 180, 0, 600, 4, 82), "", 82},  // exactly 0.3 of the plan: no warning
      {file_of({{-10, -10, 90}, {610, 610, 95}}), "", 0},  // no triangles: all 0.0
      // Comments ahead; the count in the 40 characters, text behind it lost.
      {"! a\n! b\n" + std::string(38, ' ') + "30 points" + grid(-9, 611, -9, 611, 5, 96).substr(2),
       "", 96},
      {"", "", 100, "NULL"}, {"", "", 100, "nullify.txt"},  // no file opened
      // Products of coordinates overflow: an orderly end all the same.
      {"5\n1 1 5\n590 2 40\n9 430 45\n1.7e308 1.7e308 1\n300 300 50\n", ""},
  };
  for (const auto& c : cases) {
    const reading r = read_text(c.text, c.name);
    EXPECT_EQ(r.words, c.words) << c.name << ":\n" << c.text;
    if (!std::isnan(c.ground))
      EXPECT_EQ(r.tops, std::vector<int32_t>(900, layers_above(c.ground))) << c.text;
  }
}

// The frame at the mesh's plan corners: the tops over clouds that leave
// every corner, the west corners, the south corners and one corner within a
// quarter cell, against the tops over the same cloud with the frame the user
// would expect given as points of the file (each corner beyond the cloud to
// the south or north and to the west or east, farther than a quarter cell
// from every point, at the elevation of the point nearest to it; corners
// given as points get no frame). A mesh longer than wide, off the origin, of
// 1 m layers: the corners' elevations apart by several layers.
TEST(TopoReader, FrameCornersTakeTheNearestPointsElevation) {
  const mesh_model m = qt::uniform_mesh(12, 7, 50, 10.0, 10.0, 1.0, 1000.0, 2000.0, 100.0);
  const double x1 = 1000, xe = 1120, y1 = 2000, ye = 2070;
  std::vector<std::array<double, 3>> cloud;
  for (int i = 0; i < 40; ++i)  // irrational steps: no four points on a circle
    cloud.push_back({x1 + 4 + 112 * std::fmod(i * 0.6180339887, 1.0),
                     y1 + 4 + 62 * std::fmod(i * 0.4142135623 + 0.3, 1.0),
                     55 + 40 * std::fmod(i * 0.7548776662, 1.0)});
  const std::array<double, 3> extra[] = {{0, 0, 0}, {x1 - 5, 2030, 80}, {1060, y1 - 5, 70},
                                         {xe - 1, ye - 1, 60}};
  for (const auto& e : extra) {
    std::vector<std::array<double, 3>> points = cloud, framed;
    if (e[0] != 0) points.push_back(e);
    for (const auto& [cx, cy] : {std::pair{x1, y1}, {x1, ye}, {xe, y1}, {xe, ye}}) {
      bool beyond_x = true, beyond_y = true;
      double nearest = 1e300, elevation = 0;
      for (const auto& p : points) {
        beyond_x &= cx == x1 ? p[0] > cx : p[0] < cx;
        beyond_y &= cy == y1 ? p[1] > cy : p[1] < cy;
        if (std::hypot(p[0] - cx, p[1] - cy) < nearest)
          nearest = std::hypot(p[0] - cx, p[1] - cy), elevation = p[2];
      }
      if (beyond_x && beyond_y && nearest > 2.5) framed.push_back({cx, cy, elevation});
    }
    EXPECT_EQ(framed.size(), e[0] == 0 ? 4u : e[0] == xe - 1 ? 3u : 2u);
    framed.insert(framed.end(), points.begin(), points.end());
    const reading got = read_text(file_of(points), "topo.txt", m);
    const reading want = read_text(file_of(framed), "topo.txt", m);
    EXPECT_EQ(got.words, "");
    EXPECT_EQ(got.tops, want.tops) << "with " << e[0] << " " << e[1];
  }
}

TEST(ColumnTops, TiesOnBoundariesAndTheLowestOfNineSamples) {
  // One column, three layers of 10 m under a top at 100. A ground on a boundary, or a
  // rounding error below it, takes the layer above it; 1e-11 below it the layer beneath.
  const double nan = NAN, inf = INFINITY;
  const std::vector<std::pair<double, int32_t>> cases{
      {150, 0}, {100, 0}, {std::nextafter(100, 0), 0}, {100 - 1e-11, 1}, {90, 1}, {85, 2},
      {70, 3}, {-1e300, 3}, {nan, 0}, {inf, 0}, {-inf, 3}};
  // All nine alike; then one of them, the others higher or not a number.
  for (int at = -1; at < 9; ++at)
    for (double other : {200.0, nan})
      for (const auto& [z, top] : cases) {
        std::vector<double> nine(9, at < 0 ? z : other);
        if (at >= 0) nine[at] = z;
        EXPECT_EQ(column_tops(nine, 1, 1, 3, {0, 10, 20, 30}, 100.0), std::vector<int32_t>{top})
            << z << " at " << at << " among " << other;
      }
}

// A level ground on a layer boundary, given by points at the mesh corners or far outside
// them, keeps exactly the cells below it, whatever the rounding of interpolation and sums;
// a millionth of a layer below it one layer more is above the ground, above it the same.
TEST(TopoReader, FlatGroundOnEveryLayerBoundaryKeepsTheCellsBelowIt) {
  // A mesh at a map origin with decimal widths and thicknesses whose sums carry rounding errors.
  qt::scratch_dir dir("flat");
  dir.cd();
  qt::write_file("mesh.txt", "12 9 7\n503117.3 7012345.9 1234.56\n3*12.3 6*7.7 3*12.3\n9*11.1\n"
                             "2*0.7 3*2.3 2*5.1\n");
  const mesh_model m = read_mesh("mesh.txt");
  const double x0 = m.xn.front(), x1 = m.xn.back(), y0 = m.yn.front(), y1 = m.yn.back();
  const double w = x1 - x0, h = y1 - y0;
  const std::array<double, 8> point_sets[] = {  // (easting, northing) of four points
      {x0, y0, x1, y0, x0, y1, x1, y1},
      {x0 - 37 * w, y0 - 3 * h, x1 + 5 * w, y0 - 71 * h, x0 - 2 * w, y1 + 13 * h, x1 + 101 * w,
       y1 + 7 * h}};
  for (const auto& p : point_sets)
    for (int32_t k = 0; k <= m.nz; ++k) {
      const double z = m.z0 - m.zn[k], dz = 1e-6 * m.dz[std::min(k, m.nz - 1)];
      for (const auto& [ground, above] :
           {std::pair{z, k}, {z - dz, std::min(k + 1, m.nz)}, {z + dz, k}}) {
        std::vector<std::array<double, 3>> points;
        for (int i = 0; i < 8; i += 2) points.push_back({p[i], p[i + 1], ground});
        const reading r = read_text(file_of(points), "topo.txt", m);
        EXPECT_EQ(r.tops, std::vector<int32_t>(static_cast<std::size_t>(m.nx * m.ny), above))
            << "ground " << ground;
      }
    }
}
