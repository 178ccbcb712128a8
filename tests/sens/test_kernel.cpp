// The two row loops (rows independent of the thread count, the sums, the
// progress line, the regular-grid loop against the general one) and the
// regular survey test that chooses between them.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "model/model.hpp"
#include "sens/grid_check.hpp"
#include "sens/gsus_mod.hpp"
#include "sens/gsus_no_atan_mod.hpp"
#include "sens/kernel2_mod.hpp"
#include "sens/kernel_mod.hpp"
#include "support/test_support.hpp"
#include "wavelet/compression.hpp"

namespace {

// hills: a uniform mesh of cells 10 (x) by 20 (y) by 5 whose columns reach 0
// to 3 cells into the air, some wholly, every cell below the ground active,
// and the field set with no data yet. Returns n.
int32_t hills(int nx, int ny, int nz, int32_t idir = 1) {
  qt::set_uniform_mesh(nx, ny, nz, 10, 20, 5, 300, -700, 50);
  qt::set_field(65, 12, 65, 12, 50000, idir);
  cells = active_cells{};
  int32_t n = 0;
  for (int j = 0; j < ny; ++j)
    for (int i = 0; i < nx; ++i) {
      int32_t& t = top_index[j + ny * i];
      t = (i + 2 * j) % 11 == 7 ? nz : std::min((i * 3 + j * 5) % 4, nz);
      for (int k = 0; k < nz; ++k) cells.active_map.push_back(k >= t ? ++n : 0);
    }
  cells.ncell_total = nx * ny * nz, cells.nbelow = cells.nactive = n;
  return n;
}

struct result {
  std::vector<float> rows;
  std::vector<compressed_row> recs;
  std::vector<double> wtz, sq, avg;
  std::string screen, log;
};

// run: KERNEL, or KERNEL2 with ref and the cell widths, on `threads` threads;
// compressed with "daub3" when eps is given; wtz away from 1.
result run(int32_t n, int threads, bool regular, int32_t ref = 0, double cdy = 20,
           double cdx = 10, const char* eps = nullptr) {
  result r;
  for (int32_t k = 0; k < n; ++k) r.wtz.push_back(1 + 0.25 * (k % 7));
  std::vector<int32_t> kinds;
  for (double z : obs.obs_z) kinds.push_back(z > mesh.z0 ? 1 : -1);
  qt::capture cap;
  compressed = false;
  g_full.assign(static_cast<std::size_t>(n) * obs.ndata, -1.0f);
  SET_G_VALUES(obs.incl, obs.decl, obs.aincl, obs.adecl);
  if (eps) setup_compression(n, r.wtz, top_index, kinds, "daub3", eps);
  omp_set_num_threads(threads);
  regular ? KERNEL2(n, r.wtz, top_index, kinds, ref, cdy, cdx, r.sq, r.avg)
          : KERNEL(n, r.wtz, top_index, kinds, r.sq, r.avg);
  r.rows.assign(g_full.begin(), g_full.end()), r.recs = g_compressed, r.screen = cap.screen(), r.log = cap.log();
  compressed = false;
  g_compressed.clear();
  return r;
}

void expect_close(const std::vector<double>& a, const std::vector<double>& b, double tol,
                  const std::string& what) {
  ASSERT_EQ(a.size(), b.size()) << what;
  for (std::size_t k = 0; k < a.size(); ++k)
    ASSERT_LE(std::fabs(a[k] - b[k]), tol * std::max(std::fabs(a[k]), std::fabs(b[k])))
        << what << " entry " << k;
}

}  // namespace

