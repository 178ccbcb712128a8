#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <random>

#include "support/test_support.hpp"
#include "wavelet_setup.hpp"

namespace {

const char* const all_wavelets[] = {"daub1", "daub2", "daub3", "daub4", "daub5",
                                    "daub6", "symm4", "symm5", "symm6"};

std::vector<double> random_values(size_t n, unsigned seed) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<double> v(n);
  for (auto& x : v) x = u(gen);
  return v;
}

double norm2(const std::vector<double>& v) {
  double s = 0.0;
  for (double x : v) s += x * x;
  return std::sqrt(s);
}

}  // namespace

TEST(PaddedExtent, SmallestPowerOfTwoNotBelow) {
  for (int32_t n = 1; n <= 5000; ++n) {
    const int64_t e = padded_extent(n);
    EXPECT_GE(e, n);
    EXPECT_EQ(e & (e - 1), 0) << n;
    EXPECT_LT(e / 2, n) << n;
  }
  for (int p = 0; p <= 30; ++p) EXPECT_EQ(padded_extent(1 << p), int64_t{1} << p);
  EXPECT_EQ(padded_extent((1 << 30) + 1), int64_t{1} << 31);
  EXPECT_EQ(padded_extent(2147483647), int64_t{1} << 31);
  EXPECT_EQ(padded_extent(0), 1);
}

TEST(PaddedExtent, CubeBeyondThirtyTwoBitPositionsStops) {
  const std::string text =
      "\nERROR: the mesh is too large for wavelet compression: the padded cube of\n"
      "       2048 x 2048 x 512 elements has more places than the 2147483647\n"
      "       that the positions of a compressed row can address.\n"
      "       Use a smaller mesh, or NONE for no compression.\n\n";
  mesh = mesh_model{};
  mesh.ny = 2000;
  mesh.nx = 1025;
  mesh.nz = 300;
  {
    qt::capture cap;
    EXPECT_THROW(set_padded_extents(), qt::stop_caught);
    EXPECT_EQ(cap.screen(), text);
    EXPECT_EQ(cap.log(), text);
  }
  // One extent alone beyond the limit, and the product exactly 2^31.
  for (auto [y, x, z] : {std::array<int32_t, 3>{2147483647, 1, 1}, {1024, 1024, 2048}}) {
    mesh.ny = y, mesh.nx = x, mesh.nz = z;
    qt::capture cap;
    EXPECT_THROW(set_padded_extents(), qt::stop_caught);
  }
  // 2^30 elements still fit, and no memory is touched by the extents alone.
  mesh.ny = 1024, mesh.nx = 1000, mesh.nz = 1024;
  set_padded_extents();
  EXPECT_EQ(ncube, int64_t{1} << 30);
  EXPECT_EQ(nxp, 1024);
}

TEST(RowCube, CellsLandAtTheirPositionsAndComeBackExactly) {
  // 3 x 2 x 5 cells (nx, ny, nz) with two columns partly above the ground.
  wt::set_mesh(3, 2, 5, {0, 2, 0, 0, 5, 1});
  EXPECT_EQ(nzp, 8);
  EXPECT_EQ(nxp, 4);
  EXPECT_EQ(nyp, 2);
  const int64_t n = cells.nactive;
  ASSERT_EQ(n, 30 - 8);
  std::vector<double> row(n);
  for (int64_t i = 0; i < n; ++i) row[i] = static_cast<double>(i + 1);
  std::vector<double> cube(ncube, -7.0);
  row_to_cube(row.data(), n, cube.data());
  // Cell (iz, ix, iy) sits at (iz-1) + (ix-1) nzp + (iy-1) nzp nxp.
  for (int iy = 1; iy <= nyp; ++iy)
    for (int ix = 1; ix <= nxp; ++ix)
      for (int iz = 1; iz <= nzp; ++iz) {
        const double v = cube[(iz - 1) + (ix - 1) * 8 + (iy - 1) * 32];
        const bool in_mesh = iy <= 2 && ix <= 3 && iz <= 5;
        const int32_t place = in_mesh ? active_at(iz, ix, iy) : 0;
        EXPECT_EQ(v, place > 0 ? row[place - 1] : 0.0) << iz << ix << iy;
      }
  std::vector<double> back(n, 0.0);
  cube_to_row(back.data(), n, cube.data());
  EXPECT_EQ(back, row);

  // A row over every cell is a plain copy in cell order.
  std::vector<double> full(cells.ncell_total);
  for (size_t i = 0; i < full.size(); ++i) full[i] = 0.5 + static_cast<double>(i);
  row_to_cube(full.data(), cells.ncell_total, cube.data());
  EXPECT_EQ(cube[(3 - 1) + (2 - 1) * 8 + (2 - 1) * 32], full[2 + 5 * (1 + 3 * 1)]);
  std::vector<double> full_back(full.size(), 0.0);
  cube_to_row(full_back.data(), cells.ncell_total, cube.data());
  EXPECT_EQ(full_back, full);

  qt::capture cap;
  EXPECT_THROW(row_to_cube(row.data(), n - 1, cube.data()), qt::stop_caught);
  EXPECT_THROW(cube_to_row(row.data(), n + 1, cube.data()), qt::stop_caught);
}

