// The wavelet subsystem: filters, the row-to-cube mapping and the transform,
// threshold estimation, row compression, its log report and the way back.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <numeric>

#include "model/active_cells.hpp"
#include "model/mesh.hpp"
#include "model/model.hpp"
#include "support/test_support.hpp"
#include "wavelet/compress_row_mod.hpp"
#include "wavelet/compression.hpp"
#include "wavelet/threshold.hpp"
#include "wavelet/uncompressg_mod.hpp"
#include "wavelet/wavelet_filters.hpp"
#include "wavelet/wtn_mod.hpp"

using namespace quolvent;

namespace {

const char* const all_wavelets[] = {"daub1", "daub2", "daub3", "daub4", "daub5", "daub6", "symm4", "symm5", "symm6"};

// cube_case: a mesh of cells of one width with its column tops (flat if
// empty), its active cells, and the compression record of a wavelet with the
// padded extents of that mesh.
struct cube_case {
  mesh_model mesh;
  active_cells cells;
  compression c;
  int32_t n() const { return cells.nactive; }
};

cube_case cube_of(int nx, int ny, int nz, const std::string& wavelet, std::vector<int32_t> top = {}) {
  const run_log quiet(nullptr);
  cube_case k{qt::uniform_mesh(nx, ny, nz, 1.0, 1.0, 1.0), {}, qt::wavelet_of(wavelet)};
  if (top.empty()) top.assign(static_cast<std::size_t>(nx) * ny, 0);
  k.cells = get_active_cells("null", k.mesh, top, quiet);
  set_padded_extents(k.mesh, k.c);
  return k;
}

// band_row: count values per relative energy, for a 4 x 4 x 4 mesh (not filtered: coefficients = row).
std::vector<double> band_row(std::initializer_list<std::pair<int, double>> bands) {
  std::vector<double> row;
  for (auto [count, energy] : bands) row.insert(row.end(), count, 3.0 * std::sqrt(energy));
  return row;
}

std::string block(const std::string& eps, const std::string& thr, const std::string& ratio) {
  return "\n At the relative  accuracy of:  " + eps + "\n Estimated relative threshold:  " + thr +
         "\n Predicted compression  ratio:  " + ratio + "\n";
}

// decompress: the row a record stands for, through the inverse transform.
std::vector<double> decompress(const compression& c, const active_cells& cells,
                               const compressed_row& rec, int64_t n) {
  std::vector<double> cube(c.ncube, 0.0), row(n, 0.0);
  for (size_t k = 0; k < rec.idx.size(); ++k) cube[rec.idx[k] - 1] = rec.val[k];
  line_buffers lb;
  transform_cube(c, cube.data(), -1, lb);
  cube_to_row(c, cells, row.data(), n, cube.data());
  return row;
}

}  // namespace

TEST(Filters, UnitNormOrthogonalToEvenShiftsAndLowPass) {
  for (const char* w : all_wavelets) {
    const compression c = qt::wavelet_of(w);
    const std::vector<double>& filter = c.filter;
    ASSERT_EQ(c.ncof, 2 * (w[4] - '0')) << w;
    // Unit norm to rounding (daub1's 0.7071068 too), orthogonal to the stored digits.
    for (int s = 0; s < c.ncof; s += 2) {
      double d = 0.0;
      for (int k = 0; k + s < c.ncof; ++k) d += filter[k] * filter[k + s];
      EXPECT_NEAR(d, s == 0 ? 1.0 : 0.0, s == 0 ? 1e-14 : 1e-10) << w << " shift " << s;
    }
    // symm is stored with the sum 2: after scaling it sums to sqrt(2) like daub.
    EXPECT_NEAR(std::accumulate(filter.begin(), filter.end(), 0.0), std::sqrt(2.0), 1e-9) << w;
  }
}

