// The prism formula against numerical integration, its special points, and
// the walk over the cells of a row.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "model/model.hpp"
#include "sens/calc_arctangents_mod.hpp"
#include "sens/dipole_quadrature.hpp"
#include "sens/gsus_mod.hpp"
#include "sens/gsus_no_atan_mod.hpp"
#include "support/test_support.hpp"

namespace {

const double four_pi = 12.566370614359172;

// one_cell: the row of the single-cell mesh [y1,y2]x[x1,x2]x[z1,z2] (z depths)
// at the point (oy, ox, oz), with geomag 4 pi so that the entry is GSUS itself.
double one_cell(double y1, double y2, double x1, double x2, double z1, double z2, double oy,
                double ox, double oz) {
  obs.geomag = four_pi;
  const double yn[2] = {y1, y2}, xn[2] = {x1, x2}, zn[2] = {z1, z2};
  const int32_t top[1] = {0};
  double g = -1;
  sens_row(yn, xn, zn, 1, 1, 1, top, 1, oy, ox, oz, &g, 1);
  return g;
}

double reference(const std::array<double, 3>& p, const std::array<double, 3>& lo,
                 const std::array<double, 3>& hi, const std::array<double, 3>& l,
                 const std::array<double, 3>& m, double* scale) {
  static const quad::integrator q;
  return quad::contract(q.box(p, lo, hi), l, m, scale);
}

// A position on one axis of a cell [a, b]: -1 below it, 0 within, +1 above it.
double place(int where, double a, double b, std::mt19937_64& rng) {
  std::uniform_real_distribution<double> u(0.15, 0.85);
  const double w = b - a;
  if (where < 0) return a - w * (0.2 + u(rng));
  if (where > 0) return b + w * (0.2 + u(rng));
  return a + w * u(rng);
}

}  // namespace

TEST(SetGValues, ProductsOfTheTwoDirections) {
  SET_G_VALUES(90, 0, 90, 0);
  const dir_products& d = g_dir();
  EXPECT_NEAR(d.gzz, 1.0, 1e-15);
  EXPECT_NEAR(d.gyy, 0.0, 1e-15);
  EXPECT_NEAR(d.gxx, 0.0, 1e-15);
  EXPECT_NEAR(d.gxy, 0.0, 1e-15);
  EXPECT_NEAR(d.gyz, 0.0, 1e-15);
  EXPECT_NEAR(d.gxz, 0.0, 1e-15);

  SET_G_VALUES(60, 30, -20, 110);
  const auto l = quad::unit(60, 30), m = quad::unit(-20, 110);
  EXPECT_NEAR(d.gyy, l[0] * m[0], 1e-15);
  EXPECT_NEAR(d.gxx, l[1] * m[1], 1e-15);
  EXPECT_NEAR(d.gzz, l[2] * m[2], 1e-15);
  EXPECT_NEAR(d.gxy, l[0] * m[1] + l[1] * m[0], 1e-15);
  EXPECT_NEAR(d.gyz, l[0] * m[2] + l[2] * m[0], 1e-15);
  EXPECT_NEAR(d.gxz, l[1] * m[2] + l[2] * m[1], 1e-15);
}

// Every placement of the point against the cell but inside it, each with
// random directions and cell shapes, against the integral of the kernel.
TEST(Gsus, AgreesWithQuadratureForEverySignCombination) {
  qt::capture cap;
  std::mt19937_64 rng(20261122);
  std::uniform_real_distribution<double> ang(-80, 80), dec(-180, 180), len(5, 60), org(-500, 500);
  int cases = 0;
  for (int wy = -1; wy <= 1; ++wy)
    for (int wx = -1; wx <= 1; ++wx)
      for (int wz = -1; wz <= 1; ++wz) {
        if (wy == 0 && wx == 0 && wz == 0) continue;
        for (int rep = 0; rep < 2; ++rep) {
          const double y1 = org(rng), x1 = org(rng), z1 = 100 + org(rng) * 0.1;
          const double y2 = y1 + len(rng), x2 = x1 + len(rng), z2 = z1 + len(rng);
          const double oy = place(wy, y1, y2, rng), ox = place(wx, x1, x2, rng);
          const double oz = place(wz, z1, z2, rng);
          const double fi = ang(rng), fd = dec(rng), ai = ang(rng), ad = dec(rng);
          SET_G_VALUES(fi, fd, ai, ad);
          const double got = one_cell(y1, y2, x1, x2, z1, z2, oy, ox, oz);
          double scale = 0;
          const double want = reference({oy, ox, oz}, {y1, x1, z1}, {y2, x2, z2},
                                        quad::unit(fi, fd), quad::unit(ai, ad), &scale);
          EXPECT_NEAR(got, want, 1e-9 * scale)
              << "flags " << wy << wx << wz << " rep " << rep;
          ++cases;
        }
      }
  EXPECT_EQ(cases, 52);
  EXPECT_EQ(cap.log(), "");
}