// Rows bit for bit the same with 1, 2 and 4 threads, the sums to rounding;
// data at random places, every fifth in a borehole, each with its own
// direction (idir 0): the store holds row / wtz of the datum's own row,
// sens_avg the mean |row| and sens_sq the sum of (row / wtz)^2.
TEST(Kernel, RowsIdenticalForAnyThreadCount) {
  std::mt19937_64 rng(7);
  std::uniform_real_distribution<double> u(0, 1);
  const int32_t n = hills(6, 5, 4, 0), ndata = 23;
  for (int i = 0; i < ndata; ++i)
    qt::add_datum(295 + 67 * u(rng), -705 + 110 * u(rng),
                  i % 5 == 4 ? 30 - 20 * u(rng) : 51 + 5 * u(rng), 160 * u(rng) - 80,
                  360 * u(rng) - 180);
  const result one = run(n, 1, false);
  for (int t : {2, 4}) {
    const result many = run(n, t, false);
    EXPECT_EQ(many.rows, one.rows) << "threads " << t;
    expect_close(many.avg, one.avg, 1e-13, "sens_avg");
    expect_close(many.sq, one.sq, 1e-13, "sens_sq");
  }
  std::vector<double> g(n), avg(n), sq(n);
  for (int32_t i = 0; i < ndata; ++i) {
    SET_G_VALUES(obs.incl, obs.decl, obs.obs_aincl[i], obs.obs_adecl[i]);
    sens_row(mesh.yn.data(), mesh.xn.data(), mesh.zn.data(), mesh.ny, mesh.nx, mesh.nz,
             top_index.data(), i + 1, obs.obs_y[i], obs.obs_x[i], mesh.z0 - obs.obs_z[i],
             g.data(), g.size());
    for (int32_t k = 0; k < n; ++k) {
      const double w = g[k] / one.wtz[k];
      ASSERT_EQ(one.rows[static_cast<std::size_t>(i) * n + k], static_cast<float>(w));
      avg[k] += std::fabs(g[k]) / ndata, sq[k] += w * w;
    }
  }
  expect_close(one.avg, avg, 1e-13, "sens_avg");
  expect_close(one.sq, sq, 1e-13, "sens_sq");
}

// Steps of 5 from 0 with 100 data; fewer rows start above 0 and skip the
// steps jumped over; below 10 rows nothing.
TEST(ReportProgress, Texts) {
  qt::capture cap;
  for (int32_t d = 1; d <= 100; ++d) report_progress(d, 100);
  for (int32_t d = 1; d <= 9; ++d) report_progress(d, 9);
  for (int32_t d : {1, 2, 3, 7, 11}) report_progress(d, 11);
  EXPECT_EQ(cap.screen(),
            "  0  5 10 15 20 25 30 35 40 45 50 55 60 65 70 75 80 85 90 95 100.\n"
            "  5 15 25 60 100.\n");
}

// The regular-grid loop against the general one, each forced, on regular
// surveys: rows and sums to 1e-6, records of the same coefficients, the same
// screen and log (compression report included), KERNEL2 rows the same with 1
// and 4 threads.
TEST(Kernel2, AgreesWithTheGeneralLoop) {
  const struct {
    const char* name;
    int nx, ny, nz;
    double x0, sx, mx, y0, sy, my, height;  // data from (x0, y0), sx and sy apart, in cells
    const char* eps;                       // compressed with this threshold line
  } cases[] = {
      {"even, every cell to the edges", 8, 6, 4, 0.5, 1, 8, 0.5, 1, 6, 7, nullptr},
      {"odd, every second cell", 7, 5, 3, 0.5, 2, 4, 0.5, 2, 3, 3, nullptr},
      {"reference off centre, shift 5 over ny/2 = 3", 6, 6, 3, 0.5, 5, 2, 0.5, 5, 2, 4, nullptr},
      {"one row of cells", 9, 1, 3, 0.5, 2, 5, 0.5, 1, 1, 2, nullptr},
      {"data on node planes", 6, 4, 3, 0, 2, 4, 1, 2, 2, 6, nullptr},
      {"compressed", 8, 7, 4, 0.5, 1, 8, 0.5, 2, 4, 6, "2 0.001"},
  };
  for (const auto& c : cases) {
    const int32_t n = hills(c.nx, c.ny, c.nz);
    for (int j = 0; j < c.my; ++j)
      for (int i = 0; i < c.mx; ++i)
        qt::add_datum(300 + 10 * (c.x0 + c.sx * i), -700 + 20 * (c.y0 + c.sy * j), 50 + c.height);
    bool regular = false;
    int32_t ref = 0;
    double cdy = 0, cdx = 0;
    grid_check(1, 1, regular, ref, cdy, cdx);
    ASSERT_TRUE(regular) << c.name;
    const result general = run(n, 2, false, 0, 0, 0, c.eps),
                 fast = run(n, 1, true, ref, cdy, cdx, c.eps),
                 fast4 = run(n, 4, true, ref, cdy, cdx, c.eps);
    EXPECT_EQ(fast.screen, general.screen) << c.name;
    EXPECT_NE(fast.screen.find(" Calculating sensitivity matrix ...\n % done:"), std::string::npos);
    EXPECT_EQ(fast.log, general.log) << c.name;
    expect_close({general.rows.begin(), general.rows.end()}, {fast.rows.begin(), fast.rows.end()},
                 1e-6, c.name);
    expect_close(general.sq, fast.sq, 1e-6, c.name);
    expect_close(general.avg, fast.avg, 1e-6, c.name);
    EXPECT_EQ(fast4.rows, fast.rows) << c.name;
    ASSERT_EQ(fast.recs.size() + general.recs.size(), c.eps ? 2u * obs.ndata : 0u);
    for (std::size_t i = 0; i < fast.recs.size(); ++i)
      EXPECT_EQ(fast.recs[i].idx, general.recs[i].idx) << "row " << i + 1;
  }
}