TEST(Transform, InverseAfterForwardAndEnergyForEveryFilterAndAwkwardExtents) {
  const int32_t shapes[][3] = {{1, 1, 1},  {1, 1, 12}, {8, 1, 1},  {1, 5, 1}, {2, 3, 4},
                               {5, 12, 3}, {12, 8, 5}, {4, 4, 4},  {3, 2, 8}, {8, 8, 8}};
  for (const char* w : all_wavelets) {
    wt::use_wavelet(w);
    for (const auto& s : shapes) {
      wt::set_mesh(s[0], s[1], s[2]);
      const int64_t n = cells.nactive;
      const std::vector<double> row = random_values(n, 11);
      std::vector<double> cube(ncube);
      row_to_cube(row.data(), n, cube.data());
      const double e0 = norm2(cube);
      transform_cube(cube.data(), +1);
      // The stored digits are orthogonal to about 1e-12; each pyramid step adds its share.
      EXPECT_NEAR(norm2(cube), e0, 1e-10 * e0) << w << " " << s[0] << s[1] << s[2];
      transform_cube(cube.data(), -1);
      std::vector<double> back(n);
      cube_to_row(back.data(), n, cube.data());
      double err = 0.0;
      for (int64_t i = 0; i < n; ++i) err = std::max(err, std::fabs(back[i] - row[i]));
      EXPECT_LE(err, 1e-10 * e0) << w << " " << s[0] << s[1] << s[2];
    }
  }
}

TEST(Transform, TwelveCoefficientsOnEightElementsStayOrthogonal) {
  wt::use_wavelet("daub6");
  ASSERT_EQ(ncof, 12);
  const int32_t nn[3] = {8, 1, 1};
  for (int m = 0; m < 8; ++m) {
    // The transform of each unit vector is a column of an orthogonal matrix.
    std::vector<double> a(8, 0.0), b(8, 0.0);
    a[m] = 1.0;
    WTN(a.data(), nn, 1);
    for (int q = 0; q < 8; ++q) {
      std::fill(b.begin(), b.end(), 0.0);
      b[q] = 1.0;
      WTN(b.data(), nn, 1);
      double d = 0.0;
      for (int i = 0; i < 8; ++i) d += a[i] * b[i];
      EXPECT_NEAR(d, m == q ? 1.0 : 0.0, 1e-12) << m << " " << q;
    }
  }
}

TEST(Transform, ShortExtentsAreLeftAloneAndConstantsGoToTheLowPass) {
  wt::use_wavelet("daub4");
  std::vector<double> a = random_values(4 * 2 * 1, 3), b = a;
  const int32_t small[3] = {4, 2, 1};
  WTN(a.data(), small, 1);
  EXPECT_EQ(a, b);

  wt::use_wavelet("daub1");
  std::vector<double> c(8 * 8 * 8, 1.0);
  const int32_t cube8[3] = {8, 8, 8};
  WTN(c.data(), cube8, 1);
  // Down to 4 elements: two smooth coefficients per direction, 2^3 each.
  for (int i = 0; i < 8; ++i)
    for (int j = 0; j < 8; ++j)
      for (int k = 0; k < 8; ++k) {
        const bool low = i < 2 && j < 2 && k < 2;
        EXPECT_NEAR(c[k + 8 * (j + 8 * i)], low ? 8.0 : 0.0, 1e-12);
      }
  // One direction above 4 and two of 4 or less: only that one is filtered.
  std::vector<double> d(16 * 3, 1.0);
  const int32_t mixed[3] = {1, 16, 3};
  WTN(d.data(), mixed, 1);
  for (int j = 0; j < 16; ++j) EXPECT_NEAR(d[j], j < 2 ? std::sqrt(8.0) : 0.0, 1e-12);
}

TEST(Transform, ThreadsGiveTheSameCoefficientsAsOneThread) {
  wt::use_wavelet("symm5");
  wt::set_mesh(12, 9, 7);
  const int64_t n = cells.nactive;
  const int rows = 8;
  std::vector<std::vector<double>> serial(rows), parallel(rows);
  for (int r = 0; r < rows; ++r) {
    const std::vector<double> row = random_values(n, 100 + r);
    serial[r].assign(ncube, 0.0);
    row_to_cube(row.data(), n, serial[r].data());
    parallel[r] = serial[r];
    transform_cube(serial[r].data(), 1);
  }
#pragma omp parallel for schedule(static) num_threads(4)
  for (int r = 0; r < rows; ++r) transform_cube(parallel[r].data(), 1);
  for (int r = 0; r < rows; ++r) EXPECT_EQ(parallel[r], serial[r]);
}