TEST(Filters, NamesAndTheirMessages) {
  const std::string none = "\nWARNING: no compression will be used for the sensitivity matrix.\n"
      "The program will need a lot of memory and disk space to store the matrix.\n\n";
  const std::string unknown = "\nError: invalid compression method.\nShould be: daub[1-6], symm[4-6], or NONE.\n";
  const std::string daub = "\nERROR: Invalid daub compression.  daub[1-6]\n";
  const std::string symm = "\nError: Invalid symm compression.  symm[4-6]\n";
  const struct { const char* name; const std::string& text; } cases[] = {
      {"NONE ", none}, {"none!", none}, {"Daub2", unknown}, {"DAUB2", unknown}, {"None ", unknown}, {"", unknown},
      {"daub0", daub}, {"daub7", daub}, {"daub ", daub}, {"daubx", daub}, {"daub", daub},
      {"symm3", symm}, {"symm1", symm}, {"symm7", symm}};
  for (const auto& c : cases) {
    qt::capture cap;
    std::vector<double> f{1.0};
    int32_t nc = 5;
    EXPECT_EQ(cap.stops([&] { check_wavelet(c.name, f, nc, cap.out); }), &c.text != &none) << c.name;
    if (&c.text == &none) EXPECT_TRUE(nc == 0 && f.empty()) << c.name;
    EXPECT_EQ(cap.screen(), c.text) << c.name;
    EXPECT_EQ(cap.log(), c.text) << c.name;
  }
}

TEST(Transform, PaddedExtentsAndRowToCubeAndBack) {
  for (int32_t n = 1; n <= 5000; ++n) {
    const int64_t e = padded_extent(n);
    EXPECT_TRUE(e >= n && (e & (e - 1)) == 0 && e / 2 < n) << n;
  }
  for (int p = 0; p <= 30; ++p) EXPECT_EQ(padded_extent(1 << p), int64_t{1} << p);  // whatever the log rounds to
  EXPECT_EQ(padded_extent(2147483647), int64_t{1} << 31);
  // 3 x 2 x 5 cells (nx, ny, nz) with two columns partly above the ground.
  const cube_case k = cube_of(3, 2, 5, "daub2", {0, 2, 0, 0, 5, 1});
  EXPECT_TRUE(k.c.nzp == 8 && k.c.nxp == 4 && k.c.nyp == 2 && k.c.ncube == 64);
  const int64_t n = k.n();
  std::vector<double> row(n), cube(k.c.ncube, -7.0), back(n, 0.0);
  std::iota(row.begin(), row.end(), 1.0);
  row_to_cube(k.c, k.cells, row.data(), n, cube.data());
  // Cell (iz, ix, iy) sits at (iz-1) + (ix-1) nzp + (iy-1) nzp nxp; padded and inactive places hold 0.
  for (int p = 0; p < k.c.ncube; ++p) {
    const int iz = p % 8 + 1, ix = p / 8 % 4 + 1, iy = p / 32 + 1;
    const int32_t place = iy <= 2 && ix <= 3 && iz <= 5 ? active_at(k.cells, k.mesh, iz, ix, iy) : 0;
    EXPECT_EQ(cube[p], place > 0 ? row[place - 1] : 0.0) << p;
  }
  cube_to_row(k.c, k.cells, back.data(), n, cube.data());
  EXPECT_EQ(back, row);
  EXPECT_THROW(row_to_cube(k.c, k.cells, row.data(), n - 1, cube.data()), quolvent::stop);
}

