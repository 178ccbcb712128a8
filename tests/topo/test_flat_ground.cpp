// Flat ground where it is flat: a level topography on a layer boundary, at
// the mesh top or at its bottom, given by points far outside the mesh or at
// its corners, keeps exactly the cells below it, whatever the rounding of the
// interpolation and of the summed layer thicknesses. A ground a little off a
// boundary keeps the cells wholly below it, as before.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "model/mesh.hpp"
#include "model/model.hpp"
#include "support/test_support.hpp"
#include "topo/ground.hpp"

using namespace quolvent;

namespace {

std::string num(double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.12g", v);
  return buf;
}

// The meshes, as files: the one of the report (10 m cells under a top at
// 100), and one at a map origin with decimal widths and thicknesses whose
// sums carry rounding errors.
const std::string mesh_files[] = {
    "10 10 5\n0 0 100.0\n10*10.0\n10*10.0\n5*10.0\n",
    "12 9 7\n503117.3 7012345.9 1234.56\n3*12.3 6*7.7 3*12.3\n9*11.1\n2*0.7 3*2.3 2*5.1\n",
};

// cells_below: the cells under the ground of the tops.
int64_t cells_below(const mesh_model& m, const std::vector<int32_t>& tops) {
  int64_t n = 0;
  for (int32_t t : tops) n += m.nz - t;
  return n;
}

// topo_file: the four points, each at elevation z.
std::string topo_file(const std::vector<std::pair<double, double>>& points, double z) {
  std::ostringstream s;
  s << points.size() << "\n";
  for (const auto& [e, n] : points) s << num(e) << " " << num(n) << " " << num(z) << "\n";
  return s.str();
}

}  // namespace

TEST(FlatGround, OnEveryLayerBoundaryTheExactCellCount) {
  for (const std::string& text : mesh_files) {
    qt::scratch_dir dir("flat");
    dir.cd();
    qt::write_file("mesh.txt", text);
    const mesh_model m = read_mesh("mesh.txt");
    const double x0 = m.xn.front(), x1 = m.xn.back(), y0 = m.yn.front(), y1 = m.yn.back();
    const double w = x1 - x0, h = y1 - y0;
    // Four points around the mesh: at its corners, just outside them, and
    // far outside, also off the diagonals.
    const std::vector<std::vector<std::pair<double, double>>> point_sets{
        {{x0, y0}, {x1, y0}, {x0, y1}, {x1, y1}},
        {{x0 - 1, y0 - 1}, {x1 + 1, y0 - 1}, {x0 - 1, y1 + 1}, {x1 + 1, y1 + 1}},
        {{x0 - 10 * w, y0 - 10 * h}, {x1 + 10 * w, y0 - 10 * h}, {x0 - 10 * w, y1 + 10 * h},
         {x1 + 10 * w, y1 + 10 * h}},
        {{x0 - 37 * w, y0 - 3 * h}, {x1 + 5 * w, y0 - 71 * h}, {x0 - 2 * w, y1 + 13 * h},
         {x1 + 101 * w, y1 + 7 * h}},
    };
    for (std::size_t p = 0; p < point_sets.size(); ++p) {
      for (int32_t k = 0; k <= m.nz; ++k) {
        // The boundary as a user writes it: its elevation to 12 digits.
        const double z = m.z0 - m.zn[static_cast<std::size_t>(k)];
        // On the boundary k layers are above the ground; a millionth of a
        // layer below it one more, above it the same.
        const double dz = 1e-6 * m.dz[static_cast<std::size_t>(std::min(k, m.nz - 1))];
        const struct {
          double ground;
          int32_t above;
        } grounds[] = {{z, k}, {z - dz, std::min(k + 1, m.nz)}, {z + dz, k}};
        for (const auto& g : grounds) {
          qt::write_file("topo.txt", topo_file(point_sets[p], g.ground));
          qt::capture cap;
          const std::vector<int32_t> tops = read_topography("topo.txt", m, cap.out);
          const std::vector<int32_t> want(static_cast<std::size_t>(m.nx) * m.ny, g.above);
          EXPECT_EQ(tops, want) << text << "points " << p << " ground " << num(g.ground);
          EXPECT_EQ(cells_below(m, tops), int64_t{m.nx} * m.ny * (m.nz - g.above));
        }
      }
    }
  }
}
