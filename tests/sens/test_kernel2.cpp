// The regular-grid row loop against the general one, on the same surveys.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "model/model.hpp"
#include "run/format.hpp"
#include "sens/grid_check.hpp"
#include "sens/gsus_mod.hpp"
#include "sens/kernel2_mod.hpp"
#include "sens/kernel_mod.hpp"
#include "support/test_support.hpp"
#include "wavelet/compression.hpp"
#include "wavelet/wtn_mod.hpp"

namespace {

std::vector<double> nodes_from(double origin, int m, double d) {
  std::vector<double> v(static_cast<std::size_t>(m) + 1);
  v[0] = origin;
  for (int k = 0; k < m; ++k) v[k + 1] = v[k] + d;
  return v;
}

// survey: one in-memory run set-up, a uniform mesh with some topography and a
// grid of surface data given in cell units.
struct survey {
  int32_t n = 0;
  std::vector<double> wtz;
  std::vector<int32_t> obs_type;
};

survey make_survey(int nx, int ny, int nz, const std::vector<double>& cx,
                   const std::vector<double>& cy, double height) {
  const double dx = 10.0, dy = 20.0, dz = 5.0;
  mesh.nx = nx;
  mesh.ny = ny;
  mesh.nz = nz;
  mesh.dx.assign(nx, dx);
  mesh.dy.assign(ny, dy);
  mesh.dz.assign(nz, dz);
  mesh.xn = nodes_from(300.0, nx, dx);
  mesh.yn = nodes_from(-700.0, ny, dy);
  mesh.zn = nodes_from(0.0, nz, dz);
  mesh.z0 = 50.0;

  // Hills and valleys: from 0 to 3 layers of air, some columns all air.
  top_index.assign(static_cast<std::size_t>(nx) * ny, 0);
  survey s;
  for (int i = 0; i < nx; ++i)
    for (int j = 0; j < ny; ++j) {
      int32_t t = (i * 3 + j * 5) % 4;
      if ((i + 2 * j) % 11 == 7) t = nz;
      t = std::min(t, nz);
      top_index[j + static_cast<std::size_t>(i) * ny] = t;
      s.n += nz - t;
    }
  for (int32_t k = 0; k < s.n; ++k) s.wtz.push_back(1.0 + 0.25 * (k % 7));

  // Every cell below the ground active, numbered in row order (y, x, z).
  cells = active_cells{};
  cells.active_map.assign(static_cast<std::size_t>(nx) * ny * nz, 0);
  int32_t place = 0;
  for (int j = 0; j < ny; ++j)
    for (int i = 0; i < nx; ++i)
      for (int k = top_index[j + static_cast<std::size_t>(i) * ny]; k < nz; ++k)
        cells.active_map[k + static_cast<std::size_t>(nz) * (i + static_cast<std::size_t>(nx) * j)] =
            ++place;
  cells.ncell_total = nx * ny * nz;
  cells.nbelow = s.n;
  cells.nactive = s.n;

  obs = obs_set{};
  obs.incl = 65.0;
  obs.decl = 12.0;
  obs.geomag = 50000.0;
  obs.aincl = 65.0;
  obs.adecl = 12.0;
  obs.idir = 1;
  for (double y : cy)
    for (double x : cx) {
      obs.obs_x.push_back(mesh.xn[0] + x * dx);
      obs.obs_y.push_back(mesh.yn[0] + y * dy);
      obs.obs_z.push_back(mesh.z0 + height);
    }
  obs.ndata = static_cast<int32_t>(obs.obs_x.size());
  s.obs_type.assign(obs.ndata, 1);
  return s;
}

// route: what a row loop leaves behind.
struct route {
  std::vector<float> rows;
  std::vector<double> sens_sq, sens_avg;
  std::string screen, log;
};

route run_loop(const survey& s, bool regular_route, int32_t ref = 0, double cdy = 0,
               double cdx = 0) {
  compressed = false;
  g_full.assign(static_cast<std::size_t>(s.n) * obs.ndata, -1.0f);
  SET_G_VALUES(obs.incl, obs.decl, obs.aincl, obs.adecl);
  route r;
  qt::capture cap;
  if (regular_route)
    KERNEL2(s.n, s.wtz, top_index, s.obs_type, ref, cdy, cdx, r.sens_sq, r.sens_avg);
  else
    KERNEL(s.n, s.wtz, top_index, s.obs_type, r.sens_sq, r.sens_avg);
  r.rows = g_full;
  r.screen = cap.screen();
  r.log = cap.log();
  return r;
}

// Relative agreement of every entry of every row (g_full columns).
void expect_close(const std::vector<float>& a, const std::vector<float>& b, std::size_t n,
                  double tol) {
  ASSERT_EQ(a.size(), b.size());
  for (std::size_t e = 0; e < a.size(); ++e) {
    const double x = a[e], y = b[e];
    ASSERT_LE(std::fabs(x - y), tol * std::max(std::fabs(x), std::fabs(y)))
        << "row " << e / n + 1 << " entry " << e % n + 1;
  }
}
void expect_close(const std::vector<double>& a, const std::vector<double>& b, double tol) {
  ASSERT_EQ(a.size(), b.size());
  for (std::size_t k = 0; k < a.size(); ++k)
    ASSERT_LE(std::fabs(a[k] - b[k]), tol * std::max(std::fabs(a[k]), std::fabs(b[k])))
        << "entry " << k + 1;
}

const char* const fallback_note = "computed datum by datum";

// Both routes on the same survey, through grid_check as the driver does.
void compare_routes(const survey& s, int32_t expect_ref = 0) {
  bool regular = false;
  int32_t ref = 0;
  double cdy = 0, cdx = 0;
  grid_check(1, obs.idir, regular, ref, cdy, cdx);
  ASSERT_TRUE(regular);
  if (expect_ref > 0) EXPECT_EQ(ref, expect_ref);
  const route general = run_loop(s, false);
  const route fast = run_loop(s, true, ref, cdy, cdx);
  EXPECT_EQ(fast.log.find(fallback_note), std::string::npos);
  // The same progress on the screen.
  EXPECT_EQ(fast.screen.rfind(" Calculating sensitivity matrix ...\n % done:\n", 0), 0u);
  EXPECT_EQ(fast.screen, general.screen);
  expect_close(fast.rows, general.rows, static_cast<std::size_t>(s.n), 1e-6);
  expect_close(fast.sens_sq, general.sens_sq, 1e-6);
  expect_close(fast.sens_avg, general.sens_avg, 1e-6);
}

std::vector<double> centres(int first, int last, int step) {
  std::vector<double> c;
  for (int i = first; i <= last; i += step) c.push_back(i - 0.5);
  return c;
}

}  // namespace