// Points on the planes of a cell but off the cell itself: a finite value and no
// message. The lower plane has the flag 0 and the zero-offset sign rule, the
// upper one the flag -1 and the difference form. A y or x plane through the
// point is cached as if 0.001 away from it, so there the value matches the
// integral only to that displacement; a z plane has no such shift, and points
// just off any plane match it fully.
TEST(Gsus, PointsOnTheLowerAndUpperPlanes) {
  qt::capture cap;
  const double y1 = 10, y2 = 30, x1 = -20, x2 = -5, z1 = 40, z2 = 55;
  const std::array<double, 3> lo{y1, x1, z1}, hi{y2, x2, z2};
  SET_G_VALUES(65, 12, 48, -33);
  const auto l = quad::unit(65, 12), m = quad::unit(48, -33);
  struct on_plane {
    std::array<double, 3> p;
    int axis;  // the axis whose plane holds the point
  };
  const on_plane points[] = {
      {{y1, x2 + 7, z1 + 5}, 0},  // lower y plane, beyond x
      {{y2, x1 - 9, z2 + 4}, 0},  // upper y plane, before x and below z
      {{y1 + 6, x1, z1 - 8}, 1},  // lower x plane, above z
      {{y2 + 5, x2, z1 + 3}, 1},  // upper x plane, beyond y
      {{y1 + 4, x2 + 6, z1}, 2},  // top plane (z), beyond x
      {{y1 - 3, x1 + 5, z2}, 2},  // bottom plane (z), before y
      {{y1, x2 + 4, z2 + 6}, 0},  // lower y plane, beyond x and below z
  };
  for (const auto& q : points) {
    const auto& p = q.p;
    const double got = one_cell(y1, y2, x1, x2, z1, z2, p[0], p[1], p[2]);
    double scale = 0;
    const double want = reference(p, lo, hi, l, m, &scale);
    EXPECT_TRUE(std::isfinite(got));
    EXPECT_NEAR(got, want, (q.axis == 2 ? 1e-9 : 2e-4) * scale)
        << p[0] << " " << p[1] << " " << p[2];
    for (double off : {-1e-6, 1e-6}) {
      auto p2 = p;
      p2[q.axis] += off;
      const double got2 = one_cell(y1, y2, x1, x2, z1, z2, p2[0], p2[1], p2[2]);
      const double want2 = reference(p2, lo, hi, l, m, &scale);
      EXPECT_NEAR(got2, want2, 1e-9 * scale) << p[0] << " " << p[1] << " " << p[2] << " " << off;
    }
  }
  EXPECT_EQ(cap.log(), "");
}