// A cube of 2^31 cells (two data 50000 cells apart), or a reference datum or
// width that can't be used, sends the rows through KERNEL with a note in the
// log. Halves of a cell round away from 0.
TEST(Kernel2, FallbackToTheGeneralLoop) {
  const int32_t n = hills(1, 1, 1);
  qt::add_datum(305, -690, 51);
  qt::add_datum(305 + 500000, -690 + 1000000, 51);
  const result general = run(n, 2, false);
  const std::string big = " Regular survey: the extended mesh would reach 2**31 cells,\n",
                    bad = " Regular survey without a usable reference datum or cell width,\n";
  for (const auto& [ref, cdy, line] : std::vector<std::tuple<int32_t, double, std::string>>{
           {1, 20, big}, {0, 20, bad}, {3, 20, bad}, {1, NAN, bad}}) {
    const result r = run(n, 2, true, ref, cdy, 10);
    EXPECT_EQ(r.log, "\n" + line + " so the rows are computed datum by datum.\n\n") << ref;
    EXPECT_EQ(r.rows, general.rows);
  }
  for (const auto& [v, shift] : std::vector<std::pair<double, int32_t>>{
           {0.4999, 0}, {0.5, 1}, {-0.5, -1}, {-0.4999, 0}, {2.995, 3}, {-3.004, -3}})
    EXPECT_EQ(grid_shift(v), shift) << v;
}

// Each case edits a regular survey: 16 x 16 cells of 10 from (1000, 5000),
// top at 100, 6 x 6 data 20 apart from the first node, 5 above the top.
TEST(GridCheck, WhichSurveysAreRegular) {
  const auto shift = [](double dx, double dy) {
    for (int k = 0; k < obs.ndata; ++k) obs.obs_x[k] += dx, obs.obs_y[k] += dy;
  };
  const auto x_step = [](double s) {
    for (int k = 0; k < obs.ndata; ++k) obs.obs_x[k] = 1000 + s * (k % 6);
  };
  const struct {
    const char* name;
    std::function<void()> edit;
    int32_t kind, idir;
    bool regular;
    int32_t ref;  // the datum nearest the centre (1080, 5080), 0 unchecked
  } cases[] = {
      {"regular", [] {}, 1, 1, true, 29},
      {"a tie goes to the first", [&] { shift(10, 0); }, 1, 1, true, 28},
      {"on the outermost nodes", [&] { shift(60, 60); }, 1, 1, true, 0},
      {"just outside above", [&] { shift(60, 60), obs.obs_x[35] = std::nextafter(1160.0, 2e3); },
       1, 1, false, 0},
      {"0.0005 apart", [] { obs.obs_x[3] += 0.0005, obs.obs_y[7] -= 0.0005; }, 1, 1, true, 0},
      {"spacing 2.5 cells", [&] { x_step(25); }, 1, 1, false, 0},
      {"spacing 3.005 cells", [&] { x_step(30.05); }, 1, 1, true, 0},
      {"idir 0", [] {}, 1, 0, false, 0},
      {"a borehole datum", [] {}, 0, 1, false, 0},
      {"one line along x", [] { obs.obs_y.assign(36, 5045); }, 1, 1, true, 0},
      {"one line along y", [] { obs.obs_x.assign(36, 1045); }, 1, 1, true, 0},
      {"levels 1.2% apart", [] { obs.obs_z[4] += 0.06; }, 1, 1, false, 0},
  };
  for (const auto& c : cases) {
    qt::set_uniform_mesh(16, 16, 3, 10, 10, 10, 1000, 5000, 100);
    qt::set_field(60, 0, 60, 0);
    for (int j = 0; j < 6; ++j)
      for (int i = 0; i < 6; ++i) qt::add_datum(1000 + 20.0 * i, 5000 + 20.0 * j, 105);
    c.edit();
    bool regular = !c.regular;
    int32_t ref = -7;
    double cdy = 0, cdx = 0;
    grid_check(c.kind, c.idir, regular, ref, cdy, cdx);
    EXPECT_EQ(regular, c.regular) << c.name;
    if (c.ref) EXPECT_EQ(ref, c.ref) << c.name;
    if (regular) EXPECT_TRUE(cdy == 10 && cdx == 10) << c.name;
  }
}
