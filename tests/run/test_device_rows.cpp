// The host's side of rows on a device, on any machine: the device's formula
// and transform (compiled here for the host) against the program's own, the
// plan of batches and the records made of a device's answer.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

#include "model/mesh.hpp"
#include "run/device_rows.hpp"
#include "sens/prism_cell.hpp"
#include "sens/prism_row.hpp"
#include "wavelet/compress_row.hpp"
#include "wavelet/transform.hpp"
#include "wavelet/transform_lines.hpp"
#include "support/test_support.hpp"

namespace {

using namespace quolvent;

// formula_row: datum d's row as a device's kernels make it: node values,
// then each cell from its eight corners; flagged, the cells without a value.
std::vector<double> formula_row(const survey& s, const device_datum& d, std::vector<int>& flagged) {
  const mesh_model& m = s.mesh;
  const std::vector<int32_t> corner = cell_corner_nodes(m, s.top_index);
  const double ls = mesh_length_scale(m);
  const int64_t ez = m.nz + 1, ex = m.nx + 1;
  std::vector<double> g(corner.size());
  for (std::size_t p = 0; p < corner.size(); ++p) {
    const int64_t k = corner[p] % ez, i = corner[p] / ez % ex, j = corner[p] / ez / ex;
    cell_corners c;
    for (int a = 0; a < 2; ++a)
      for (int b = 0; b < 2; ++b)
        for (int z = 0; z < 2; ++z)
          c.v[a][b][z] = node_at(m.yn[j + a] - d.oy, m.xn[i + b] - d.ox, m.zn[k + z] - d.oz,
                                 zero_offset(ls));
    const cell_offsets o{m.yn[j] - d.oy, m.yn[j + 1] - d.oy, m.xn[i] - d.ox,
                         m.xn[i + 1] - d.ox, m.zn[k] - d.oz, m.zn[k + 1] - d.oz};
    if (!cell_value(c, o, edge_guard_sq(ls), d.dir, s.obs.geomag / (4 * M_PI), g[p])) {
      g[p] = 0.0;
      flagged.push_back(static_cast<int>(p));
    }
  }
  return g;
}

// Topography, data above and below the ground with a direction each, one on
// a node plane, one on a cell edge, one inside a cell: every row within 1e-10
// of its largest entry of the program's, the cells without a value the same.
TEST(DeviceRows, FormulaRowsAgreeWithTheProgram) {
  const mesh_model mesh = qt::uniform_mesh(6, 5, 7, 10.0, 12.0, 5.0, 100.0, 200.0, 50.0);
  obs_set obs = qt::field(65.0, 20.0, 0.0, 0.0, 50000.0, 0);
  qt::add_datum(obs, 131.0, 227.0, 52.0, 60.0, 10.0);  // above the ground
  qt::add_datum(obs, 120.0, 230.0, 27.0, 90.0, 0.0);   // borehole, on a node plane in x
  qt::add_datum(obs, 130.0, 236.0, 50.0001, 45.0, 30.0);  // just above a cell corner
  qt::add_datum(obs, 145.0, 230.0, 27.5, 0.0, 0.0);    // inside a cell
  std::vector<int32_t> top(static_cast<std::size_t>(mesh.ny * mesh.nx), 0);
  for (std::size_t c = 0; c < top.size(); ++c) top[c] = static_cast<int32_t>(c % 3);
  const survey s = qt::make_survey(mesh, obs, top);
  const std::vector<device_datum> data = device_data(s, all_rows(obs.ndata));
  qt::capture cap;
  int flagged_rows = 0;
  for (int32_t i = 1; i <= obs.ndata; ++i) {
    const std::vector<double> cpu = qt::kernel_row(mesh, obs, top, i, cap.out);
    std::vector<int> flagged;
    const std::vector<double> dev = formula_row(s, data[static_cast<std::size_t>(i - 1)], flagged);
    ASSERT_EQ(cpu.size(), dev.size());
    double big = 0.0;
    for (double v : cpu) big = std::max(big, std::fabs(v));
    for (std::size_t p = 0; p < cpu.size(); ++p)
      EXPECT_LE(std::fabs(cpu[p] - dev[p]), 1e-10 * big) << "datum " << i << " cell " << p;
    for (int p : flagged) EXPECT_EQ(cpu[static_cast<std::size_t>(p)], 0.0);
    flagged_rows += !flagged.empty();
  }
  EXPECT_EQ(flagged_rows, 1);
  EXPECT_NE(cap.log().find("is on the edge"), std::string::npos);
}

// The transform line by line as a device runs it gives transform_3d's
// values, and the kept coefficients are compress_row's, for every wavelet.
TEST(DeviceRows, LineTransformAndPackingAreTheProgramsForEveryWavelet) {
  const mesh_model mesh = qt::uniform_mesh(5, 9, 12, 10.0, 10.0, 5.0);
  obs_set obs = qt::field(65.0, 20.0, 65.0, 20.0);
  qt::add_datum(obs, 20.0, 30.0, 5.0);
  const survey s = qt::make_survey(mesh, obs);
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<double> row(static_cast<std::size_t>(s.n));
  for (double& v : row) v = u(rng) * u(rng) * u(rng);
  for (int w = 1; w <= 6; ++w) {
    compression c = qt::wavelet_of("daub" + std::to_string(w));
    set_padded_extents(mesh, c);
    c.threshold_surface = 1e-2;
    const std::size_t cube = static_cast<std::size_t>(c.cube_size);
    const std::vector<int64_t> place = cube_places(c, s.cells, s.n);
    std::vector<double> a(cube, 0.0), work(cube, 0.0), host(cube, 0.0);
    for (std::size_t p = 0; p < row.size(); ++p) a[static_cast<std::size_t>(place[p])] = row[p];
    row_to_cube(c, s.cells, row.data(), s.n, host.data());
    line_buffers lb;
    transform_cube(c, host.data(), +1, lb);

    line_filters f{};
    f.length = c.filters.filter_length;
    f.tap_offset = c.filters.tap_offset;
    for (int k = 0; k < f.length; ++k) f.low[k] = c.filters.low_pass[k], f.high[k] = c.filters.high_pass[k];
    int64_t nprev = 1;
    for (int64_t n : {c.padded_nz, c.padded_nx, c.padded_ny}) {
      for (int64_t l = 0; l < c.cube_size / n; ++l) {
        const int64_t start = (l / nprev) * n * nprev + l % nprev;
        forward_line(f, a.data() + start, nprev, n, work.data() + start, nprev);
      }
      nprev *= n;
    }
    for (std::size_t q = 0; q < cube; ++q) ASSERT_EQ(a[q], host[q]) << "daub" << w << " at " << q;

    compressed_row rec;
    int64_t nnz = 0;
    compress_workspace ws(c);
    const double bound = compress_row(c, s.cells, row.data(), s.n, rec, nnz, datum_kind::surface, ws);
    double big = 0.0;
    for (double v : a) big = std::max(big, std::fabs(v));
    std::vector<int32_t> idx;
    std::vector<float> val;
    double energy = 0.0, lost = 0.0;
    for (std::size_t q = 0; q < cube; ++q) {
      const bool kept = coefficient_kept(a[q], big * c.threshold_surface);
      energy += a[q] / big * (a[q] / big);
      lost += rounding_loss(a[q], kept, 1.0 / big);
      if (kept) idx.push_back(static_cast<int32_t>(q + 1)), val.push_back(static_cast<float>(a[q]));
    }
    compressed_row mine;
    take_record(idx.data(), val.data(), static_cast<int32_t>(idx.size()), c.cube_size, mine);
    EXPECT_EQ(mine.idx, rec.idx) << "daub" << w;
    EXPECT_EQ(mine.val, rec.val) << "daub" << w;
    EXPECT_NEAR(std::sqrt(lost / energy), bound, 1e-12 * bound) << "daub" << w;
  }
}

// Batches: a whole number of groups, within nine tenths of the free memory,
// no more than the rows; a forced size; no room; the size from the
// environment; a device's answer that is no record.
TEST(DeviceRows, BatchPlanAndRecords) {
  const device_needs need{1000, 1200, 4096, 1 << 20};
  const int64_t per_row = 2 * device_row_bytes(need);
  const int64_t free_bytes = int64_t{1} << 30;
  const batch_plan p = plan_batches(need, free_bytes, 100000, 0);
  EXPECT_EQ(p.rows % largest_sum_group, 0);
  EXPECT_LE(p.bytes, free_bytes - free_bytes / 10);
  EXPECT_GT(p.bytes + largest_sum_group * per_row, free_bytes - free_bytes / 10);
  EXPECT_EQ(p.batches, (100000 + p.rows - 1) / p.rows);
  EXPECT_EQ(plan_batches(need, free_bytes, 20, 0).rows, 32);
  const batch_plan forced = plan_batches(need, free_bytes, 100, 5);
  EXPECT_EQ(forced.rows, 16);
  EXPECT_EQ(forced.batches, 7);

  qt::capture cap;
  EXPECT_TRUE(cap.stops([&] { plan_batches(need, per_row * 8, 1000, 0); }));
  EXPECT_NE(cap.screen().find("the device's memory holds no batch of rows"), std::string::npos);
  setenv("QUOLVENT_GPU_BATCH_ROWS", "48", 1);
  EXPECT_EQ(forced_batch_rows(), 48);
  setenv("QUOLVENT_GPU_BATCH_ROWS", "4x", 1);
  EXPECT_TRUE(cap.stops([] { forced_batch_rows(); }));
  unsetenv("QUOLVENT_GPU_BATCH_ROWS");
  EXPECT_EQ(forced_batch_rows(), 0);

  const int32_t idx[] = {3, 9, 9};
  const float val[] = {1.0f, 2.0f, 3.0f};
  compressed_row rec;
  take_record(idx, val, 2, 16, rec);
  EXPECT_EQ(rec.idx, (std::vector<int32_t>{3, 9}));
  EXPECT_TRUE(cap.stops([&] { take_record(idx, val, 3, 16, rec); }));   // not ascending
  EXPECT_TRUE(cap.stops([&] { take_record(idx, val, 2, 8, rec); }));    // outside the cube
}

}  // namespace
