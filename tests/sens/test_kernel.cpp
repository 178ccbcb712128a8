// The general row loop: rows independent of the thread count, the two sums,
// per-datum directions, the store, and the progress line.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "model/model.hpp"
#include "sens/gsus_mod.hpp"
#include "sens/gsus_no_atan_mod.hpp"
#include "sens/kernel_mod.hpp"
#include "support/test_support.hpp"
#include "run/format.hpp"
#include "wavelet/compression.hpp"
#include "wavelet/wavelet_filters.hpp"
#include "wavelet/wtn_mod.hpp"

namespace {

// survey: a small mesh with some columns partly in the air, surface data
// above it and a few boreholes, idir as given; returns n.
int32_t make_survey(int32_t ndata, int32_t idir, unsigned seed) {
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> u(0, 1);
  mesh = mesh_model{};
  mesh.ny = 5;
  mesh.nx = 6;
  mesh.nz = 4;
  mesh.dy = {10, 12, 10, 8, 10};
  mesh.dx = {9, 9, 11, 9, 9, 10};
  mesh.dz = {5, 6, 8, 12};
  mesh.z0 = 200;
  mesh.yn = {1000};
  for (double w : mesh.dy) mesh.yn.push_back(mesh.yn.back() + w);
  mesh.xn = {-300};
  for (double w : mesh.dx) mesh.xn.push_back(mesh.xn.back() + w);
  mesh.zn = {0};
  for (double w : mesh.dz) mesh.zn.push_back(mesh.zn.back() + w);
  top_index.assign(static_cast<std::size_t>(mesh.ny * mesh.nx), 0);
  int32_t n = 0;
  for (std::size_t c = 0; c < top_index.size(); ++c) {
    top_index[c] = static_cast<int32_t>(rng() % 3);
    n += mesh.nz - top_index[c];
  }
  obs = obs_set{};
  obs.incl = 67;
  obs.decl = -12;
  obs.geomag = 51000;
  obs.aincl = 67;
  obs.adecl = -12;
  obs.idir = idir;
  obs.ndata = ndata;
  for (int32_t i = 0; i < ndata; ++i) {
    obs.obs_y.push_back(mesh.yn.front() - 5 + u(rng) * 60);
    obs.obs_x.push_back(mesh.xn.front() - 5 + u(rng) * 67);
    // Every fifth datum in a borehole, the others 1 to 6 above the mesh top.
    obs.obs_z.push_back(i % 5 == 4 ? mesh.z0 - 7.3 - u(rng) * 20 : mesh.z0 + 1 + u(rng) * 5);
    if (idir == 0) {
      obs.obs_aincl.push_back(-80 + u(rng) * 160);
      obs.obs_adecl.push_back(-180 + u(rng) * 360);
    }
  }
  compressed = false;
  g_full.assign(static_cast<std::size_t>(n) * static_cast<std::size_t>(ndata), -1.0f);
  SET_G_VALUES(obs.incl, obs.decl, obs.aincl, idir ? obs.adecl : obs.obs_adecl[0]);
  return n;
}

std::vector<double> weights(int32_t n) {
  std::vector<double> wtz(static_cast<std::size_t>(n));
  for (int32_t k = 0; k < n; ++k) wtz[k] = 0.5 + 0.25 * (k % 7);
  return wtz;
}

struct kernel_result {
  std::vector<float> rows;
  std::vector<double> avg, sq;
};

// kinds_of: +1 for data above the mesh top, -1 for the boreholes.
std::vector<int32_t> kinds_of() {
  std::vector<int32_t> kinds;
  for (double z : obs.obs_z) kinds.push_back(z > mesh.z0 ? 1 : -1);
  return kinds;
}

// all_active: every cell below the ground takes part, in cell order.
void all_active(int32_t n) {
  cells = active_cells{};
  for (int32_t iy = 1; iy <= mesh.ny; ++iy)
    for (int32_t ix = 1; ix <= mesh.nx; ++ix)
      for (int32_t iz = 1; iz <= mesh.nz; ++iz)
        cells.active_map.push_back(iz > top_at(iy, ix) ? ++cells.nactive : 0);
  cells.ncell_total = mesh.ny * mesh.nx * mesh.nz;
  cells.nbelow = n;
  EXPECT_EQ(cells.nactive, n);
}

kernel_result run_kernel(int threads, int32_t n, const std::vector<double>& wtz) {
  const int before = omp_get_max_threads();
  omp_set_num_threads(threads);
  kernel_result r;
  std::fill(g_full.begin(), g_full.end(), -1.0f);
  KERNEL(n, wtz, top_index, kinds_of(), r.sq, r.avg);
  omp_set_num_threads(before);
  r.rows = g_full;
  return r;
}

}  // namespace

