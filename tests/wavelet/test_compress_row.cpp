#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "support/test_support.hpp"
#include "wavelet/compress_row_mod.hpp"
#include "wavelet_setup.hpp"

namespace {

std::vector<double> smooth_row(int64_t n, unsigned seed) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<double> v(n);
  double run = 0.0;
  for (auto& x : v) x = (run += u(gen));
  return v;
}

// decompress: the row a record stands for, through the inverse transform.
std::vector<double> decompress(const compressed_row& rec, int64_t n) {
  std::vector<double> cube(ncube, 0.0), row(n, 0.0);
  for (size_t k = 0; k < rec.idx.size(); ++k) cube[rec.idx[k] - 1] = rec.val[k];
  transform_cube(cube.data(), -1);
  cube_to_row(row.data(), n, cube.data());
  return row;
}

}  // namespace

TEST(CompressRow, ThresholdEdgesOnAnUntransformedCube) {
  // Extents of 4 and less are not filtered, so the coefficients are the row.
  wt::use_wavelet("daub2");
  wt::set_mesh(4, 2, 3);
  ASSERT_EQ(ncube, 2 * 4 * 4);
  const int32_t n = cells.nactive;
  std::vector<double> row(n, 0.25);
  row[5] = -2.0;   // the largest magnitude
  row[7] = 1.0;    // exactly t for a relative threshold of 0.5
  row[9] = std::nextafter(1.0, 0.0);
  ALLOC_WORK();
  compressed_row rec;
  int64_t nnz = 3;
  wctol_surface = 0.5;
  wctol_borehole = 2.0;
  COMPRESS_ROW(row.data(), n, rec, nnz, +1);
  ASSERT_EQ(rec.idx.size(), 2u);
  EXPECT_EQ(nnz, 3 + 2);
  // Row places 6 and 8: cells (iz 3, ix 2) and (iz 2, ix 3) of the first y column.
  EXPECT_EQ(rec.idx, (std::vector<int32_t>{3 + 4, 2 + 8}));
  EXPECT_EQ(rec.val, (std::vector<float>{-2.0f, 1.0f}));

  // Above 1: nothing is kept; the record exists with no entry.
  nnz = 0;
  COMPRESS_ROW(row.data(), n, rec, nnz, -1);
  EXPECT_EQ(nnz, 0);
  EXPECT_TRUE(rec.idx.empty() && rec.val.empty());
  transform_test_model(std::vector<double>(n, 0.01), std::vector<double>(n, 1.0));
  EXPECT_EQ(dot_compressed(rec), 0.0);

  // Threshold 0 keeps every element of the cube, padding included.
  wctol_borehole = 0.0;
  COMPRESS_ROW(row.data(), n, rec, nnz, -1);
  EXPECT_EQ(nnz, ncube);
  for (size_t k = 0; k < rec.idx.size(); ++k) EXPECT_EQ(rec.idx[k], static_cast<int32_t>(k + 1));

  // An all-zero row: m = 0, t = 0, every element passes.
  nnz = 0;
  wctol_surface = 0.1;
  std::vector<double> zero(n, 0.0);
  COMPRESS_ROW(zero.data(), n, rec, nnz, 0);
  EXPECT_EQ(nnz, ncube);
  DEALLOC_WORK();
}

TEST(CompressRow, ThresholdZeroDecompressesToTheRowAndTheTestDatumAgrees) {
  wt::use_wavelet("symm4");
  wt::set_mesh(12, 7, 9, std::vector<int32_t>(7 * 12, 0));
  const int32_t n = cells.nactive;
  const std::vector<double> g = smooth_row(n, 5);
  std::vector<double> wtz(n), row(n);
  for (int32_t i = 0; i < n; ++i) {
    wtz[i] = 0.5 + 0.01 * (i % 37);
    row[i] = g[i] / wtz[i];
  }
  wctol_surface = 0.0;
  compressed_row rec;
  int64_t nnz = 0;
  COMPRESS_ROW(row.data(), n, rec, nnz, 1);
  EXPECT_EQ(nnz, ncube);
  const std::vector<double> back = decompress(rec, n);
  double scale = 0.0;
  for (double v : row) scale = std::max(scale, std::fabs(v));
  for (int32_t i = 0; i < n; ++i) EXPECT_NEAR(back[i], row[i], 4e-7 * scale) << i;

  // The test model a * wtz in the wavelet domain gives the datum of a and g.
  const std::vector<double> a(n, 0.01);
  transform_test_model(a, wtz);
  double full = 0.0;
  for (int32_t i = 0; i < n; ++i) full += a[i] * g[i];
  EXPECT_NEAR(dot_compressed(rec), full, 1e-6 * std::fabs(full) + 1e-9);

  // A real threshold keeps the largest coefficients, in ascending positions,
  // and the datum moves by no more than the dropped part allows.
  wctol_surface = 0.01;
  nnz = 0;
  COMPRESS_ROW(row.data(), n, rec, nnz, 1);
  EXPECT_GT(nnz, 0);
  EXPECT_LT(nnz, ncube);
  for (size_t k = 1; k < rec.idx.size(); ++k) EXPECT_LT(rec.idx[k - 1], rec.idx[k]);
  EXPECT_NEAR(dot_compressed(rec), full, 0.05 * std::fabs(full));
}

