// The matrix file, read back by a reader of its own: frames, chaining of long
// records, record sizes and contents, rows against the row kernel.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "model/model.hpp"
#include "output/matrix_file.hpp"
#include "sens/gsus_mod.hpp"
#include "sens/gsus_no_atan_mod.hpp"
#include "sens/kernel_mod.hpp"
#include "support/matrix_reader.hpp"
#include "support/test_support.hpp"
#include "wavelet/compression.hpp"

namespace {

// A small model with air cells: 3 x 4 x 3 cells, 7 data.
int32_t small_model() {
  mesh = mesh_model{};
  mesh.ny = 3;
  mesh.nx = 4;
  mesh.nz = 3;
  mesh.dy = {10, 20, 10};
  mesh.dx = {5, 5, 10, 5};
  mesh.dz = {2, 4, 8};
  mesh.z0 = 50;
  mesh.yn = {100, 110, 130, 140};
  mesh.xn = {-10, -5, 0, 10, 15};
  mesh.zn = {0, 2, 6, 14};
  top_index = {0, 1, 3, 2, 0, 1, 0, 0, 3, 1, 2, 0};
  int32_t n = 0;
  for (int32_t t : top_index) n += mesh.nz - t;
  obs = obs_set{};
  obs.incl = 70;
  obs.decl = 5;
  obs.geomag = 50000;
  obs.aincl = 70;
  obs.adecl = 5;
  obs.idir = 1;
  obs.ndata = 7;
  for (int i = 0; i < 7; ++i) {
    obs.obs_y.push_back(101.5 + 5.3 * i);
    obs.obs_x.push_back(-9.1 + 3.7 * i);
    obs.obs_z.push_back(51 + 0.5 * i);
  }
  compressed = false;
  ncof = 0;
  filter.clear();
  nyp = nxp = nzp = 0;
  ncube = 0;
  return n;
}

}  // namespace

// Byte-exact frames of one record cut at a small limit, the payload running
// across the blocks it is made of.
TEST(WriteRecord, FramesAndChaining) {
  qt::scratch_dir dir;
  dir.cd();
  const char a[3] = {'a', 'b', 'c'}, b[7] = {'d', 'e', 'f', 'g', 'h', 'i', 'j'};
  std::FILE* f = std::fopen("r.bin", "wb");
  write_record(f, {{a, 3}, {b, 7}}, 4);   // 10 bytes: 4 + 4 + 2
  write_record(f, {{a, 3}, {b, 7}}, 5);   // 10 bytes: 5 + 5
  write_record(f, {{a, 3}, {b, 7}}, 10);  // exactly the limit: one frame
  write_record(f, {{a, 0}}, 4);           // empty record
  std::fclose(f);
  auto m = [](int32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); };
  const std::string want = m(-4) + "abcd" + m(4) + m(-4) + "efgh" + m(-4) + m(2) + "ij" + m(-2) +
                           m(-5) + "abcde" + m(5) + m(5) + "fghij" + m(-5) +
                           m(10) + "abcdefghij" + m(10) + m(0) + m(0);
  EXPECT_EQ(file_bytes("r.bin"), want);
}

