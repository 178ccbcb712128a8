// The vector targets: how a run picks one, the arctangents and logarithms on
// each against the C library, and the row of the prism formula on each
// against the same cells computed one at a time, and the regular-grid copy on
// each against the copy of one cell at a time.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <omp.h>
#include <random>
#include <string>
#include <vector>

#include "sens/grid_copy.hpp"
#include "sens/field_directions.hpp"
#include "sens/prism_row.hpp"
#include "sens/vector_math.hpp"
#include "support/test_support.hpp"

using namespace quolvent;

namespace {

direction_products directions() { return field_directions(63, 17, 71, -28); }

}  // namespace

// Each target by its name (any case) and the aliases; anything else, and an
// empty name, the widest. QUOLVENT_VECTOR holds a run's workspaces to it.
TEST(VectorTargets, PickedByName) {
  const std::vector<int64_t> all = vector_targets();
  const char* env = std::getenv("QUOLVENT_VECTOR");
  const std::string before = env ? env : "";
  for (int64_t t : all) {
    std::string lower = vector_target_name(t);
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    EXPECT_EQ(pick_vector_target(lower.c_str()), t) << lower;
    setenv("QUOLVENT_VECTOR", vector_target_name(t).c_str(), 1);
    EXPECT_EQ(make_row_workspace(directions(), 1.0).vector_target, t);
    EXPECT_EQ(run_vector_target(), t);
  }
  env ? setenv("QUOLVENT_VECTOR", before.c_str(), 1) : unsetenv("QUOLVENT_VECTOR");
  EXPECT_EQ(pick_vector_target("scalar"), all.back());
  for (const char* other : {"", "avx9", "neon2"}) EXPECT_EQ(pick_vector_target(other), all.front());
  EXPECT_EQ(pick_vector_target(nullptr), all.front());
}

// Arrays of every length up to three vectors and a spread of magnitudes, on
// every target: within a few units of the last place of the C library.
TEST(VectorMath, AtanAndLogAgreeWithTheLibrary) {
  std::mt19937_64 rng(7);
  std::uniform_real_distribution<double> expo(-30, 30), sign(-1, 1);
  for (int64_t t : vector_targets())
    for (std::size_t n = 0; n <= 3 * 16 + 1; ++n) {
      std::vector<double> x(n), a(n), l(n);
      for (std::size_t i = 0; i < n; ++i)
        x[i] = a[i] = std::pow(10.0, expo(rng)) * (sign(rng) < 0 ? -1 : 1), l[i] = std::fabs(x[i]);
      atan_array(t, a.data(), n);
      log_array(t, l.data(), n);
      for (std::size_t i = 0; i < n; ++i)
        EXPECT_TRUE(std::fabs(a[i] - std::atan(x[i])) <= 4 * DBL_EPSILON * std::fabs(a[i]) &&
                    std::fabs(l[i] - std::log(std::fabs(x[i]))) <=
                        4 * DBL_EPSILON * std::fabs(l[i]))
            << vector_target_name(t) << " " << x[i];
    }
}