TEST(Transform, FilterStepMatchesThePlainPeriodicFormula) {
  // The step written out with the wrap at every tap, as the reference.
  for (const char* w : all_wavelets) {
    wt::use_wavelet(w);
    for (int32_t n : {4, 8, 16, 64}) {
      const std::vector<double> line = random_values(n, 17 + n);
      std::vector<double> lo_hi(n, 0.0), back(n, 0.0);
      const int64_t base = static_cast<int64_t>(ncof) * n - ncof / 2;
      for (int32_t i = 0; i < n / 2; ++i)
        for (int32_t k = 1; k <= ncof; ++k) {
          const int64_t j = (base + 2 * i + 1 + k) & (n - 1);
          // High-pass tap k: cr(k) = -c(ncof + 1 - k) where ncof + 1 - k is odd.
          const double crk = filter[ncof - k] * ((ncof - k + 1) % 2 ? -1.0 : 1.0);
          lo_hi[i] += filter[k - 1] * line[j];
          lo_hi[i + n / 2] += crk * line[j];
        }
      std::vector<double> a = line;
      PWT(a.data(), n, true);
      for (int32_t i = 0; i < n; ++i) EXPECT_NEAR(a[i], lo_hi[i], 1e-15) << w << " " << n << " " << i;
      for (int32_t i = 0; i < n / 2; ++i)
        for (int32_t k = 1; k <= ncof; ++k) {
          const int64_t j = (base + 2 * i + 1 + k) & (n - 1);
          const double crk = filter[ncof - k] * ((ncof - k + 1) % 2 ? -1.0 : 1.0);
          back[j] += filter[k - 1] * a[i] + crk * a[i + n / 2];
        }
      PWT(a.data(), n, false);
      for (int32_t i = 0; i < n; ++i) EXPECT_NEAR(a[i], back[i], 1e-15) << w << " " << n << " " << i;
    }
  }
}

TEST(Transform, BatchedLinesAndSkippedZeroLinesChangeNothing) {
  // Reference: every line gathered on its own and filtered, zeros or not.
  auto reference = [](std::vector<double> a, const int32_t nn[3], int isign) {
    int64_t nprev = 1;
    const int64_t ntot = static_cast<int64_t>(nn[0]) * nn[1] * nn[2];
    for (int d = 0; d < 3; ++d) {
      const int64_t n = nn[d], nnew = n * nprev;
      if (n > 4)
        for (int64_t i2 = 0; i2 < ntot; i2 += nnew)
          for (int64_t i1 = 0; i1 < nprev; ++i1) {
            std::vector<double> line(n);
            for (int64_t m = 0; m < n; ++m) line[m] = a[i1 + i2 + m * nprev];
            if (isign >= 0)
              for (int64_t nt = n; nt >= 4; nt >>= 1) PWT(line.data(), static_cast<int32_t>(nt), true);
            else
              for (int64_t nt = 4; nt <= n; nt <<= 1) PWT(line.data(), static_cast<int32_t>(nt), false);
            for (int64_t m = 0; m < n; ++m) a[i1 + i2 + m * nprev] = line[m];
          }
      nprev = nnew;
    }
    return a;
  };
  wt::use_wavelet("daub5");
  const int32_t nn[3] = {16, 32, 8};
  std::vector<double> a = random_values(16 * 32 * 8, 23);
  // Zero columns, planes and single zero lines among the values.
  for (size_t p = 0; p < a.size(); ++p)
    if ((p / 16) % 3 == 0 || (p / (16 * 32)) == 5 || p % 16 == 7) a[p] = 0.0;
  for (int isign : {1, -1}) {
    std::vector<double> b = a;
    WTN(b.data(), nn, isign);
    EXPECT_EQ(b, reference(a, nn, isign)) << isign;
  }
}

TEST(Transform, AnotherShapeOfTheSameSizeOnOneThread) {
  // Same number of elements, a longer line: the buffers must follow.
  wt::use_wavelet("daub2");
  for (auto nn : {std::array<int32_t, 3>{8, 8, 8}, {2, 2, 128}, {128, 2, 2}}) {
    std::vector<double> a = random_values(512, 31), b = a;
    WTN(a.data(), nn.data(), 1);
    WTN(a.data(), nn.data(), -1);
    for (size_t i = 0; i < a.size(); ++i) EXPECT_NEAR(a[i], b[i], 1e-12);
  }
}
