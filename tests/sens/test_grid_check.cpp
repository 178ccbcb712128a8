// The regular survey test: which surveys take the regular-grid row loop.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "model/model.hpp"
#include "sens/grid_check.hpp"

namespace {

// Nodes accumulated from the origin, as the mesh reader builds them.
std::vector<double> nodes_from(double origin, const std::vector<double>& widths) {
  std::vector<double> n(widths.size() + 1);
  n[0] = origin;
  for (std::size_t k = 0; k < widths.size(); ++k) n[k + 1] = n[k] + widths[k];
  return n;
}

void set_mesh(int nx, int ny, int nz, double d) {
  mesh.nx = nx;
  mesh.ny = ny;
  mesh.nz = nz;
  mesh.dx.assign(nx, d);
  mesh.dy.assign(ny, d);
  mesh.dz.assign(nz, d);
  mesh.xn = nodes_from(1000.0, mesh.dx);
  mesh.yn = nodes_from(5000.0, mesh.dy);
  mesh.zn = nodes_from(0.0, mesh.dz);
  mesh.z0 = 100.0;
}

void set_data(const std::vector<double>& x, const std::vector<double>& y, double z) {
  obs.ndata = static_cast<int32_t>(x.size());
  obs.idir = 1;
  obs.obs_x = x;
  obs.obs_y = y;
  obs.obs_z.assign(x.size(), z);
}

// A grid of mx by my data at cell centres, every step cells, from cell (1, 1).
void set_grid(int mx, int my, int step) {
  std::vector<double> x, y;
  for (int j = 0; j < my; ++j)
    for (int i = 0; i < mx; ++i) {
      x.push_back(mesh.xn[0] + (i * step + 0.5) * mesh.dx[0]);
      y.push_back(mesh.yn[0] + (j * step + 0.5) * mesh.dy[0]);
    }
  set_data(x, y, mesh.z0 + 5.0);
}

struct grid_result {
  bool regular = false;
  int32_t ref = -7;
  double cdy = -1.0, cdx = -1.0;
};
grid_result check(int32_t kind = 1, int32_t idir = 1) {
  grid_result r;
  grid_check(kind, idir, r.regular, r.ref, r.cdy, r.cdx);
  return r;
}

}  // namespace

TEST(GridCheck, RegularSurveyFindsTheDatumNearestTheCentre) {
  set_mesh(20, 16, 5, 10.0);
  set_grid(10, 8, 2);  // data at cell centres 1, 3, 5, ...
  const grid_result r = check();
  ASSERT_TRUE(r.regular);
  EXPECT_DOUBLE_EQ(r.cdy, 10.0);
  EXPECT_DOUBLE_EQ(r.cdx, 10.0);
  // Centre (xn(11), yn(9)) = (1100, 5080); data x 1085, 1105, y 5065, 5085.
  ASSERT_GE(r.ref, 1);
  EXPECT_DOUBLE_EQ(obs.obs_x[r.ref - 1], 1105.0);
  EXPECT_DOUBLE_EQ(obs.obs_y[r.ref - 1], 5085.0);

  // Half a cell further east the data at x 1090 and 1110 are equally near:
  // the first in data order wins.
  for (double& x : obs.obs_x) x += 5.0;
  const grid_result t = check();
  ASSERT_TRUE(t.regular);
  EXPECT_DOUBLE_EQ(obs.obs_x[t.ref - 1], 1090.0);
  EXPECT_DOUBLE_EQ(obs.obs_y[t.ref - 1], 5085.0);
  for (int i = 0; i < obs.ndata; ++i) {
    const double d = std::hypot(obs.obs_x[i] - 1100.0, obs.obs_y[i] - 5080.0);
    const double dref = std::hypot(obs.obs_x[t.ref - 1] - 1100.0, obs.obs_y[t.ref - 1] - 5080.0);
    if (i + 1 < t.ref) EXPECT_GT(d, dref);
    else EXPECT_GE(d, dref);
  }
}

TEST(GridCheck, DataOnTheOutermostNodesPassAndJustOutsideFails) {
  set_mesh(10, 10, 3, 10.0);
  std::vector<double> x, y;
  for (int j = 0; j <= 5; ++j)
    for (int i = 0; i <= 5; ++i) {
      x.push_back(mesh.xn[0] + 20.0 * i);
      y.push_back(mesh.yn[0] + 20.0 * j);
    }
  set_data(x, y, 110.0);
  EXPECT_TRUE(check().regular);

  for (double* v : {&obs.obs_x.back(), &obs.obs_y.back(), &obs.obs_x.front(), &obs.obs_y.front()}) {
    const double keep = *v;
    *v = (v == &obs.obs_x.back() || v == &obs.obs_y.back()) ? std::nextafter(keep, 1e9)
                                                            : std::nextafter(keep, -1e9);
    EXPECT_FALSE(check().regular);
    *v = keep;
  }
  EXPECT_TRUE(check().regular);
}

TEST(GridCheck, BoreholeDataAndPerDatumDirectionsTakeTheGeneralRoute) {
  set_mesh(8, 8, 3, 10.0);
  set_grid(4, 4, 2);
  EXPECT_TRUE(check(1, 1).regular);
  EXPECT_FALSE(check(0, 1).regular);   // one borehole datum among surface data
  EXPECT_FALSE(check(-1, 1).regular);  // borehole data only
  EXPECT_FALSE(check(1, 0).regular);   // each datum its own direction
}