// A point inside a cell: the cell is a cube centred on the point (whose
// integral is -4 pi / 3 times l.m, the field inside a uniformly magnetised
// cube at its centre) plus 26 boxes around it, integrated numerically.
TEST(Gsus, InsideACellAgreesWithCubePlusSurroundingBoxes) {
  qt::capture cap;
  const double y[2] = {-12, 20}, x[2] = {5, 31}, z[2] = {8, 30};
  const std::array<double, 3> p{-4, 14, 16};
  const double h = 3;  // half side of the cube around the point
  const double fi = 55, fd = -20, ai = 35, ad = 70;
  SET_G_VALUES(fi, fd, ai, ad);
  const auto l = quad::unit(fi, fd), m = quad::unit(ai, ad);
  const double got = one_cell(y[0], y[1], x[0], x[1], z[0], z[1], p[0], p[1], p[2]);

  const double cuts[3][4] = {{y[0], p[0] - h, p[0] + h, y[1]},
                             {x[0], p[1] - h, p[1] + h, x[1]},
                             {z[0], p[2] - h, p[2] + h, z[1]}};
  double want = -four_pi / 3 * (l[0] * m[0] + l[1] * m[1] + l[2] * m[2]);
  double scale = std::fabs(want);
  for (int a = 0; a < 3; ++a)
    for (int b = 0; b < 3; ++b)
      for (int c = 0; c < 3; ++c) {
        if (a == 1 && b == 1 && c == 1) continue;
        double s = 0;
        want += reference(p, {cuts[0][a], cuts[1][b], cuts[2][c]},
                          {cuts[0][a + 1], cuts[1][b + 1], cuts[2][c + 1]}, l, m, &s);
        scale += s;
      }
  EXPECT_NEAR(got, want, 1e-9 * scale);
  EXPECT_EQ(cap.log(), "");
}

// The cell cut in two through the point, along each axis: the halves (the
// point on the upper plane of one, flag -1, and on the lower plane of the
// other, flag 0 with the 4 pi term) add up to the whole.
TEST(Gsus, InsideValueIsTheSumOfTheHalvesThroughThePoint) {
  qt::capture cap;
  const double y1 = 0, y2 = 10, x1 = 0, x2 = 8, z1 = 2, z2 = 9;
  const double oy = 3.5, ox = 5.25, oz = 6.125;
  SET_G_VALUES(71, 8, 40, 25);
  const double whole = one_cell(y1, y2, x1, x2, z1, z2, oy, ox, oz);
  const double by_y = one_cell(y1, oy, x1, x2, z1, z2, oy, ox, oz) +
                      one_cell(oy, y2, x1, x2, z1, z2, oy, ox, oz);
  const double by_x = one_cell(y1, y2, x1, ox, z1, z2, oy, ox, oz) +
                      one_cell(y1, y2, ox, x2, z1, z2, oy, ox, oz);
  const double by_z = one_cell(y1, y2, x1, x2, z1, oz, oy, ox, oz) +
                      one_cell(y1, y2, x1, x2, oz, z2, oy, ox, oz);
  EXPECT_NEAR(by_y, whole, 1e-12 * four_pi);
  EXPECT_NEAR(by_x, whole, 1e-12 * four_pi);
  EXPECT_NEAR(by_z, whole, 1e-12 * four_pi);
  EXPECT_EQ(cap.log(), "");
}

// A point on an edge, or within 0.001 of the line through one, of an axis whose
// flag is 0: entry 0 and the message naming the datum and the cell (x index
// first); just beyond the guard a finite value.
TEST(Gsus, EdgeGuardGivesZeroAndTheMessage) {
  SET_G_VALUES(60, 10, 60, 10);
  obs.geomag = 50000;
  // Mesh of 2 x 3 x 2 cells; the point on the vertical edge x = xn(2), y = yn(2).
  const double yn[3] = {0, 10, 20}, xn[4] = {0, 10, 20, 30}, zn[3] = {0, 10, 20};
  const int32_t top[6] = {0, 0, 0, 0, 0, 0};
  std::vector<double> g(12, -1);
  {
    qt::capture cap;
    sens_row(yn, xn, zn, 2, 3, 2, top, 17, 10, 10, 5, g.data(), g.size());
    // Cells (j, i, k) touching the edge in their top layer: (1,1,1), (1,2,1),
    // (2,1,1), (2,2,1): row places j*6 + i*2 + k order -> 0, 2, 6, 8.
    for (int p = 0; p < 12; ++p) {
      EXPECT_TRUE(std::isfinite(g[p]));
      if (p == 0 || p == 2 || p == 6 || p == 8) EXPECT_EQ(g[p], 0.0) << p; else EXPECT_NE(g[p], 0.0) << p;
    }
    const std::string one =
        "\n Observation point          17  is on the edge of the model cell (           1"
        "           1           1 ).\nSensitivity set to zero!\n\n";
    const std::string log = cap.log();
    EXPECT_EQ(log.substr(0, one.size()), one);
    EXPECT_NE(log.find("cell (           2           1           1 )."), std::string::npos);
    EXPECT_NE(log.find("cell (           1           2           1 )."), std::string::npos);
    EXPECT_NE(log.find("cell (           2           2           1 )."), std::string::npos);
    EXPECT_EQ(std::count(log.begin(), log.end(), '!'), 4);
  }
  {
    qt::capture cap;  // within the guard: 0.0007 from the edge line
    sens_row(yn, xn, zn, 2, 3, 2, top, 3, 10.0005, 9.9995, 5, g.data(), g.size());
    EXPECT_EQ(g[0], 0.0);
    EXPECT_EQ(g[8], 0.0);
    EXPECT_NE(cap.log(), "");
  }
  {
    qt::capture cap;  // beyond it: 0.0014 from the line
    sens_row(yn, xn, zn, 2, 3, 2, top, 3, 10.001, 9.999, 5, g.data(), g.size());
    for (double v : g) EXPECT_TRUE(std::isfinite(v) && v != 0.0);
    EXPECT_EQ(cap.log(), "");
  }
}