TEST(Transform, InverseAfterForwardKeepsEnergyAndGivesTheRowBack) {
  // Extents 1, 2, 3, 4, 5, 8 and 12 along each axis; daub6 on an extent of 8
  // wraps its 12 taps three times at the step on 4.
  const int shapes[][3] = {{1, 1, 1}, {1, 1, 12}, {8, 1, 1},  {1, 5, 2}, {2, 3, 4},
                           {5, 12, 3}, {12, 8, 5}, {4, 4, 4}, {3, 2, 8}, {8, 8, 8}};
  line_buffers lb;  // one thread's buffers, grown as the extents change
  for (const char* w : all_wavelets) {
    for (const auto& s : shapes) {
      const cube_case k = cube_of(s[0], s[1], s[2], w);
      const int64_t n = k.n();
      std::vector<double> row(n), cube(k.c.ncube), back(n);
      for (int64_t i = 0; i < n; ++i) row[i] = std::sin(1.3 * i * i + 0.2);  // no pattern to the filters
      SCOPED_TRACE(testing::Message() << w << " " << s[0] << " " << s[1] << " " << s[2]);
      row_to_cube(k.c, k.cells, row.data(), n, cube.data());
      auto energy = [&] { return std::inner_product(cube.begin(), cube.end(), cube.begin(), 0.0); };
      const double e0 = energy();
      transform_cube(k.c, cube.data(), +1, lb);
      EXPECT_NEAR(energy(), e0, 2e-10 * e0);
      transform_cube(k.c, cube.data(), -1, lb);
      cube_to_row(k.c, k.cells, back.data(), n, cube.data());
      for (int64_t i = 0; i < n; ++i) ASSERT_NEAR(back[i], row[i], 1e-10 * std::sqrt(e0)) << i;
    }
  }
}

TEST(Transform, KnownCoefficients) {
  // One daub2 step on an impulse: the taps at their periodic places, the
  // smooth half first, the high-pass filter reversed with alternating signs.
  const compression d2 = qt::wavelet_of("daub2");
  std::vector<double> a{1, 0, 0, 0, 0, 0, 0, 0}, w(8);
  PWT(d2.flt, a.data(), 8, true, w.data());
  const std::vector<double>& c = d2.filter;
  EXPECT_EQ(a, (std::vector<double>{c[0], 0, 0, c[2], c[3], 0, 0, c[1]}));
  // A constant under daub1: the pyramids on 8 and 16 end at two smooth
  // coefficients of sqrt(n / 2) each; the extent of 4 is left alone.
  std::vector<double> cube(8 * 4 * 16, 1.0);
  const int32_t nn[3] = {8, 4, 16};
  line_buffers lb;
  WTN(qt::wavelet_of("daub1").flt, cube.data(), nn, 1, lb);
  for (int p = 0; p < 512; ++p) EXPECT_NEAR(cube[p], p % 8 < 2 && p / 32 < 2 ? std::sqrt(32.0) : 0.0, 1e-12) << p;
}