// Rows bit for bit the same with 1, 2 and 4 threads, for a common direction
// and for a direction per datum; the sums the same up to their summation order.
TEST(Kernel, RowsIdenticalForAnyThreadCount) {
  qt::capture cap;
  for (int32_t idir : {1, 0}) {
    const int32_t n = make_survey(23, idir, 7 + idir);
    const auto wtz = weights(n);
    const kernel_result one = run_kernel(1, n, wtz);
    for (int t : {2, 4}) {
      SET_G_VALUES(obs.incl, obs.decl, obs.aincl, obs.adecl);
      if (idir == 0) SET_G_VALUES(obs.incl, obs.decl, obs.obs_aincl[0], obs.obs_adecl[0]);
      const kernel_result many = run_kernel(t, n, wtz);
      ASSERT_EQ(many.rows.size(), one.rows.size());
      EXPECT_EQ(0, std::memcmp(many.rows.data(), one.rows.data(), one.rows.size() * sizeof(float)))
          << "idir " << idir << " threads " << t;
      for (int32_t k = 0; k < n; ++k) {
        EXPECT_NEAR(many.avg[k], one.avg[k], 1e-13 * std::fabs(one.avg[k]));
        EXPECT_NEAR(many.sq[k], one.sq[k], 1e-13 * std::fabs(one.sq[k]));
      }
    }
  }
}

// Each stored row is the datum's own row (its own direction when idir is 0)
// over wtz, rounded to 32 bits; sens_avg is the mean |row| before the weighting
// and sens_sq the sum of the squared weighted rows.
TEST(Kernel, StoreAndSumsMatchSingleRows) {
  qt::capture cap;
  const int32_t n = make_survey(12, 0, 3);
  const auto wtz = weights(n);
  const kernel_result r = run_kernel(2, n, wtz);
  std::vector<double> avg(static_cast<std::size_t>(n), 0.0), sq(static_cast<std::size_t>(n), 0.0);
  std::vector<double> g(static_cast<std::size_t>(n));
  for (int32_t i = 1; i <= obs.ndata; ++i) {
    SET_G_VALUES(obs.incl, obs.decl, obs.obs_aincl[i - 1], obs.obs_adecl[i - 1]);
    sens_row(mesh.yn.data(), mesh.xn.data(), mesh.zn.data(), mesh.ny, mesh.nx, mesh.nz,
             top_index.data(), i, obs.obs_y[i - 1], obs.obs_x[i - 1], mesh.z0 - obs.obs_z[i - 1],
             g.data(), g.size());
    for (int32_t k = 0; k < n; ++k) {
      ASSERT_EQ(r.rows[static_cast<std::size_t>(i - 1) * n + k], static_cast<float>(g[k] / wtz[k]));
      avg[k] += std::fabs(g[k]);
      sq[k] += (g[k] / wtz[k]) * (g[k] / wtz[k]);
    }
  }
  for (int32_t k = 0; k < n; ++k) {
    EXPECT_NEAR(r.avg[k], avg[k] / obs.ndata, 1e-13 * avg[k]);
    EXPECT_NEAR(r.sq[k], sq[k], 1e-13 * sq[k]);
  }
}

TEST(Kernel, ProgressLine) {
  {
    qt::capture cap;
    const int32_t n = make_survey(100, 1, 11);
    run_kernel(2, n, weights(n));
    std::string want = " Calculating sensitivity matrix ...\n % done:\n";
    for (int s = 0; s < 20; ++s) want += (s * 5 < 10 ? "  " : " ") + std::to_string(s * 5);
    want += " 100.\n";
    EXPECT_EQ(cap.screen(), want);
  }
  {
    qt::capture cap;
    const int32_t n = make_survey(9, 1, 12);
    run_kernel(2, n, weights(n));
    EXPECT_EQ(cap.screen(), " Calculating sensitivity matrix ...\n % done:\n");
  }
}