// A row over a mesh of uneven widths and uneven tops, the point within it
// (so columns in three stretches, and the cell it is in), on a node line
// below it and on a vertical edge: every entry is, to the bit, the entry of
// the same cell on a mesh of that one cell; on every target. The edge
// messages are the same on every target, in cell order; and the same, to the
// logarithms' rounding, with every cell through the one-cell formula; and the
// same to the bit with the row shared among threads.
TEST(PrismLanes, EveryCellAsIfAlone) {
  const int32_t ny = 3, nx = 4, nz = 19;
  std::vector<double> yn{0}, xn{-7}, zn{0};
  for (int j = 0; j < ny; ++j) yn.push_back(yn.back() + 8 + 3 * j);
  for (int i = 0; i < nx; ++i) xn.push_back(xn.back() + 6 + 2 * (i % 2));
  for (int k = 0; k < nz; ++k) zn.push_back(zn.back() + 2 + 0.5 * (k % 3));
  std::vector<int32_t> top(ny * nx);
  std::size_t glen = 0;
  for (int c = 0; c < ny * nx; ++c)
    top[c] = (c * 5) % 4 + (c == 7 ? nz : 0), glen += nz - std::min(top[c], nz);
  // Within (the cell holding it); on the node line (8, -1) below the mesh;
  // on the vertical edge through the node (19, 13) at a depth of cells.
  const double points[][3] = {{12.4, 4.7, 13.3}, {8.0, -1.0, 49.6}, {19.0, 13.0, 13.0}};
  std::string logs[3];
  const int saved = omp_get_max_threads();
  for (int64_t t : vector_targets()) {
    row_workspace ws = make_row_workspace(directions(), 1.0);
    ws.vector_target = t;
    for (int p = 0; p < 3; ++p) {
      const double oy = points[p][0], ox = points[p][1], oz = points[p][2];
      qt::capture cap;
      std::vector<double> g(glen, -1.0);
      prism_row(ws, 50000, yn.data(), xn.data(), zn.data(), ny, nx, nz, top.data(), 3, oy, ox, oz,
                g.data(), glen, cap.out);
      if (t == vector_targets().front()) logs[p] = cap.log();
      EXPECT_EQ(cap.log(), logs[p]) << vector_target_name(t) << " point " << p;
      // The one-cell formula on every cell: the same to the rounding of the
      // logarithms, the same messages.
      qt::capture cap2;
      std::vector<double> alone_all(glen, -1.0);
      ws.every_cell_alone = true;
      prism_row(ws, 50000, yn.data(), xn.data(), zn.data(), ny, nx, nz, top.data(), 3, oy, ox, oz,
                alone_all.data(), glen, cap2.out);
      // The row shared among threads, a run of rows of columns each, the
      // vector loop's and every cell alone: the same bits, messages in order.
      for (int threads : {2, 3}) {
        omp_set_num_threads(threads);
        for (const bool alone : {false, true}) {
          ws.every_cell_alone = alone;
          qt::capture cap3;
          std::vector<double> shared(glen, -1.0);
          prism_row_parallel(ws, 50000, yn.data(), xn.data(), zn.data(), ny, nx, nz, top.data(), 3,
                             oy, ox, oz, shared.data(), glen, cap3.out);
          EXPECT_TRUE(shared == (alone ? alone_all : g)) << threads << " threads, point " << p;
          EXPECT_EQ(cap3.log(), logs[p]) << threads << " threads, point " << p;
        }
      }
      omp_set_num_threads(saved);
      ws.every_cell_alone = false;
      EXPECT_EQ(cap2.log(), logs[p]);
      for (std::size_t e = 0; e < glen; ++e)
        ASSERT_NEAR(alone_all[e], g[e], 1e-12 * 50000) << "point " << p << " entry " << e;
      std::size_t indx = 0;
      for (int32_t j = 1; j <= ny; ++j)
        for (int32_t i = 1; i <= nx; ++i)
          for (int32_t k = std::min(top[(j - 1) + (i - 1) * ny], nz) + 1; k <= nz; ++k, ++indx) {
            const double y1[2] = {yn[j - 1], yn[j]}, x1[2] = {xn[i - 1], xn[i]},
                         z1[2] = {zn[k - 1], zn[k]};
            const int32_t top1 = 0;
            double alone = 0;
            qt::capture cap1;
            prism_row(ws, 50000, y1, x1, z1, 1, 1, 1, &top1, 3, oy, ox, oz, &alone, 1, cap1.out);
            ASSERT_EQ(g[indx], alone)
                << vector_target_name(t) << " point " << p << " cell " << j << " " << i << " " << k;
          }
    }
  }
  EXPECT_TRUE(logs[0].empty() && logs[1].empty());
  EXPECT_NE(logs[2].find("is on the edge"), std::string::npos);
}

// The regular-grid copy on every target against one cell at a time: runs of
// columns whose tops are 0 copied as one, others alone; into a row and into
// 32-bit floats; the sums on the way.
TEST(GridCopy, SameBitsAsOneCellAtATime) {
  const int32_t ny = 3, nx = 5, nz = 11, nx2 = 9;
  std::vector<double> cube(static_cast<std::size_t>(ny + 2) * nx2 * nz);
  for (std::size_t c = 0; c < cube.size(); ++c) cube[c] = std::sin(0.37 * c) * std::exp(0.01 * c);
  std::vector<int32_t> top(ny * nx, 0);
  top[4] = 3, top[9] = nz, top[10] = 1;
  std::size_t n = 0;
  for (int32_t t : top) n += static_cast<std::size_t>(nz - t);
  std::vector<double> weights(n);
  for (std::size_t k = 0; k < n; ++k) weights[k] = 0.5 + 0.1 * (k % 13);
  const std::size_t line = static_cast<std::size_t>(nx2) * nz, base = line + 2 * nz;
  // The cells one at a time.
  std::vector<double> want_g, want_avg(n, 0.25), want_sq(n, 0.5);
  for (int32_t j = 0; j < ny; ++j)
    for (int32_t i = 0; i < nx; ++i)
      for (int32_t k = top[j + i * ny]; k < nz; ++k) {
        const std::size_t c = want_g.size();
        const double x = cube[base + j * line + i * nz + k];
        want_g.push_back(x / weights[c]);
        want_avg[c] += std::fabs(x);
        want_sq[c] += want_g[c] * want_g[c];
      }
  const grid_copy_in in{
      cube.data() + base, line, static_cast<std::size_t>(nz), top.data(), ny, nx, nz,
      weights.data()};
  for (int64_t t : vector_targets()) {
    for (const bool to_floats : {false, true}) {
      std::vector<double> g(n, 0.0), avg(n, 0.25), sq(n, 0.5);
      std::vector<float> full(n, 0.0f);
      grid_copy_row(t, in, avg.data(), sq.data(), to_floats ? nullptr : g.data(),
                    to_floats ? full.data() : nullptr);
      for (std::size_t k = 0; k < n; ++k) {
        if (to_floats)
          ASSERT_EQ(full[k], static_cast<float>(want_g[k])) << vector_target_name(t) << " " << k;
        else
          ASSERT_EQ(g[k], want_g[k]) << vector_target_name(t) << " " << k;
        ASSERT_EQ(avg[k], want_avg[k]) << k;
        ASSERT_EQ(sq[k], want_sq[k]) << k;
      }
    }
  }
}