// KERNEL, then write_matrix, read back whole: once with the real limit (no
// record is chained) and once with a limit of 24 bytes, which chains most.
TEST(WriteMatrix, UncompressedFileReadsBack) {
  qt::scratch_dir dir;
  dir.cd();
  qt::capture cap;
  const int32_t n = small_model();
  std::vector<double> wtz(static_cast<std::size_t>(n));
  for (int32_t k = 0; k < n; ++k) wtz[k] = 1.0 + 0.1 * k;
  g_full.assign(static_cast<std::size_t>(n) * obs.ndata, 0.0f);
  SET_G_VALUES(obs.incl, obs.decl, obs.aincl, obs.adecl);
  std::vector<double> sens_sq, sens_avg;
  omp_set_num_threads(2);
  KERNEL(n, wtz, top_index, std::vector<int32_t>(7, 1), sens_sq, sens_avg);
  const std::vector<float> rows = g_full;
  const std::string screen_before = cap.screen();
  const std::string log_before = cap.log();

  for (int64_t limit : {subrecord_limit, int64_t{24}}) {
    g_full = rows;
    write_matrix(n, wtz, top_index, 1, sens_sq, limit);
    EXPECT_TRUE(g_full.empty());
    frame_reader rd{file_bytes("dulmarok.mtx"), 0, limit, {}};

    const std::string r1 = rd.record();
    ASSERT_EQ(r1.size(), 20u);
    EXPECT_EQ(values_of<int32_t>(r1, 0, 5), (std::vector<int32_t>{7, n, 3, 4, 3}));

    const std::string r2 = rd.record();
    ASSERT_EQ(r2.size(), 8u * (3 + 4 + 3 + 4));
    std::vector<double> nodes = mesh.yn;
    nodes.insert(nodes.end(), mesh.xn.begin(), mesh.xn.end());
    nodes.insert(nodes.end(), mesh.zn.begin(), mesh.zn.end());
    nodes.push_back(50);
    EXPECT_EQ(values_of<double>(r2, 0, 14), nodes);

    const std::string r3 = rd.record();
    EXPECT_EQ(values_of<int32_t>(r3, 0, 12), top_index);
    EXPECT_EQ(r3.size(), 48u);

    const std::string r4 = rd.record();
    EXPECT_EQ(r4.size(), 4u);
    EXPECT_EQ(values_of<int32_t>(r4, 0, 1)[0], 0);

    const std::string r5 = rd.record();
    EXPECT_EQ(values_of<int32_t>(r5, 0, 3), (std::vector<int32_t>{0, 0, 0}));

    const std::string r6 = rd.record();
    ASSERT_EQ(r6.size(), 4u + 8u * n);
    EXPECT_EQ(values_of<int32_t>(r6, 0, 1)[0], 1);
    EXPECT_EQ(values_of<double>(r6, 4, static_cast<std::size_t>(n)), wtz);

    std::vector<double> g(static_cast<std::size_t>(n));
    for (int32_t i = 1; i <= 7; ++i) {
      const std::string row = rd.record();
      ASSERT_EQ(row.size(), 4u * n);
      const std::vector<float> v = values_of<float>(row, 0, static_cast<std::size_t>(n));
      sens_row(mesh.yn.data(), mesh.xn.data(), mesh.zn.data(), 3, 4, 3, top_index.data(), i,
               obs.obs_y[i - 1], obs.obs_x[i - 1], mesh.z0 - obs.obs_z[i - 1], g.data(), g.size());
      for (int32_t k = 0; k < n; ++k) ASSERT_EQ(v[k], static_cast<float>(g[k] / wtz[k]));
    }
    const std::string last = rd.record();
    EXPECT_EQ(values_of<double>(last, 0, static_cast<std::size_t>(n)), sens_sq);
    EXPECT_TRUE(rd.at_end());
    if (limit == 24) {
      EXPECT_EQ(rd.parts[1], 5);  // 112 bytes: 4 x 24 + 16
      EXPECT_EQ(rd.parts[0], 1);  // 20 bytes
    } else {
      for (int p : rd.parts) EXPECT_EQ(p, 1);
    }
  }
  EXPECT_EQ(cap.screen().substr(screen_before.size()),
            "\nWriting out the matrix.\n\n\nWriting out the matrix.\n\n");
  EXPECT_EQ(cap.log(), log_before);
}

// Compressed rows: the count, then the positions, then the 32-bit values; an
// empty row is a record of 4 bytes; the filter and the padded extents show.
TEST(WriteMatrix, CompressedRowsAndFilter) {
  qt::scratch_dir dir;
  dir.cd();
  qt::capture cap;
  const int32_t n = small_model();
  compressed = true;
  ncof = 4;
  filter = {0.48296291314453, 0.83651630373780, 0.22414386804201, -0.12940952255126};
  nyp = 4;
  nxp = 4;
  nzp = 4;
  ncube = 64;
  g_compressed.assign(7, compressed_row{});
  for (int i = 0; i < 7; ++i) {
    for (int k = 0; k < 3 * i; ++k) {
      g_compressed[i].idx.push_back(1 + 2 * k + i);
      g_compressed[i].val.push_back(0.25f * k - i);
    }
  }
  const std::vector<double> wtz(static_cast<std::size_t>(n), 2.0);
  const std::vector<double> sq(static_cast<std::size_t>(n), 3.5);
  write_matrix(n, wtz, top_index, 1, sq, 10);
  frame_reader rd{file_bytes("dulmarok.mtx"), 0, 10, {}};
  for (int r = 0; r < 3; ++r) rd.record();
  const std::string r4 = rd.record();
  ASSERT_EQ(r4.size(), 4u + 32u);
  EXPECT_EQ(values_of<int32_t>(r4, 0, 1)[0], 4);
  EXPECT_EQ(values_of<double>(r4, 4, 4), filter);
  EXPECT_EQ(values_of<int32_t>(rd.record(), 0, 3), (std::vector<int32_t>{4, 4, 4}));
  rd.record();
  for (int i = 0; i < 7; ++i) {
    const std::string row = rd.record();
    const std::size_t nnz = g_compressed[i].idx.size();
    ASSERT_EQ(row.size(), 4u + 8u * nnz);
    EXPECT_EQ(values_of<int32_t>(row, 0, 1)[0], static_cast<int32_t>(nnz));
    EXPECT_EQ(values_of<int32_t>(row, 4, nnz), g_compressed[i].idx);
    EXPECT_EQ(values_of<float>(row, 4 + 4 * nnz, nnz), g_compressed[i].val);
  }
  EXPECT_EQ(values_of<double>(rd.record(), 0, static_cast<std::size_t>(n)), sq);
  EXPECT_TRUE(rd.at_end());
  EXPECT_EQ(g_compressed.size(), 7u);  // kept for the uncompress stage
  compressed = false;
  ncof = 0;
  filter.clear();
  nyp = nxp = nzp = 0;
  ncube = 0;
  g_compressed.clear();
}