// A loop of 20 or fewer rows starts at a step above 0; a step jumped over is
// not shown.
TEST(ReportProgress, Steps) {
  qt::capture cap;
  for (int32_t d = 1; d <= 20; ++d) report_progress(d, 20);
  for (int32_t d : {1, 2, 3, 7, 11}) report_progress(d, 11);
  EXPECT_EQ(cap.screen(),
            "  5 10 15 20 25 30 35 40 45 50 55 60 65 70 75 80 85 90 95 100.\n"
            "  5 15 25 60 100.\n");
}

// Compressed rows: the same records with 1, 2 and 4 threads; with a threshold
// of 0 every coefficient is kept and the inverse transform gives the row back;
// a threshold above 1 for the boreholes leaves their records empty.
TEST(Kernel, CompressedRecords) {
  qt::capture cap;
  const int32_t n = make_survey(15, 1, 21);
  all_active(n);
  check_wavelet("daub2", filter, ncof);
  set_padded_extents();
  set_filters(filter, ncof);
  compressed = true;
  std::vector<float>().swap(g_full);
  wctol_surface = 0.0;
  wctol_borehole = 0.0;
  const auto wtz = weights(n);

  std::vector<std::vector<compressed_row>> runs;
  for (int t : {1, 2, 4}) {
    g_compressed.assign(15, compressed_row{});
    omp_set_num_threads(t);
    std::vector<double> sq, avg;
    KERNEL(n, wtz, top_index, kinds_of(), sq, avg);
    runs.push_back(g_compressed);
  }
  omp_set_num_threads(2);
  for (int r = 1; r < 3; ++r)
    for (int i = 0; i < 15; ++i) {
      EXPECT_EQ(runs[r][i].idx, runs[0][i].idx);
      EXPECT_EQ(runs[r][i].val, runs[0][i].val);
    }
  EXPECT_NE(cap.log().find(fmt_right("Number of non-zeros:", 30) + fmt_int(ncube * 15, 10)),
            std::string::npos);

  std::vector<double> cube(static_cast<std::size_t>(ncube)), back(static_cast<std::size_t>(n)),
      g(static_cast<std::size_t>(n));
  for (int32_t i = 1; i <= 15; ++i) {
    const compressed_row& rec = runs[0][i - 1];
    ASSERT_EQ(static_cast<int64_t>(rec.idx.size()), ncube);
    std::fill(cube.begin(), cube.end(), 0.0);
    for (std::size_t q = 0; q < rec.idx.size(); ++q) cube[rec.idx[q] - 1] = rec.val[q];
    transform_cube(cube.data(), -1);
    cube_to_row(back.data(), n, cube.data());
    sens_row(mesh.yn.data(), mesh.xn.data(), mesh.zn.data(), mesh.ny, mesh.nx, mesh.nz,
             top_index.data(), i, obs.obs_y[i - 1], obs.obs_x[i - 1], mesh.z0 - obs.obs_z[i - 1],
             g.data(), g.size());
    double big = 0;
    for (int32_t k = 0; k < n; ++k) big = std::max(big, std::fabs(g[k] / wtz[k]));
    for (int32_t k = 0; k < n; ++k) EXPECT_NEAR(back[k], g[k] / wtz[k], 1e-6 * big);
  }

  wctol_borehole = 2.0;
  g_compressed.assign(15, compressed_row{});
  std::vector<double> sq, avg;
  KERNEL(n, wtz, top_index, kinds_of(), sq, avg);
  const auto kinds = kinds_of();
  for (int i = 0; i < 15; ++i) {
    if (kinds[i] < 0) EXPECT_TRUE(g_compressed[i].idx.empty()); else EXPECT_EQ(static_cast<int64_t>(g_compressed[i].idx.size()), ncube);
  }

  compressed = false;
  g_compressed.clear();
  ncof = 0;
  filter.clear();
  nyp = nxp = nzp = 0;
  ncube = 0;
}