TEST(Wctol, LogAndChoicesWhereTheCurveGivesNoAnswer) {
  const cube_case k = cube_of(4, 4, 4, "daub2");
  const auto bands = band_row({{10, 5e-7}, {20, 2e-6}, {33, 0.5}, {1, 1.0}});
  const auto empty_first = band_row({{63, 2e-6}, {1, 1.0}});
  std::vector<double> steady, zero(64, 0.0);
  for (int m = 0; m < 64; ++m) steady.push_back(std::pow(10.0, -m * 3.0 / 63.0));
  // The field is refused before any sample row is asked for.
  const sample_row_fn no_rows = [](int32_t, std::vector<double>&) { ADD_FAILURE() << "a sample row"; };
  auto est = [&](const char* l) {
    return [&, l](const run_log& out) { double s, b; estimate_thresholds(k.c, survey{}, l, no_rows, out, s, b); };
  };
  auto tol = [&](const std::vector<double>& r, double eps) {
    return [&, eps](const run_log& out) { wctol(k.c, k.cells, r.data(), 64, eps, out); };
  };
  const std::string reach = " Cannot achieve the required relative accuracy,\n program is terminated.\n";
  const std::string bad_eps =
      "\nERROR: the relative accuracy must be above 0 when itol is 1.\nprogram is terminated.\n";
  const std::string unreadable = "Unrecognized input for compression threshold,\nprogram is terminated.\n";
  const std::string no_row = "\nERROR: the sample row has no finite value other than 0, so no threshold\n"
      "can be estimated from it. Give the relative threshold itself (itol 2).\nprogram is terminated.\n";
  const std::string too_big = "\nERROR: the mesh is too large for wavelet compression: the padded cube of\n"
      "       2048 x 2048 x 512 elements has more places than the 2147483647\n"
      "       that the positions of a compressed row can address.\n"
      "       Use a smaller mesh, or NONE for no compression.\n\n";
  const struct { const char* what; std::function<void(const run_log&)> call; bool stops; std::string screen, log; } cases[] = {
      // Between the first two points in log-log: 2.07e-6 of the top energy.
      {"interpolated", tol(bands, 1e-3), false, "", block("1.0000E-03", "1.4400E-03", "1.8824E+00")},
      {"flat curve: the last point", tol(bands, 0.5), false, "", block("5.0000E-01", "3.1623E-01", "1.8824E+00")},
      {"no energy at point 1", tol(empty_first, 5e-3), false, "", block("5.0000E-03", "1.0000E-03", "1.0000E+00")},
      {"extrapolated past 0.1", tol(steady, 0.5), false, "", block("5.0000E-01", "5.2070E-01", "1.0667E+01")},
      {"extrapolated past 1", tol(steady, 0.99), false, "", block("9.9000E-01", "1.0000E+00", "6.4000E+01")},
      {"first point misses eps", tol(bands, 1e-4), true, "", reach},
      {"all-zero sample row", tol(zero, 0.05), true, no_row, no_row},
      {"itol 1, eps 0", est("1 0"), true, bad_eps, bad_eps},
      {"itol 1, eps below 0", est("1 -0.05"), true, bad_eps, bad_eps},
      {"itol without eps", est("1"), true, unreadable, unreadable},
      {"cube over 32-bit positions",
       [](const run_log&) { compression big; set_padded_extents(qt::uniform_mesh(1025, 2000, 300, 1, 1, 1), big); },
       true, too_big, too_big}};
  for (const auto& c : cases) {
    qt::capture cap;
    EXPECT_EQ(cap.stops([&] { c.call(cap.out); }), c.stops) << c.what;
    EXPECT_EQ(cap.screen(), c.screen) << c.what;
    EXPECT_EQ(cap.log(), c.log) << c.what;
  }
}

TEST(SetupCompression, SurveyReachesTheAccuracyAndThePredictedRatio) {
  obs_set obs = qt::field(90.0, 0.0, 90.0, 0.0);
  for (int iy = 0; iy < 8; ++iy)
    for (int ix = 0; ix < 8; ++ix) qt::add_datum(obs, 8.0 + 20.0 * ix, 6.0 + 20.0 * iy, 2.0);
  const mesh_model mesh = qt::uniform_mesh(16, 16, 8, 10.0, 10.0, 10.0);
  std::vector<double> wtz(16 * 16 * 8);
  for (std::size_t k = 0; k < wtz.size(); ++k) wtz[k] = std::pow(10.0 * (k % 8 + 1) - 2.0, -1.5);  // by depth
  const survey s = qt::make_survey(mesh, obs, {}, wtz);
  const int32_t n = s.n;
  ASSERT_EQ(n, static_cast<int32_t>(wtz.size()));
  const run_log quiet(nullptr);
  auto row_of = [&](int32_t i, std::vector<double>& g) { g = qt::kernel_row(mesh, obs, s.top_index, i, quiet); };
  // Surface data alone: one sample row, that of the datum nearest the centre (88, 86).
  std::vector<int32_t> asked;
  qt::capture cap;
  const compression c = setup_compression(
      s, "daub2", "1 0.05", [&](int32_t i, std::vector<double>& g) { asked.push_back(i), row_of(i, g); }, cap.out);
  EXPECT_EQ(asked, std::vector<int32_t>{1 + 4 + 8 * 4});
  ASSERT_TRUE(c.compressed && c.wctol_surface > 0.0);
  const double predicted = std::stod(cap.log().substr(cap.log().find("Predicted compression  ratio:") + 29));
  const std::vector<double> test_model_w = transform_test_model(c, s.cells, 0.01, s.wtz);
  matrix_store store = make_matrix_store(c, n, obs.ndata);
  compress_workspace cw;
  int64_t nnz = 0;
  double datum_err = 0.0, row_err = 0.0;
  std::vector<double> g(n);
  for (int32_t i = 1; i <= obs.ndata; ++i) {
    row_of(i, g);
    double full = 0.0, d2 = 0.0, g2 = 0.0;
    for (int32_t k = 0; k < n; ++k) full += 0.01 * g[k], g[k] /= wtz[k];
    compressed_row& rec = store.g_compressed[i - 1];
    COMPRESS_ROW(c, s.cells, g.data(), n, rec, nnz, datum_kind::surface, cw);
    datum_err += std::fabs((full - dot_compressed(test_model_w, rec)) / full) / obs.ndata;
    const std::vector<double> back = decompress(c, s.cells, rec, n);
    for (int32_t k = 0; k < n; ++k) d2 += (back[k] - g[k]) * (back[k] - g[k]), g2 += g[k] * g[k];
    row_err = std::max(row_err, std::sqrt(d2 / g2));
  }
  const double ratio = static_cast<double>(n) * obs.ndata / static_cast<double>(nnz);
  EXPECT_LE(datum_err, 0.05);
  EXPECT_LE(row_err, 0.075);
  EXPECT_TRUE(predicted < 2.0 * ratio && predicted > 0.5 * ratio) << predicted << " " << ratio;
}