TEST(Kernel2, GridShiftRoundsHalvesAwayFromZero) {
  EXPECT_EQ(grid_shift(0.0), 0);
  EXPECT_EQ(grid_shift(0.4999), 0);
  EXPECT_EQ(grid_shift(0.5), 1);
  EXPECT_EQ(grid_shift(-0.5), -1);
  EXPECT_EQ(grid_shift(-0.4999), 0);
  EXPECT_EQ(grid_shift(2.995), 3);
  EXPECT_EQ(grid_shift(-3.004), -3);
}

TEST(Kernel2, EvenMeshDataOnEveryCellAgreeWithTheGeneralLoop) {
  // Data over every cell centre, to the mesh edges.
  const survey s = make_survey(8, 6, 4, centres(1, 8, 1), centres(1, 6, 1), 7.0);
  compare_routes(s);
}

TEST(Kernel2, OddMeshAndWiderSpacingAgreeWithTheGeneralLoop) {
  const survey s = make_survey(7, 5, 3, centres(1, 7, 2), centres(1, 5, 2), 3.0);
  compare_routes(s);
}

TEST(Kernel2, ReferenceOffCentreGrowsTheMesh) {
  // Data on the first and last cells only: the centre lies between them, the
  // reference is the first, and the last is 5 cells away where ny/2 is 3.
  const survey s = make_survey(6, 6, 3, {0.5, 5.5}, {0.5, 5.5}, 4.0);
  compare_routes(s, 1);
}

TEST(Kernel2, SingleLineAndSingleRowMesh) {
  // ny = 1: the mesh grows by one cell on each side.
  const survey s = make_survey(9, 1, 3, centres(1, 9, 2), {0.5}, 2.0);
  compare_routes(s);
}

TEST(Kernel2, DataOnNodePlanesAgreeWithTheGeneralLoop) {
  // Data on the cell boundaries in x and y (not on edges at this height).
  const survey s = make_survey(6, 4, 3, {0.0, 2.0, 4.0, 6.0}, {1.0, 3.0}, 6.0);
  compare_routes(s);
}