TEST(GridCheck, SpacingMustBeAWholeNumberOfCells) {
  set_mesh(20, 20, 3, 10.0);
  std::vector<double> x, y;
  for (int j = 0; j < 6; ++j)
    for (int i = 0; i < 6; ++i) {
      x.push_back(1005.0 + 25.0 * i);  // 2.5 cells: excess 0.5
      y.push_back(5005.0 + 20.0 * j);
    }
  set_data(x, y, 105.0);
  grid_result r = check();
  EXPECT_FALSE(r.regular);
  EXPECT_DOUBLE_EQ(r.cdx, 10.0);  // the widths were tested before the spacing
  EXPECT_EQ(r.ref, -7);           // and no reference datum was set

  for (std::size_t k = 0; k < x.size(); ++k) x[k] = 1005.0 + 19.95 * (k % 6);  // 1.995 cells
  set_data(x, y, 105.0);
  EXPECT_FALSE(check().regular);
  for (std::size_t k = 0; k < x.size(); ++k) x[k] = 1005.0 + 30.05 * (k % 6);  // 3.005 cells
  set_data(x, y, 105.0);
  EXPECT_TRUE(check().regular);
}

TEST(GridCheck, CoordinatesWithinAThousandthAreOneLine) {
  set_mesh(10, 10, 3, 10.0);
  set_grid(5, 5, 2);
  obs.obs_x[3] += 0.0005;
  obs.obs_y[7] -= 0.0005;
  EXPECT_TRUE(check().regular);

  double spacing = 0, spread = 0;
  const double a[] = {0.0, 10.0, 10.0005, 20.0, 9.9995, 30.0};
  spacing_stats(a, 6, spacing, spread);
  EXPECT_DOUBLE_EQ(spacing, 10.0);
  EXPECT_DOUBLE_EQ(spread, 0.0);

  // The limit is included, at 32-bit precision.
  const double b[] = {0.0, 0.0010000000474974513, 5.0};
  spacing_stats(b, 3, spacing, spread);
  EXPECT_DOUBLE_EQ(spacing, 5.0);
  const double c[] = {0.0, 0.0010001, 5.0};
  spacing_stats(c, 3, spacing, spread);
  EXPECT_DOUBLE_EQ(spacing, 2.5);
}

TEST(GridCheck, SpacingStatsSortsAndMeasuresTheGaps) {
  double spacing = 0, spread = 0;
  const double a[] = {30.0, 0.0, 20.0, 0.0, 12.0, 30.0};  // gaps 12, 8, 10
  spacing_stats(a, 6, spacing, spread);
  EXPECT_DOUBLE_EQ(spacing, 10.0);
  EXPECT_DOUBLE_EQ(spread, 0.4);

  const double one[] = {7.0, 7.0004, 7.0};
  spacing_stats(one, 3, spacing, spread);
  EXPECT_TRUE(std::isnan(spacing));
  EXPECT_TRUE(std::isnan(spread));
}

TEST(GridCheck, DataOnOneLinePassTheSpacingTests) {
  set_mesh(12, 9, 3, 10.0);
  std::vector<double> x, y;
  for (int i = 0; i < 6; ++i) {
    x.push_back(1005.0 + 20.0 * i);
    y.push_back(5045.0);
  }
  set_data(x, y, 104.0);
  grid_result r = check();
  ASSERT_TRUE(r.regular);
  EXPECT_TRUE(std::isfinite(r.cdy));
  EXPECT_TRUE(std::isfinite(r.cdx));
  EXPECT_DOUBLE_EQ(obs.obs_x[r.ref - 1], 1065.0);  // centre x 1060: 1045 and 1065 are 15 and 5 off

  set_data(y, x, 104.0);  // the same line along y, in a mesh wide enough
  set_mesh(12, 12, 3, 10.0);
  obs.obs_x.assign(6, 1045.0);
  for (int i = 0; i < 6; ++i) obs.obs_y[i] = 5005.0 + 20.0 * i;
  EXPECT_TRUE(check().regular);

  obs.ndata = 1;  // a single datum
  EXPECT_TRUE(check().regular);
}

TEST(GridCheck, LevelsAndCellWidthsWithinOnePercent) {
  set_mesh(10, 10, 3, 10.0);
  set_grid(5, 5, 2);  // 5 above the mesh top
  obs.obs_z[4] += 0.05;  // 1% of the height: passes
  EXPECT_TRUE(check().regular);
  obs.obs_z[4] += 0.01;
  EXPECT_FALSE(check().regular);
  obs.obs_z[4] = obs.obs_z[0];

  // All data on the mesh top: no height, one level passes, two fail.
  obs.obs_z.assign(obs.ndata, mesh.z0);
  EXPECT_TRUE(check().regular);
  obs.obs_z[2] += 1e-3;
  EXPECT_FALSE(check().regular);
  obs.obs_z.assign(obs.ndata, mesh.z0 + 5.0);

  mesh.dx[3] = 9.91;  // width range 0.09 over a mean of 9.991: passes
  mesh.xn = nodes_from(mesh.xn[0], mesh.dx);
  grid_result r = check();
  EXPECT_TRUE(r.regular);
  EXPECT_NEAR(r.cdx, 9.991, 1e-12);
  mesh.dx[3] = 9.89;  // 0.11 over 9.989
  mesh.xn = nodes_from(mesh.xn[0], mesh.dx);
  EXPECT_FALSE(check().regular);
  mesh.dx[3] = 10.0;
  mesh.dy[6] = 0.0;  // a cell of no width
  mesh.xn = nodes_from(mesh.xn[0], mesh.dx);
  mesh.yn = nodes_from(mesh.yn[0], mesh.dy);
  EXPECT_FALSE(check().regular);
}