TEST(CompressRow, ThresholdZeroKeepsTheRowsAndTheAverage) {
  std::vector<int32_t> top(6 * 7, 0);
  top[1] = 1, top[3] = 2, top[6] = 5, top[16] = 3, top[41] = 4;  // inactive cells
  const cube_case k = cube_of(7, 6, 5, "daub3", top);
  ASSERT_EQ(k.c.wctol_surface, 0.0);
  const int32_t n = k.n(), ndata = 12;
  matrix_store store = make_matrix_store(k.c, n, ndata);
  ASSERT_EQ(store.g_compressed.size(), std::size_t{ndata});
  std::vector<double> wtz(n), avg(n, 0.0), without_5th(n, 0.0), row(n);
  for (int32_t i = 0; i < n; ++i) wtz[i] = 0.3 + 0.05 * (i % 11);
  compress_workspace ws;
  int64_t nnz = 0;
  for (int32_t i = 0; i < ndata; ++i) {
    double scale = 0.0;
    for (int32_t j = 0; j < n; ++j) {
      const double g = std::sin(0.7 * j * j + i);
      row[j] = g / wtz[j], scale = std::max(scale, std::fabs(row[j]));
      avg[j] += std::fabs(g) / ndata;
      if (i != 4) without_5th[j] += std::fabs(g) / ndata;
    }
    COMPRESS_ROW(k.c, k.cells, row.data(), n, store.g_compressed[i], nnz, datum_kind::surface, ws);
    // Every coefficient kept: the row comes back up to its 32-bit values.
    const std::vector<double> back = decompress(k.c, k.cells, store.g_compressed[i], n);
    for (int32_t j = 0; j < n; ++j) ASSERT_NEAR(back[j], row[j], 4e-7 * scale) << i << " " << j;
  }
  EXPECT_EQ(nnz, ndata * k.c.ncube);
  for (const auto& expect : {avg, without_5th}) {
    std::vector<double> got;
    qt::capture cap;
    UNCOMPRESSG(k.c, k.cells, store, n, ndata, wtz, got, cap.out);
    EXPECT_EQ(cap.screen().rfind(" Uncompressing ...\n % done:\n", 0), 0u);
    ASSERT_EQ(got.size(), std::size_t(n));
    for (int32_t j = 0; j < n; ++j) EXPECT_NEAR(got[j], expect[j], 1e-6 * (1 + expect[j])) << j;
    store.g_compressed[4] = compressed_row{};  // an empty record adds nothing and still counts
  }
}