TEST(Kernel2, RowsDoNotDependOnTheThreadCount) {
  const survey s = make_survey(7, 6, 3, centres(1, 7, 1), centres(1, 6, 1), 5.0);
  bool regular = false;
  int32_t ref = 0;
  double cdy = 0, cdx = 0;
  grid_check(1, 1, regular, ref, cdy, cdx);
  ASSERT_TRUE(regular);
  const int keep = omp_get_max_threads();
  omp_set_num_threads(1);
  const route one = run_loop(s, true, ref, cdy, cdx);
  omp_set_num_threads(4);
  const route four = run_loop(s, true, ref, cdy, cdx);
  omp_set_num_threads(keep);
  EXPECT_EQ(one.rows, four.rows);
  expect_close(one.sens_sq, four.sens_sq, 1e-12);
  expect_close(one.sens_avg, four.sens_avg, 1e-12);
}

TEST(Kernel2, UnusableArgumentsTakeTheGeneralLoop) {
  const survey s = make_survey(5, 4, 3, centres(1, 5, 1), centres(1, 4, 1), 5.0);
  const route general = run_loop(s, false);
  for (int32_t ref : {0, obs.ndata + 1}) {
    const route r = run_loop(s, true, ref, 20.0, 10.0);
    EXPECT_NE(r.log.find(fallback_note), std::string::npos);
    EXPECT_EQ(r.rows, general.rows);
  }
  const route r = run_loop(s, true, 1, std::nan(""), 10.0);
  EXPECT_NE(r.log.find(fallback_note), std::string::npos);
  EXPECT_EQ(r.rows, general.rows);
}

TEST(Kernel2, CubeOfTwoToTheThirtyOneCellsTakesTheGeneralLoop) {
  // One cell, two data 50000 cells apart in y and x: the cube would need
  // 100001 * 100001 columns.
  const survey s = make_survey(1, 1, 1, {0.5, 50000.5}, {0.5, 50000.5}, 1.0);
  const route general = run_loop(s, false);
  const route r = run_loop(s, true, 1, 20.0, 10.0);
  EXPECT_NE(r.log.find("2**31"), std::string::npos);
  EXPECT_EQ(r.rows, general.rows);
}

TEST(Kernel2, CompressedRowsGiveBackTheFullRows) {
  const survey s = make_survey(7, 6, 5, centres(1, 7, 2), centres(1, 6, 1), 4.0);
  bool regular = false;
  int32_t ref = 0;
  double cdy = 0, cdx = 0;
  grid_check(1, 1, regular, ref, cdy, cdx);
  ASSERT_TRUE(regular);
  const route full = run_loop(s, true, ref, cdy, cdx);

  // Every coefficient kept: the records are the transformed rows.
  std::vector<double> sq, avg;
  std::string log;
  {
    qt::capture cap;
    setup_compression(s.n, s.wtz, top_index, s.obs_type, "daub2", "2 0.0");
    ASSERT_TRUE(compressed);
    KERNEL2(s.n, s.wtz, top_index, s.obs_type, ref, cdy, cdx, sq, avg);
    log = cap.log();
  }
  EXPECT_EQ(sq, full.sens_sq);
  EXPECT_EQ(avg, full.sens_avg);
  EXPECT_NE(log.find(fmt_right("Number of non-zeros:", 30) + fmt_int(ncube * obs.ndata, 10)),
            std::string::npos);
  EXPECT_NE(log.find("achieved relative error:"), std::string::npos);

  const std::size_t n = static_cast<std::size_t>(s.n);
  std::vector<double> cube(static_cast<std::size_t>(ncube)), row(n);
  for (int32_t i = 0; i < obs.ndata; ++i) {
    const compressed_row& rec = g_compressed[i];
    ASSERT_EQ(rec.idx.size(), static_cast<std::size_t>(ncube));
    std::fill(cube.begin(), cube.end(), 0.0);
    for (std::size_t k = 0; k < rec.idx.size(); ++k) cube[rec.idx[k] - 1] = rec.val[k];
    transform_cube(cube.data(), -1);
    cube_to_row(row.data(), s.n, cube.data());
    double norm = 0.0;
    for (std::size_t k = 0; k < n; ++k) norm += double(full.rows[i * n + k]) * full.rows[i * n + k];
    norm = std::sqrt(norm);
    ASSERT_GT(norm, 0.0);
    for (std::size_t k = 0; k < n; ++k)
      ASSERT_NEAR(row[k], full.rows[i * n + k], 1e-6 * norm) << "row " << i + 1 << " entry " << k + 1;
  }
  compressed = false;
  g_compressed.clear();
}