// A point exactly on a mesh node: the eight cells around it get 0 and a
// message each, the one whose far corner is the node included; no NaN.
TEST(Gsus, PointOnANodeGivesZerosAndNoNaN) {
  qt::capture cap;
  SET_G_VALUES(50, 5, 50, 5);
  obs.geomag = 50000;
  const double yn[4] = {0, 10, 20, 30}, xn[4] = {0, 10, 20, 30}, zn[4] = {0, 10, 20, 30};
  const int32_t top[9] = {};
  std::vector<double> g(27, -1);
  sens_row(yn, xn, zn, 3, 3, 3, top, 5, 20, 10, 20, g.data(), g.size());
  int zeros = 0;
  for (double v : g) {
    EXPECT_TRUE(std::isfinite(v));
    zeros += v == 0.0;
  }
  EXPECT_EQ(zeros, 8);
  // The cell whose corner (2,2,2) is the node: j = 2, i = 1, k = 2.
  EXPECT_EQ(g[(2 - 1) * 9 + (1 - 1) * 3 + (2 - 1)], 0.0);
  EXPECT_NE(cap.log().find("cell (           1           2           2 )."), std::string::npos);
  const arctangent_cache& c = at_cache();
  for (std::size_t q = 0; q < c.at_x.size(); ++q) {
    ASSERT_TRUE(std::isfinite(c.at_x[q]) && std::isfinite(c.at_y[q]));
  }
}

// The row walks y, x, z with the tops left out, and each entry is what the cell
// alone gives; a cache left over from another point and mesh doesn't show.
TEST(SensRow, OrderTopsAndCacheReuse) {
  qt::capture cap;
  SET_G_VALUES(63, -7, 63, -7);
  obs.geomag = 52000;
  const int32_t ny = 3, nx = 4, nz = 5;
  std::vector<double> yn{100, 110, 125, 130}, xn{-40, -30, -10, 0, 30}, zn{0, 5, 12, 20, 35, 60};
  std::vector<int32_t> top{0, 2, 5, 1, 3, 0, 4, 0, 2, 5, 5, 1};
  int n = 0;
  for (int32_t t : top) n += nz - t;

  // Fill the cache at another point, with a larger mesh and no tops.
  std::vector<double> yb{0, 1, 2, 3, 4, 5}, xb{0, 1, 2, 3, 4, 5}, zb{0, 1, 2, 3, 4, 5, 6};
  std::vector<int32_t> tb(25, 0);
  std::vector<double> gb(150);
  sens_row(yb.data(), xb.data(), zb.data(), 5, 5, 6, tb.data(), 1, 2.5, 2.5, -1, gb.data(), 150);

  std::vector<double> g(n);
  const double oy = 117.3, ox = -12.6, oz = 8.2;  // a borehole point
  sens_row(yn.data(), xn.data(), zn.data(), ny, nx, nz, top.data(), 2, oy, ox, oz, g.data(), n);
  int p = 0;
  for (int j = 1; j <= ny; ++j)
    for (int i = 1; i <= nx; ++i)
      for (int k = top[(j - 1) + (i - 1) * ny] + 1; k <= nz; ++k) {
        const double yc[2] = {yn[j - 1], yn[j]}, xc[2] = {xn[i - 1], xn[i]},
                     zc[2] = {zn[k - 1], zn[k]};
        const int32_t t0[1] = {0};
        double v = 0;
        sens_row(yc, xc, zc, 1, 1, 1, t0, 2, oy, ox, oz, &v, 1);
        EXPECT_EQ(g[p], v) << j << " " << i << " " << k;
        ++p;
      }
  EXPECT_EQ(p, n);
}