// On extents of 4 and less the coefficients are the row: what COMPRESS_ROW
// keeps (the count added to nnz, the places, the 32-bit values) at the
// threshold of the datum's kind, and the row error it returns. Values a float
// holds exactly make the dropped energy a plain count; values it does not
// hold give the rounding alone.
TEST(CompressRow, WhatIsKeptAndTheRowErrorOfKnownCoefficients) {
  cube_case k = cube_of(4, 2, 3, "daub2");  // 24 cells in a cube of 32
  const int32_t n = k.n();
  std::vector<double> quarters(n, 0.25), zero(n, 0.0), thirds(n);
  quarters[5] = -2.0;                      // the largest magnitude
  quarters[7] = 1.0;                       // exactly t at the relative threshold 0.5
  quarters[9] = std::nextafter(1.0, 0.0);  // just below it: energy 4 + 1 + 1 + 21 / 16
  double rounding = 0.0, energy = 0.0;
  for (int32_t i = 0; i < n; ++i) {
    thirds[i] = (i + 1) / 3.0;
    const double r = thirds[i] - static_cast<float>(thirds[i]);
    rounding += r * r, energy += thirds[i] * thirds[i];
  }
  ASSERT_GT(rounding, 0.0);
  const auto surface = datum_kind::surface, borehole = datum_kind::borehole;
  const struct {
    const char* name;
    const std::vector<double>& row;
    double wctol;
    datum_kind kind;
    int64_t kept;
    double error;
  } cases[] = {
      {"threshold 0: every place kept, padding too, 32-bit rounding only", thirds, 0.0, surface,
       32, std::sqrt(rounding / energy)},
      {"threshold 0, exact in 32 bits", quarters, 0.0, borehole, 32, 0.0},
      {"threshold 0.5: -2 and 1 kept", quarters, 0.5, surface, 2, std::sqrt(2.3125 / 7.3125)},
      {"threshold 1: the largest alone", quarters, 1.0, borehole, 1, std::sqrt(3.3125 / 7.3125)},
      {"threshold above 1: nothing kept", quarters, 1.5, surface, 0, 1.0},
      {"a row of zeros: t = 0, every place kept exactly", zero, 0.5, borehole, 32, 0.0},
  };
  compress_workspace ws;
  for (const auto& c : cases) {
    // The other kind's threshold would keep nothing.
    k.c.wctol_surface = c.kind == surface ? c.wctol : 7.0;
    k.c.wctol_borehole = c.kind == borehole ? c.wctol : 7.0;
    compressed_row rec;
    int64_t nnz = 3;
    const double got = COMPRESS_ROW(k.c, k.cells, c.row.data(), n, rec, nnz, c.kind, ws);
    EXPECT_NEAR(got, c.error, 1e-14) << c.name;
    EXPECT_EQ(nnz, 3 + c.kept) << c.name;
    ASSERT_EQ(rec.idx.size(), static_cast<std::size_t>(c.kept)) << c.name;
    ASSERT_EQ(rec.val.size(), rec.idx.size()) << c.name;
    if (c.kept == 2) {
      // Row places 6 and 8: (iz 3, ix 2) and (iz 2, ix 3) of the first y column.
      EXPECT_EQ(rec.idx, (std::vector<int32_t>{3 + 4, 2 + 8}));
      EXPECT_EQ(rec.val, (std::vector<float>{-2.0f, 1.0f}));
    }
    if (c.kept == 0)  // the empty record gives 0
      EXPECT_EQ(dot_compressed(transform_test_model(k.c, k.cells, 0.01, std::vector<double>(n, 1.0)), rec), 0.0);
  }
}

