#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <random>

#include "support/test_support.hpp"
#include "wavelet/uncompressg_mod.hpp"
#include "wavelet_setup.hpp"

namespace {

struct stored_rows {
  std::vector<std::vector<double>> g;  // the rows before the weighting
  std::vector<double> wtz;
};

// store_rows: ndata random smooth rows on the current mesh, divided by wtz and
// compressed with the surface threshold into g_compressed.
stored_rows store_rows(int32_t ndata, double threshold) {
  const int32_t n = cells.nactive;
  stored_rows s;
  std::mt19937_64 gen(9);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  s.wtz.resize(n);
  for (int32_t k = 0; k < n; ++k) s.wtz[k] = 0.3 + 0.05 * (k % 11);
  obs = obs_set{};
  obs.ndata = ndata;
  g_compressed.assign(ndata, compressed_row{});
  wctol_surface = threshold;
  int64_t nnz = 0;
  for (int32_t i = 0; i < ndata; ++i) {
    std::vector<double> g(n), row(n);
    double run = 0.0;
    for (int32_t k = 0; k < n; ++k) g[k] = (run += u(gen));
    for (int32_t k = 0; k < n; ++k) row[k] = g[k] / s.wtz[k];
    COMPRESS_ROW(row.data(), n, g_compressed[i], nnz, 1);
    s.g.push_back(g);
  }
  return s;
}

}  // namespace

TEST(Uncompress, ThresholdZeroGivesTheUncompressedAverage) {
  wt::use_wavelet("daub3");
  wt::set_mesh(7, 6, 5, {0, 1, 0, 2, 0, 0, 5, 0, 0, 0, 1, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0,
                         0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4});
  const int32_t n = cells.nactive;
  const stored_rows s = store_rows(12, 0.0);
  std::vector<double> expect(n, 0.0), scale(n, 0.0);
  for (const auto& g : s.g)
    for (int32_t k = 0; k < n; ++k) {
      expect[k] += std::fabs(g[k]) / 12.0;
      scale[k] = std::max(scale[k], std::fabs(g[k]));
    }
  std::vector<double> avg;
  std::string screen;
  {
    qt::capture cap;
    UNCOMPRESSG(n, s.wtz, avg);
    screen = cap.screen();
  }
  ASSERT_EQ(avg.size(), static_cast<size_t>(n));
  double top = 0.0;
  for (double v : scale) top = std::max(top, v);
  // Coefficients are kept in 32 bits.
  for (int32_t k = 0; k < n; ++k) EXPECT_NEAR(avg[k], expect[k], 1e-6 * top) << k;
  EXPECT_EQ(screen.rfind(" Uncompressing ...\n % done:\n", 0), 0u);
  EXPECT_EQ(screen.substr(screen.size() - 6), " 100.\n");
}

TEST(Uncompress, EmptyRecordsAddNothingAndFewDataShowNoProgress) {
  wt::use_wavelet("daub2");
  wt::set_mesh(5, 4, 6);
  const int32_t n = cells.nactive;
  stored_rows s = store_rows(3, 0.0);
  g_compressed[1] = compressed_row{};
  std::vector<double> avg;
  qt::capture cap;
  UNCOMPRESSG(n, s.wtz, avg);
  EXPECT_EQ(cap.screen(), " Uncompressing ...\n % done:\n");
  for (int32_t k = 0; k < n; ++k)
    EXPECT_NEAR(avg[k], (std::fabs(s.g[0][k]) + std::fabs(s.g[2][k])) / 3.0, 1e-5) << k;
}

TEST(Uncompress, ThreadCountChangesOnlyTheLastBits) {
  wt::use_wavelet("symm4");
  wt::set_mesh(9, 8, 7);
  const int32_t n = cells.nactive;
  const stored_rows s = store_rows(23, 0.01);
  std::vector<double> one, many;
  qt::capture quiet;
  const int saved = omp_get_max_threads();
  omp_set_num_threads(1);
  UNCOMPRESSG(n, s.wtz, one);
  omp_set_num_threads(4);
  UNCOMPRESSG(n, s.wtz, many);
  omp_set_num_threads(saved);
  for (int32_t k = 0; k < n; ++k) EXPECT_NEAR(many[k], one[k], 1e-13 * (1.0 + std::fabs(one[k])));
}