TEST(SensRow, WrongRowLengthStops) {
  SET_G_VALUES(60, 0, 60, 0);
  const double yn[3] = {0, 1, 2}, xn[2] = {0, 1}, zn[3] = {0, 1, 2};
  const int32_t top[2] = {0, 1};  // 2 + 1 cells
  std::vector<double> g(4, 0);
  qt::capture cap;
  EXPECT_THROW(sens_row(yn, xn, zn, 2, 1, 2, top, 1, 0.5, 0.5, -1, g.data(), 2), qt::stop_caught);
  EXPECT_THROW(sens_row(yn, xn, zn, 2, 1, 2, top, 1, 0.5, 0.5, -1, g.data(), 4), qt::stop_caught);
  EXPECT_NO_THROW(sens_row(yn, xn, zn, 2, 1, 2, top, 1, 0.5, 0.5, -1, g.data(), 3));
  // All columns above the ground: a row of length 0, and no stop.
  const int32_t all_air[2] = {2, 2};
  EXPECT_NO_THROW(sens_row(yn, xn, zn, 2, 1, 2, all_air, 1, 0.5, 0.5, -1, g.data(), 0));
}

// The cache: distances and arctangents as the plain formulas give them, the
// node plane through the point with x or y 0 in the numerators, and a start
// level per node line that leaves the lines above the ground alone.
TEST(CalcArctangents, ValuesAndStartLevels) {
  const double yn[4] = {0, 10, 20, 30}, xn[3] = {0, 15, 30}, zn[5] = {0, 3, 7, 12, 20};
  const int32_t ny = 3, nx = 2, nz = 4;
  const int32_t top[6] = {2, 3, 4, 1, 2, 4};  // (j, i): j fastest
  const double oy = 10, ox = 7.5, oz = -2;    // on the node plane y = yn(2)
  arctangent_cache& c = at_cache();
  DEALLOC_AT();
  EXPECT_TRUE(c.at_x.empty());
  CALC_ARCTANGENTS(yn, xn, zn, ny, nx, nz, top, oy, ox, oz);
  ASSERT_EQ(c.at_x.size(), 5u * 3u * 4u);
  // Mark everything, fill again: what is recomputed is what the levels allow.
  for (auto& v : c.at_x) v = 99;
  CALC_ARCTANGENTS(yn, xn, zn, ny, nx, nz, top, oy, ox, oz);
  for (int j = 1; j <= 4; ++j)
    for (int i = 1; i <= 3; ++i) {
      int start = 1;
      if (j > 1 && j < 4 && i > 1 && i < 3) {
        auto t = [&](int jj, int ii) { return top[(jj - 1) + (ii - 1) * ny]; };
        start = 1 + std::min({t(j - 1, i - 1), t(j, i - 1), t(j - 1, i), t(j, i)});
      }
      for (int k = 1; k <= 5; ++k) {
        const std::size_t q = (k - 1) + 5 * ((i - 1) + 3 * (j - 1));
        if (k < start) {
          EXPECT_EQ(c.at_x[q], 99) << j << i << k;
          continue;
        }
        const double y = yn[j - 1] - oy, x = xn[i - 1] - ox, z = zn[k - 1] - oz;
        const double r = std::sqrt(z * z + (y * y + x * x));
        const double ys = y == 0 ? 0.001 : y, xs = x == 0 ? 0.001 : x;
        EXPECT_EQ(c.r_node[q], r);
        EXPECT_NEAR(c.at_x[q], std::atan(y * z / (xs * r)), 4e-16);
        EXPECT_NEAR(c.at_y[q], std::atan(z * x / (r * ys)), 4e-16);
        if (j == 2) EXPECT_EQ(c.at_x[q], 0.0);
      }
    }
}