// Through the filters: where the cells fill the cube the row error is the
// error of the decompressed row (Parseval, as far as the filters' 11 to 12
// decimals keep them orthogonal); padding and air cells take part of the
// error the row never sees, so there it is only a bound.
TEST(CompressRow, RowErrorAgainstTheDecompressedRow) {
  std::vector<int32_t> top(6 * 7, 0);
  top[1] = 1, top[3] = 2, top[6] = 5, top[16] = 3, top[41] = 4;
  const struct {
    int nx, ny, nz;
    const char* wavelet;
    std::vector<int32_t> top;
    bool fills;  // the cells fill the cube
  } cases[] = {{8, 8, 8, "daub3", {}, true}, {16, 4, 8, "symm5", {}, true}, {7, 6, 5, "daub2", top, false}};
  for (const auto& c : cases) {
    cube_case k = cube_of(c.nx, c.ny, c.nz, c.wavelet, c.top);
    const int32_t n = k.n();
    std::vector<double> row(n);
    for (int32_t i = 0; i < n; ++i) row[i] = 1.0 / (1.0 + 0.01 * i) + 0.05 * std::sin(0.7 * i * i);
    double energy = 0.0;
    for (double v : row) energy += v * v;
    compress_workspace ws;
    for (double t : {0.0, 1e-3, 0.03, 0.3}) {
      SCOPED_TRACE(testing::Message() << c.wavelet << " " << c.nx << " threshold " << t);
      k.c.wctol_borehole = t;
      compressed_row rec;
      int64_t nnz = 0;
      const double got = COMPRESS_ROW(k.c, k.cells, row.data(), n, rec, nnz, datum_kind::borehole, ws);
      const std::vector<double> back = decompress(k.c, k.cells, rec, n);
      double lost = 0.0;
      for (int32_t i = 0; i < n; ++i) lost += (back[i] - row[i]) * (back[i] - row[i]);
      const double seen = std::sqrt(lost / energy);
      if (c.fills) {
        EXPECT_NEAR(got, seen, 1e-6 * got + 1e-10);
      } else {
        EXPECT_LE(seen, got * (1 + 1e-6) + 1e-10);
      }
      if (t > 0.0) EXPECT_GT(got, 1e-6);
    }
  }
}

TEST(ReportCompression, LogLines) {
  const double full[3] = {2.0, -4.0, 1.0}, comp[3] = {2.2, -4.0, 1.05};
  const double zfull[3] = {0.0, 2.0, 0.0}, zcomp[3] = {1.0, 2.5, 0.0};
  const std::string nnz = "\n\n          Number of non-zeros:", ratio = "\n          Compression   ratio:";
  // Row errors: mean and largest over every row, a row of zeros (error 0) included.
  const double rows[3] = {0.03, 0.0, 0.0525}, none[3] = {0.0, 0.0, 0.0};
  const std::string row_lines = "      mean relative row error:  2.7500E-02\n       max relative row error:  5.2500E-02\n";
  const struct {
    int32_t n, ndata;
    int64_t nnz;
    const double *full, *comp, *rows;
    std::string log;
  } cases[] = {
      {100, 4, 40, nullptr, nullptr, nullptr, nnz + "        40" + ratio + "  1.0000E+01\n\n\n"},
      {7, 3, 9, full, comp, rows,
       nnz + "         9" + ratio + "  2.3333E+00\n\n      achieved relative error:  5.0000E-02\n" + row_lines + "\n"},
      // A datum of zero response has no relative error: left out, and counted
      // right below the error it is left out of.
      {7, 3, 0, zfull, zcomp, rows, nnz + "         0" + ratio + "   no coefficient kept\n\n"
       "      achieved relative error:  2.5000E-01\n  zero-response data left out:         2\n" + row_lines + "\n"},
      {7, 3, 0, zfull, zcomp, none, nnz + "         0" + ratio + "   no coefficient kept\n\n"
       "      achieved relative error:  2.5000E-01\n  zero-response data left out:         2\n"
       "      mean relative row error:  0.0000E+00\n       max relative row error:  0.0000E+00\n\n"}};
  for (const auto& c : cases) {
    qt::capture cap;
    report_compression(c.n, c.ndata, c.nnz, c.full, c.comp, c.rows, cap.out);
    EXPECT_EQ(cap.log(), c.log) << c.nnz;
    EXPECT_EQ(cap.screen(), "") << c.nnz;
  }
}