TEST(Kernel2, CompressedRecordsAgreeWithTheGeneralLoop) {
  const survey s = make_survey(8, 7, 4, centres(1, 8, 1), centres(1, 7, 2), 6.0);
  bool regular = false;
  int32_t ref = 0;
  double cdy = 0, cdx = 0;
  grid_check(1, 1, regular, ref, cdy, cdx);
  ASSERT_TRUE(regular);

  struct store {
    std::vector<compressed_row> rows;
    std::vector<double> sq, avg;
    std::string log;
  } general, fast;
  for (store* st : {&general, &fast}) {
    qt::capture cap;
    setup_compression(s.n, s.wtz, top_index, s.obs_type, "daub3", "2 0.001");
    ASSERT_TRUE(compressed);
    if (st == &fast)
      KERNEL2(s.n, s.wtz, top_index, s.obs_type, ref, cdy, cdx, st->sq, st->avg);
    else
      KERNEL(s.n, s.wtz, top_index, s.obs_type, st->sq, st->avg);
    st->rows = g_compressed;
    st->log = cap.log();
  }
  compressed = false;
  g_compressed.clear();

  expect_close(fast.sq, general.sq, 1e-6);
  expect_close(fast.avg, general.avg, 1e-6);
  for (int32_t i = 0; i < obs.ndata; ++i) {
    const compressed_row& a = fast.rows[i];
    const compressed_row& b = general.rows[i];
    ASSERT_EQ(a.idx, b.idx) << "row " << i + 1;
    ASSERT_GT(b.val.size(), 0u);
    ASSERT_LT(b.val.size(), static_cast<std::size_t>(ncube));
    float big = 0.0f;
    for (float v : b.val) big = std::max(big, std::fabs(v));
    for (std::size_t k = 0; k < a.val.size(); ++k)
      ASSERT_NEAR(a.val[k], b.val[k], 1e-6 * big) << "row " << i + 1;
  }
  // The same report: the counts agree, and so do the test data to the digits shown.
  const auto report_of = [](const std::string& log) { return log.substr(log.find("Number of non-zeros:")); };
  EXPECT_EQ(report_of(fast.log), report_of(general.log));
}

TEST(Kernel2, WholeRunsByBothRoutesWriteTheSameModel) {
  // The same survey twice: with one direction for all data it takes the
  // regular route; with the same direction given per datum, the general one.
  qt::scratch_dir d("kernel2_run");
  qt::write_file(d.file("mesh.txt"), "9 8 4\n0.0 0.0 100.0\n9*20.0\n8*25.0\n4*10.0\n");
  for (const std::string kind : {"one", "each"}) {
    std::string text = "70.0 10.0 50000.0\n70.0 10.0 " + std::string(kind == "one" ? "1" : "0") +
                       "\n20\n";
    for (int j = 0; j < 4; ++j)
      for (int i = 0; i < 5; ++i)
        text += std::to_string(10.0 + 40.0 * i) + " " + std::to_string(12.5 + 50.0 * j) +
                " 103.0 70.0 10.0\n";
    qt::write_file(d.file(kind + ".mag"), text);
    qt::write_file(d.file(kind + ".inp"), "mesh.txt\n" + kind + ".mag\nnull\nVALUE 1.0\nNONE\nnull\n0\n");
  }
  ASSERT_EQ(qt::run_program(d.path.string(), {"one.inp"}).status, 0);
  const std::vector<std::string> fast = qt::read_lines(d.file("sensitivity.txt"));
  ASSERT_EQ(qt::run_program(d.path.string(), {"each.inp"}).status, 0);
  const std::vector<std::string> general = qt::read_lines(d.file("sensitivity.txt"));
  ASSERT_EQ(fast.size(), 9u * 8u * 4u);
  ASSERT_EQ(fast.size(), general.size());
  for (std::size_t k = 0; k < fast.size(); ++k) {
    const double a = std::stod(fast[k]), b = std::stod(general[k]);
    ASSERT_NEAR(a, b, 2e-5 * std::fabs(b)) << "cell " << k + 1;
    ASSERT_NE(b, 0.0);
  }
}
