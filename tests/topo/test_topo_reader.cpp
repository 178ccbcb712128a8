// Topography reader and column tops: the exact texts of every failure, the
// warning, the corner nodes, and the tops of grounds of known shape.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <sstream>

#include "model/model.hpp"
#include "support/test_support.hpp"
#include "topo/column_tops.hpp"
#include "topo/ground.hpp"

using quolvent::top_at;

namespace {

// 30 x 30 columns of 20 m from (0, 0); 15 layers of 5 m under a top at 100.
const quolvent::mesh_model mesh30 = qt::uniform_mesh(30, 30, 15, 20.0, 20.0, 5.0, 0.0, 0.0, 100.0);

// Layers whose top lies above a ground at g.
int32_t layers_above(double g) {
  int32_t t = 0;
  for (int32_t k = 1; k <= mesh30.nz; ++k) t += mesh30.z0 - mesh30.zn[k - 1] > g;
  return t;
}

// A topography file of (easting, northing, elevation) points.
std::string file_of(const std::vector<std::array<double, 3>>& p) {
  std::ostringstream s;
  s << p.size() << "\n";
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

// read_text: writes text as "topo.txt" and reads the named file over mesh30.
// words: the screen, with "<stop>" behind it if the reader stopped (the log
// must agree); tops: the column tops when it went on.
struct reading {
  std::string words;
  std::vector<int32_t> tops;
};
reading read_text(const std::string& text, const std::string& name = "topo.txt  ") {
  qt::scratch_dir dir("topo");
  dir.cd();
  qt::write_file("topo.txt", text);
  qt::capture cap;
  reading r;
  const bool stopped =
      cap.stops([&] { r.tops = quolvent::read_topography(name, mesh30, cap.out); });
  EXPECT_EQ(cap.log(), cap.screen()) << text;
  r.words = cap.screen() + (stopped ? "<stop>" : "");
  return r;
}

}  // namespace

TEST(TopoReader, TextsOfFailuresAndWarningsAndTheTopsOfFlatGrounds) {
  const std::string read = "\nERROR reading topography file topo.txt", point = read + "\n<stop>";
  const std::string no_line = read + ": no count line\n<stop>";
  const std::string no_count = read + ": no number of points on its count line\n<stop>";
  const std::string outside = "\nError: Topography is outside the mesh.\n<stop>";
  const std::string collinear = "\nError: Points in the topography file are collinear.\n<stop>";
  const std::string warning = "Warning: Topography region is not large enough.\n";
  const std::string head = "\nDuplicate points:\n", a = "  1.00000000E+01  2.00000000E+01\n";
  const std::string found = " duplicate points found in topography file.\n\n<stop>";
  const std::string three = "10 10 90\n20 500 90\n500 20 90\n";
  struct {
    std::string text, words;
    double ground = NAN;  // of all columns, when the run goes on
    std::string name = "topo.txt  ";
  } cases[] = {
      {"5\n" + three, point}, {"2000000000\n" + three, point},  // the file ends inside its points
      {"3\n1 1 1\nabc 2 2\n3 3 3\n", point}, {"3\n1 1 1\n2 2 nan\n3 3 3\n", point},
      {"3\n1 1 1\n2 2 1e999\n3 3 3\n", point},
      {"! only comments\n! here\n", no_line}, {"", no_line},
      {"three\n" + three, no_count}, {"\n3\n" + three, no_count},
      {" ! not a comment line\n3\n" + three, no_count},
      {std::string(40, ' ') + "3\n" + three, no_count},  // behind the 40 characters
      {"", "\n ERROR: topography file not found: Null\n<stop>", NAN, "Null"},
      {file_of({{700, 10, 90}, {800, 10, 90}, {750, 300, 90}}), outside},
      {file_of({{10, -700, 90}, {300, -800, 90}, {50, -300, 90}}), outside},
      {file_of({{600, 10, 90}, {800, 10, 90}, {750, 300, 90}}), outside},  // touching
      {file_of({{10, -70, 90}, {300, -80, 90}, {50, 0, 90}}), outside},
      {"0\n", outside}, {"-4\n1 1 1\n", outside},
      // (10, 20) three times: 3 pairs; (30, 40) twice: 1; (10, 40) and
      // (30, 20) share one coordinate only. Elevations don't count.
      {file_of({{10, 20, 1}, {-5, -5, 90}, {30, 40, 5}, {10, 20, 2}, {610, -5, 90}, {10, 40, 7},
                {30, 20, 7}, {10, 20, 3}, {30, 40, 6}, {300, 610, 90}}),
       head + a + a + a + "  3.00000000E+01  4.00000000E+01\n\nError: 4" + found},
      {file_of({{-12.5, 300, 1}, {-12.5, 300, 2}, {610, -5, 90}, {300, 610, 90}}),
       head + " -1.25000000E+01  3.00000000E+02\n\nError: 1" + found},
      {line(-10, -10, 31, 31, 21, 90), collinear},  // across the mesh: no corner
      {line(300, -10, 0, 62, 11, 90), warning + collinear},
      // From (4, 1) on northing = 1.5 easting - 5: 4.1 from the corner (0, 0),
      // within a quarter cell, so no corner comes in; from (6, 4), 7.2 from it.
      {line(4, 1, 10, 15, 63, 90), collinear},
      {line(6, 4, 10, 15, 63, 91), "", 91},
      // A line inside the mesh: the corners come in off it, at its elevation.
      {line(100, 100, 40, 40, 11, 92), "", 92},
      {grid(0, 170, 0, 600, 4, 82), warning, 82},  // below 0.3 of the plan
      {grid(0, 180, 0, 600, 4, 82), "", 82},       // exactly 0.3
      {file_of({{-10, -10, 90}, {610, 610, 95}}), "", 0},  // no triangles: all 0.0
      // Comments ahead; the count in the 40 characters, text behind it lost.
      {"! a\n! b\n" + std::string(38, ' ') + "30 points" + grid(-9, 611, -9, 611, 5, 96).substr(2),
       "", 96},
      {"", "", 100, "null"}, {"", "", 100, "NULL"}, {"", "", 100, "nullify.txt"},  // no file opened
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

TEST(TopoReader, CornerNodesTakeTheNearestPointsElevation) {
  // Points inside the mesh at 100 but for one near each corner: each plan
  // corner becomes a node at that point's elevation.
  const reading r = read_text(file_of({{5, 300, 100}, {300, 5, 100}, {595, 300, 100},
                                       {300, 595, 100}, {300, 300, 100}, {160, 160, 32},
                                       {160, 440, 52}, {440, 160, 72}, {440, 440, 88}}));
  ASSERT_EQ(r.words, "");
  EXPECT_EQ(top_at(r.tops, 30, 1, 1), layers_above(32));
  EXPECT_EQ(top_at(r.tops, 30, 30, 1), layers_above(52));
  EXPECT_EQ(top_at(r.tops, 30, 1, 30), layers_above(72));
  EXPECT_EQ(top_at(r.tops, 30, 30, 30), layers_above(88));
}

TEST(ColumnTops, TiesOnBoundariesAndTheLowestOfNineSamples) {
  // One column, three layers of 10 m under a top at 100: boundaries 100, 90,
  // 80 and 70. A ground on a boundary, or a rounding error below it, takes the
  // layer above it; 1e-11 below it is in the layer beneath.
  const double nan = NAN, inf = INFINITY;
  auto below = [](double z) { return std::nextafter(z, 0.0); };
  const std::vector<std::pair<double, int32_t>> cases{
      {150, 0},         {100, 0},         {below(100), 0}, {100 - 1e-11, 1}, {90, 1},
      {below(90), 1},   {90 - 1e-11, 2},  {85, 2},         {80, 2},          {70, 3},
      {below(70), 3},   {-1e300, 3},      {nan, 0},        {inf, 0},         {-inf, 3}};
  // All nine alike; then one of them, the others higher or not a number.
  for (int at = -1; at < 9; ++at)
    for (double other : {200.0, nan})
      for (const auto& [z, top] : cases) {
        std::vector<double> nine(9, at < 0 ? z : other);
        if (at >= 0) nine[at] = z;
        EXPECT_EQ(quolvent::column_tops(nine, 1, 1, 3, {0, 10, 20, 30}, 100.0),
                  std::vector<int32_t>{top})
            << z << " at " << at << " among " << other;
      }
}