TEST(CompressRow, ThreadsProduceTheSameRecords) {
  wt::use_wavelet("daub3");
  wt::set_mesh(9, 10, 6);
  const int32_t n = cells.nactive;
  wctol_surface = 0.003;
  wctol_borehole = 0.03;
  const int rows = 12;
  std::vector<std::vector<double>> data(rows);
  for (int r = 0; r < rows; ++r) data[r] = smooth_row(n, 40 + r);
  std::vector<compressed_row> one(rows), many(rows);
  int64_t nnz_one = 0, nnz_many = 0;
  for (int r = 0; r < rows; ++r) COMPRESS_ROW(data[r].data(), n, one[r], nnz_one, r % 2 ? -1 : 1);
#pragma omp parallel num_threads(3)
  {
    ALLOC_WORK();
    int64_t mine = 0;
#pragma omp for schedule(static)
    for (int r = 0; r < rows; ++r) COMPRESS_ROW(data[r].data(), n, many[r], mine, r % 2 ? -1 : 1);
#pragma omp critical
    nnz_many += mine;
    DEALLOC_WORK();
  }
  EXPECT_EQ(nnz_many, nnz_one);
  for (int r = 0; r < rows; ++r) {
    EXPECT_EQ(many[r].idx, one[r].idx);
    EXPECT_EQ(many[r].val, one[r].val);
  }
  // The borehole threshold is the larger: its rows keep fewer coefficients.
  EXPECT_LT(one[1].idx.size(), one[0].idx.size());
}

TEST(ReportCompression, ExactLogLines) {
  params.diag_flag = false;
  {
    qt::capture cap;
    report_compression(100, 4, 40, nullptr, nullptr);
    EXPECT_EQ(cap.log(),
              "\n\n          Number of non-zeros:        40\n"
              "          Compression   ratio:  1.0000E+01\n\n\n");
    EXPECT_EQ(cap.screen(), "");
  }
  {
    qt::capture cap;
    const double full[3] = {2.0, -4.0, 1.0};
    const double comp[3] = {2.2, -4.0, 1.05};
    report_compression(7, 3, 9, full, comp);
    EXPECT_EQ(cap.log(),
              "\n\n          Number of non-zeros:         9\n"
              "          Compression   ratio:  2.3333E+00\n\n"
              "      achieved relative error:  5.0000E-02\n\n");
  }
  {
    // A datum of zero response has no relative error: left out and counted.
    qt::capture cap;
    const double full[3] = {0.0, 2.0, 0.0};
    const double comp[3] = {1.0, 2.5, 0.0};
    report_compression(7, 3, 0, full, comp);
    EXPECT_EQ(cap.log(),
              "\n\n          Number of non-zeros:         0\n"
              "          Compression   ratio:   no coefficient kept\n\n"
              "      achieved relative error:  2.5000E-01\n"
              "  zero-response data left out:         2\n\n");
  }
}

TEST(ReportCompression, DataFilesWhenDiagnosticsAreWanted) {
  qt::scratch_dir dir("wavelet_report");
  dir.cd();
  obs = obs_set{};
  obs.ndata = 2;
  obs.obs_x = {1.0, 2.0};
  obs.obs_y = {3.0, 4.0};
  obs.obs_z = {5.0, 6.0};
  params.diag_flag = true;
  const double full[2] = {1.5, 2.5};
  const double comp[2] = {1.25, 2.75};
  {
    qt::capture cap;
    report_compression(10, 2, 4, full, comp);
  }
  params.diag_flag = false;
  const auto exact = qt::read_lines(dir.file("data_notcompressed.txt"));
  const auto approx = qt::read_lines(dir.file("data_compressed.txt"));
  ASSERT_EQ(exact.size(), 5u);
  ASSERT_EQ(approx.size(), 5u);
  EXPECT_NE(exact[3].find("1.500000E+00"), std::string::npos);
  EXPECT_NE(approx[4].find("2.750000E+00"), std::string::npos);
}
