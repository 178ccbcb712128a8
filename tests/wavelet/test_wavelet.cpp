// The wavelet subsystem: filters, the row-to-cube mapping and the transform
// (on every vector target against one line at a time), threshold estimation,
// row compression, its log report and the way back.
#include <gtest/gtest.h>

#include <omp.h>


#include <cmath>
#include <functional>
#include <numeric>

#include "base/vector_target.hpp"
#include "model/active_cells.hpp"
#include "support/test_support.hpp"
#include "wavelet/compress_row.hpp"
#include "wavelet/threshold.hpp"
#include "wavelet/uncompress.hpp"
#include "wavelet/wavelet_filters.hpp"
#include "wavelet/transform.hpp"

using namespace quolvent;

namespace {

const char* const all_wavelets[] = {"daub1", "daub2", "daub3", "daub4", "daub5",
                                    "daub6", "symm4", "symm5", "symm6"};

// cube_case: a mesh of unit cells with its column tops (flat if empty), its
// active cells, and a wavelet's record with the padded extents of that mesh.
struct cube_case {
  mesh_model mesh;
  active_cells cells;
  compression c;
  int32_t n() const { return cells.nactive; }
};

cube_case cube_of(int nx, int ny, int nz, const std::string& wavelet,
                  std::vector<int32_t> top = {}) {
  cube_case k{qt::uniform_mesh(nx, ny, nz, 1.0, 1.0, 1.0), {}, qt::wavelet_of(wavelet)};
  if (top.empty()) top.assign(static_cast<std::size_t>(nx) * ny, 0);
  k.cells = get_active_cells("null", k.mesh, top, run_log(nullptr));
  set_padded_extents(k.mesh, k.c);
  return k;
}

// air_top: the tops of a 7 x 6 mesh with five columns partly in the air.
std::vector<int32_t> air_top() {
  std::vector<int32_t> top(6 * 7, 0);
  top[1] = 1, top[3] = 2, top[6] = 5, top[16] = 3, top[41] = 4;
  return top;
}

// line_by_line: the transform of a cube of extents nn (nn[0] fastest) one
// line at a time: each line copied out, filtered step by step by filter_step, copied back.
void line_by_line(const transform_filters& f, double* a, const int32_t nn[3], bool forward) {
  const int64_t ntot = int64_t{nn[0]} * nn[1] * nn[2];
  int64_t nprev = 1;
  for (int d = 0; d < 3; ++d) {
    const int64_t n = nn[d], nnew = n * nprev;
    std::vector<double> line(n), w(n);
    for (int64_t i2 = 0; n > 4 && i2 < ntot; i2 += nnew)
      for (int64_t i1 = 0; i1 < nprev; ++i1) {
        for (int64_t m = 0; m < n; ++m) line[m] = a[i2 + i1 + m * nprev];
        if (forward)
          for (int64_t nt = n; nt >= 4; nt >>= 1) filter_step(f, line.data(), nt, true, w.data());
        else
          for (int64_t nt = 4; nt <= n; nt <<= 1) filter_step(f, line.data(), nt, false, w.data());
        for (int64_t m = 0; m < n; ++m) a[i2 + i1 + m * nprev] = line[m];
      }
    nprev = nnew;
  }
}

}  // namespace

TEST(Filters, UnitNormOrthogonalToEvenShiftsAndLowPass) {
  for (const char* w : all_wavelets) {
    const compression c = qt::wavelet_of(w);
    const std::vector<double>& filter = c.filter;
    ASSERT_EQ(c.filter_length, 2 * (w[4] - '0')) << w;
    for (int s = 0; s < c.filter_length; s += 2) {
      double d = 0.0;
      for (int k = 0; k + s < c.filter_length; ++k) d += filter[k] * filter[k + s];
      EXPECT_NEAR(d, s == 0 ? 1.0 : 0.0, s == 0 ? 1e-14 : 1e-10) << w << " shift " << s;
    }
    // symm is stored with the sum 2: after scaling it sums to sqrt(2) like daub.
    EXPECT_NEAR(std::accumulate(filter.begin(), filter.end(), 0.0), std::sqrt(2.0), 1e-9) << w;
  }
}

// Each message once; only the first four letters of NONE count, in one case.
TEST(Filters, NamesAndTheirMessages) {
  const std::string none =
      "\nWARNING: no compression will be used for the sensitivity matrix.\n"
      "The program will need a lot of memory and disk space to store the matrix.\n\n";
  const std::string unknown =
      "\nError: invalid compression method.\nShould be: daub[1-6], symm[4-6], or NONE.\n";
  const std::string daub = "\nERROR: Invalid daub compression.  daub[1-6]\n";
  const std::string symm = "\nError: Invalid symm compression.  symm[4-6]\n";
  const std::pair<const char*, const std::string*> cases[] = {
      {"NONE ", &none}, {"none!", &none}, {"None ", &unknown},
      {"", &unknown},   {"daub7", &daub}, {"symm3", &symm}};
  for (const auto& c : cases) {
    qt::capture cap;
    std::vector<double> f{1.0};
    int32_t nc = 5;
    EXPECT_EQ(cap.stops([&] { check_wavelet(c.first, f, nc, cap.out); }), c.second != &none);
    if (c.second == &none) EXPECT_TRUE(nc == 0 && f.empty()) << c.first;
    EXPECT_TRUE(cap.screen() == *c.second && cap.log() == *c.second) << c.first;
  }
}

TEST(Transform, PaddedExtentsAndRowToCubeAndBack) {
  for (int32_t n = 1; n <= 5000; ++n) {
    const int64_t e = padded_extent(n);
    EXPECT_TRUE(e >= n && (e & (e - 1)) == 0 && e / 2 < n) << n;
  }
  // Whatever the logarithm rounds to.
  for (int p = 0; p <= 30; ++p) EXPECT_EQ(padded_extent(1 << p), int64_t{1} << p);
  EXPECT_EQ(padded_extent(2147483647), int64_t{1} << 31);
  // 3 x 2 x 5 cells (nx, ny, nz) with two columns partly above the ground.
  const cube_case k = cube_of(3, 2, 5, "daub2", {0, 2, 0, 0, 5, 1});
  EXPECT_TRUE(k.c.padded_nz == 8 && k.c.padded_nx == 4 && k.c.padded_ny == 2 &&
              k.c.cube_size == 64);
  const int64_t n = k.n();
  std::vector<double> row(n), cube(k.c.cube_size, -7.0), back(n, 0.0);
  std::iota(row.begin(), row.end(), 1.0);
  row_to_cube(k.c, k.cells, row.data(), n, cube.data());
  // Cell (iz, ix, iy) at (iz-1) + (ix-1) padded_nz + (iy-1) padded_nz padded_nx; padding and air
  // hold 0.
  for (int p = 0; p < k.c.cube_size; ++p) {
    const int iz = p % 8 + 1, ix = p / 8 % 4 + 1, iy = p / 32 + 1;
    const int32_t at = iy <= 2 && ix <= 3 && iz <= 5 ? active_at(k.cells, k.mesh, iz, ix, iy) : 0;
    EXPECT_EQ(cube[p], at > 0 ? row[at - 1] : 0.0) << p;
  }
  cube_to_row(k.c, k.cells, back.data(), n, cube.data());
  EXPECT_EQ(back, row);
  EXPECT_THROW(row_to_cube(k.c, k.cells, row.data(), n - 1, cube.data()), quolvent::stop);
}

// One daub2 step on an impulse: the taps at their periodic places, the
// smooth half first, the high-pass filter reversed with alternating signs.
TEST(Transform, KnownCoefficients) {
  const compression d2 = qt::wavelet_of("daub2");
  std::vector<double> a{1, 0, 0, 0, 0, 0, 0, 0}, w(8);
  filter_step(d2.filters, a.data(), 8, true, w.data());
  const std::vector<double>& c = d2.filter;
  EXPECT_EQ(a, (std::vector<double>{c[0], 0, 0, c[2], c[3], 0, 0, c[1]}));
}

// A cube large enough for the energies to be sorted by several threads: the
// same threshold and kept count with 1 and 3 threads.
TEST(Wctol, SameEstimateForAnyThreadCount) {
  const cube_case k = cube_of(64, 48, 40, "daub2");
  // A point's field over the cells (z fastest, then x, then y).
  std::vector<double> row(static_cast<std::size_t>(k.n()));
  for (std::size_t i = 0; i < row.size(); ++i) {
    const double z = static_cast<double>(i % 40) + 3, x = static_cast<double>(i / 40 % 64) - 30,
                 y = static_cast<double>(i / 2560) - 20;
    row[i] = 1.0 / std::pow(x * x + y * y + z * z, 1.5);
  }
  std::vector<std::pair<double, int64_t>> got;
  const int saved = omp_get_max_threads();
  for (int threads : {1, 3}) {
    omp_set_num_threads(threads);
    int64_t kept = 0;
    const double t =
        relative_threshold(k.c, k.cells, row.data(), k.n(), 0.02, run_log(nullptr), &kept);
    got.emplace_back(t, kept);
  }
  omp_set_num_threads(saved);
  EXPECT_EQ(got[0], got[1]);
  EXPECT_GT(got[0].second, 0);
}

// On a 4 x 4 x 4 cube the coefficients are the row: bands of equal values
// give known energy curves. Each message once, on the screen too where marked.
TEST(Wctol, LogAndChoicesWhereTheCurveGivesNoAnswer) {
  const cube_case k = cube_of(4, 4, 4, "daub2");
  std::vector<double> curve, steady, zero(64, 0.0);
  for (auto [count, e] : {std::pair{10, 5e-7}, {20, 2e-6}, {33, 0.5}, {1, 1.0}})
    curve.insert(curve.end(), count, 3 * std::sqrt(e));
  for (int m = 0; m < 64; ++m) steady.push_back(std::pow(10.0, -m * 3.0 / 63.0));
  // The field is refused before any sample row is asked for.
  const sample_row_fn no_rows = [](int32_t, std::vector<double>&) { ADD_FAILURE() << "a row"; };
  double s, b;
  auto est = [&](const char* l) {
    return [&, l](const run_log& out) { estimate_thresholds(k.c, {}, l, no_rows, out, s, b); };
  };
  auto tol = [&](const std::vector<double>& r, double eps) {
    return
        [&, eps](const run_log& out) { relative_threshold(k.c, k.cells, r.data(), 64, eps, out); };
  };
  auto block = [](const std::string& eps, const std::string& thr, const std::string& ratio) {
    return "\n At the relative  accuracy of:  " + eps + "\n Estimated relative threshold:  " + thr +
           "\n Predicted compression  ratio:  " + ratio + "\n";
  };
  auto huge = [](const run_log&) {
    compression big;
    set_padded_extents(qt::uniform_mesh(1025, 2000, 300, 1, 1, 1), big);
  };
  const struct {
    const char* what;
    std::function<void(const run_log&)> call;
    bool stops, on_screen;
    std::string log;
  } cases[] = {
      // Between the first two points in log-log: 2.07e-6 of the top energy.
      {"interpolated", tol(curve, 1e-3), false, false,
       block("1.0000E-03", "1.4400E-03", "1.8824E+00")},
      {"flat curve: the last point", tol(curve, 0.5), false, false,
       block("5.0000E-01", "3.1623E-01", "1.8824E+00")},
      {"extrapolated past 1", tol(steady, 0.99), false, false,
       block("9.9000E-01", "1.0000E+00", "6.4000E+01")},
      {"first point misses eps", tol(curve, 1e-4), true, false,
       " Cannot achieve the required relative accuracy,\n program is terminated.\n"},
      {"all-zero sample row", tol(zero, 0.05), true, true,
       "\nERROR: the sample row has no finite value other than 0, so no threshold\n"
       "can be estimated from it. Give the relative threshold itself (itol 2).\n"
       "program is terminated.\n"},
      {"itol 1, eps 0", est("1 0"), true, true,
       "\nERROR: the relative accuracy must be above 0 when itol is 1.\nprogram is terminated.\n"},
      {"itol without eps", est("1"), true, true,
       "Unrecognized input for compression threshold,\nprogram is terminated.\n"},
      {"cube over 32-bit positions", huge, true, true,
       "\nERROR: the mesh is too large for wavelet compression: the padded cube of\n"
       "       2048 x 2048 x 512 elements has more places than the 2147483647\n"
       "       that the positions of a compressed row can address.\n"
       "       Use a smaller mesh, or NONE for no compression.\n\n"}};
  for (const auto& c : cases) {
    qt::capture cap;
    EXPECT_EQ(cap.stops([&] { c.call(cap.out); }), c.stops) << c.what;
    EXPECT_EQ(cap.screen(), c.on_screen ? c.log : "") << c.what;
    EXPECT_EQ(cap.log(), c.log) << c.what;
  }
}

// A whole survey: the sample row is that of the datum nearest the centre, and
// the test model's data come within the accuracy asked for.
TEST(SetupCompression, SurveyReachesTheAccuracy) {
  obs_set obs = qt::field(90.0, 0.0, 90.0, 0.0);
  for (int iy = 0; iy < 8; ++iy)
    for (int ix = 0; ix < 8; ++ix) qt::add_datum(obs, 8.0 + 20.0 * ix, 6.0 + 20.0 * iy, 2.0);
  const mesh_model mesh = qt::uniform_mesh(16, 16, 8, 10.0, 10.0, 10.0);
  std::vector<double> weights(16 * 16 * 8);
  for (std::size_t k = 0; k < weights.size(); ++k)
    weights[k] = std::pow(10.0 * (k % 8 + 1) - 2.0, -1.5);
  const survey s = qt::make_survey(mesh, obs, {}, weights);
  std::vector<int32_t> asked;
  auto row_of = [&](int32_t i, std::vector<double>& g) {
    asked.push_back(i), g = qt::kernel_row(mesh, obs, s.top_index, i, run_log(nullptr));
  };
  const compression c = setup_compression(s, "daub2", "1 0.05", row_of, run_log(nullptr));
  EXPECT_EQ(asked, std::vector<int32_t>{1 + 4 + 8 * 4});  // (88, 86)
  ASSERT_TRUE(c.compressed && c.threshold_surface > 0.0);
  const std::vector<double> test_model_w = transform_test_model(c, s.cells, 0.01, s.weights);
  compress_workspace cw;
  int64_t nnz = 0;
  double datum_err = 0.0;
  std::vector<double> g;
  for (int32_t i = 1; i <= obs.ndata; ++i) {
    row_of(i, g);
    double full = 0.0;
    for (int32_t k = 0; k < s.n; ++k) full += 0.01 * g[k], g[k] /= weights[k];
    compressed_row rec;
    compress_row(c, s.cells, g.data(), s.n, rec, nnz, datum_kind::surface, cw);
    datum_err += std::fabs((full - dot_compressed(test_model_w, rec)) / full) / obs.ndata;
  }
  EXPECT_LE(datum_err, 0.05);
}

// Rows kept whole (threshold 0) over a mesh with air cells, the fifth record
// empty: uncompress_rows's mean |row * weights| over every datum is that of the others.
TEST(Uncompressg, TheMeanOfTheRows) {
  const cube_case k = cube_of(7, 6, 5, "daub3", air_top());
  const int32_t n = k.n(), ndata = 12;
  matrix_store store = make_matrix_store(k.c, n, ndata);
  std::vector<double> weights(n), avg(n, 0.0), row(n), got;
  compress_workspace ws;
  int64_t nnz = 0;
  for (int32_t i = 0; i < ndata; ++i) {
    for (int32_t j = 0; j < n; ++j) {
      const double g = i == 4 ? 0.0 : std::sin(0.7 * j * j + i);
      weights[j] = 0.3 + 0.05 * (j % 11), row[j] = g / weights[j], avg[j] += std::fabs(g) / ndata;
    }
    if (i != 4)
      compress_row(k.c, k.cells, row.data(), n, store.compressed_rows[i], nnz, datum_kind::surface,
                   ws);
  }
  qt::capture cap;
  uncompress_rows(k.c, k.cells, store, n, ndata, weights, got, cap.out);
  EXPECT_EQ(cap.screen().rfind(" Uncompressing ...\n % done:\n", 0), 0u);
  ASSERT_EQ(got.size(), std::size_t(n));
  for (int32_t j = 0; j < n; ++j) EXPECT_NEAR(got[j], avg[j], 1e-6 * (1 + avg[j])) << j;
}

// On extents of 4 and less the coefficients are the row: what compress_row
// keeps at the threshold of the datum's kind (the other kind's would keep
// nothing), and the row error, of values a float holds.
TEST(CompressRow, WhatIsKeptAndTheRowErrorOfKnownCoefficients) {
  cube_case k = cube_of(4, 2, 3, "daub2");  // 24 cells in a cube of 32
  std::vector<double> quarters(k.n(), 0.25), zero(k.n(), 0.0);
  quarters[5] = -2.0;                      // the largest magnitude
  quarters[7] = 1.0;                       // exactly t at the relative threshold 0.5
  quarters[9] = std::nextafter(1.0, 0.0);  // just below it: energy 4 + 1 + 1 + 21 / 16
  const auto surface = datum_kind::surface, borehole = datum_kind::borehole;
  const struct {
    const std::vector<double>& row;
    double relative_threshold;
    datum_kind kind;
    int64_t kept;
    double error;
  } cases[] = {{quarters, 0.0, surface, 32, 0.0},  // padding kept too
               {quarters, 0.5, borehole, 2, std::sqrt(2.3125 / 7.3125)},
               {quarters, 1.5, surface, 0, 1.0},
               {zero, 0.5, borehole, 32, 0.0}};  // t = 0: kept exactly
  compress_workspace ws;
  for (const auto& c : cases) {
    k.c.threshold_surface = c.kind == surface ? c.relative_threshold : 7.0;
    k.c.threshold_borehole = c.kind == borehole ? c.relative_threshold : 7.0;
    compressed_row rec;
    int64_t nnz = 3;
    EXPECT_NEAR(compress_row(k.c, k.cells, c.row.data(), k.n(), rec, nnz, c.kind, ws), c.error,
                1e-14);
    EXPECT_EQ(nnz, 3 + c.kept) << c.relative_threshold;
    ASSERT_EQ(rec.idx.size(), static_cast<std::size_t>(c.kept)) << c.relative_threshold;
    if (c.kept != 2) continue;
    // Row places 6 and 8: (iz 3, ix 2) and (iz 2, ix 3) of the first y column.
    EXPECT_EQ(rec.idx, (std::vector<int32_t>{3 + 4, 2 + 8}));
    EXPECT_EQ(rec.val, (std::vector<float>{-2.0f, 1.0f}));
  }
}

// Through the inverse transform, every wavelet: where the cells fill the cube
// the row error is that of the decompressed row (Parseval, as far as the
// filters' 11 to 12 decimals keep them orthogonal), threshold 0 giving the
// 32-bit rounding alone; padding and air cells take a part the row never sees.
TEST(CompressRow, RowErrorAgainstTheDecompressedRow) {
  const struct {
    int nx, ny, nz;
    std::vector<int32_t> top;
    bool fills;  // the cells fill the cube
  } cases[] = {{8, 8, 8, {}, true},
               {16, 4, 8, {}, true},
               {7, 6, 5, air_top(), false},
               {1, 12, 3, {}, false}};
  for (const char* w : all_wavelets)
    for (const auto& c : cases) {
      cube_case k = cube_of(c.nx, c.ny, c.nz, w, c.top);
      const int32_t n = k.n();
      std::vector<double> row(n);
      for (int32_t i = 0; i < n; ++i) row[i] = 1 / (1.0 + 0.01 * i) + 0.05 * std::sin(0.7 * i * i);
      const double energy = std::inner_product(row.begin(), row.end(), row.begin(), 0.0);
      compress_workspace ws;
      for (double t : {0.0, 1e-3, 0.3}) {
        SCOPED_TRACE(testing::Message() << w << " " << c.nx << " threshold " << t);
        k.c.threshold_borehole = t;
        compressed_row rec;
        int64_t nnz = 0;
        const double got =
            compress_row(k.c, k.cells, row.data(), n, rec, nnz, datum_kind::borehole, ws);
        std::vector<double> cube(k.c.cube_size, 0.0), back(n);
        for (size_t p = 0; p < rec.idx.size(); ++p) cube[rec.idx[p] - 1] = rec.val[p];
        transform_cube(k.c, cube.data(), -1, ws.lines);
        cube_to_row(k.c, k.cells, back.data(), n, cube.data());
        double lost = 0.0;
        for (int32_t i = 0; i < n; ++i) lost += (back[i] - row[i]) * (back[i] - row[i]);
        const double seen = std::sqrt(lost / energy);
        EXPECT_NEAR(stored_row_error(k.c, k.cells, row.data(), n, rec, ws), seen, 1e-9 * seen);
        if (c.fills)
          EXPECT_NEAR(got, seen, 1e-6 * got + 1e-10);
        else
          EXPECT_LE(seen, got * (1 + 1e-6) + 1e-10);
        if (t == 0.3) EXPECT_GT(got, 1e-6);
      }
    }
}

TEST(ReportCompression, LogLines) {
  // 33 data. A datum of zero response has no relative error: left out of the test
  // model's error, and counted below it. The exact row errors of the rows measured (the
  // 1st and the 33rd, the others never read), then the bounds over every row, a row of
  // zeros (error 0) included.
  std::vector<double> full(33, 1.0), comp(33, 1.0), bound(33, 0.0), exact(33, 99.0);
  full[0] = full[2] = 0.0, comp[0] = 1.0, full[1] = 2.0, comp[1] = 2.5, comp[2] = 0.0;
  bound[0] = 0.03, bound[2] = 0.0525, exact[0] = 0.02, exact[32] = 0.01;
  const std::string nnz = "\n\n          Number of non-zeros:",
                    ratio = "\n          Compression   ratio:";
  qt::capture cap;
  report_compression(100, 4, 0, nullptr, nullptr, nullptr, nullptr, cap.out);
  EXPECT_EQ(cap.log(), nnz + "         0" + ratio + "   no coefficient kept\n\n\n");
  qt::capture cap2;
  report_compression(7, 33, 9, full.data(), comp.data(), bound.data(), exact.data(), cap2.out);
  EXPECT_EQ(cap2.log(), nnz + "         9" + ratio +
                            "  2.5667E+01\n\n      achieved relative error:  8.0645E-03\n"
                            "  zero-response data left out:         2\n"
                            "      mean relative row error:  1.5000E-02  exact, 2 of 33 rows\n"
                            "       max relative row error:  2.0000E-02  exact, 2 of 33 rows\n"
                            "      mean bound on row error:  2.5000E-03  all 33 rows\n"
                            "       max bound on row error:  5.2500E-02  all 33 rows\n\n");
  EXPECT_EQ(cap.screen() + cap2.screen(), "");
}

// Cubes of extents 1 to 64 along each axis, some lines all zeros, forward and
// inverse, on every target and on 3 threads: the values of line by line (a
// zero of either sign).
TEST(TransformLanes, SameBitsAsLineByLine) {
  const int32_t shapes[][3] = {{8, 8, 8},  {64, 2, 16}, {4, 32, 8}, {1, 1, 64},  {8, 64, 2},
                               {2, 1, 32}, {4, 1, 8},   {1, 2, 16}, {32, 64, 16}};
  const int saved = omp_get_max_threads();
  for (const char* name : {"daub1", "daub3", "daub6", "symm5"})
    for (const auto& nn : shapes) {
      const compression c = qt::wavelet_of(name);
      std::vector<double> cube(static_cast<std::size_t>(nn[0]) * nn[1] * nn[2]);
      for (std::size_t i = 0; i < cube.size(); ++i)
        cube[i] = (i / nn[0]) % 3 == 1 ? 0.0 : std::sin(0.7 * i * i + 0.3);
      for (const bool forward : {true, false}) {
        std::vector<double> want = cube;
        line_by_line(c.filters, want.data(), nn, forward);
        for (int64_t t : vector_targets()) {
          std::vector<double> got = cube;
          line_buffers lb;
          lb.vector_target = t;
          transform_3d(c.filters, got.data(), nn, forward ? 1 : -1, lb);
          EXPECT_TRUE(got == want)
              << name << " " << nn[0] << "x" << nn[1] << "x" << nn[2]
              << (forward ? " forward on " : " inverse on ") << vector_target_name(t);
        }
        // The lines of each pass shared among threads.
        compression cube_c = c;
        cube_c.padded_nz = nn[0], cube_c.padded_nx = nn[1], cube_c.padded_ny = nn[2];
        std::vector<double> shared = cube;
        omp_set_num_threads(3);
        transform_cube_parallel(cube_c, shared.data(), forward ? 1 : -1);
        omp_set_num_threads(saved);
        EXPECT_TRUE(shared == want) << name << " " << nn[0] << "x" << nn[1] << "x" << nn[2]
                                    << (forward ? " forward" : " inverse") << " on 3 threads";
      }
    }
}

// A row of the active cells (through the map) and of every cell (a plain copy):
// row_coefficients gives the row laid into the cube and transformed line by line
// and their largest magnitude, never reading the cube's contents (NaN) first.
// compress_row keeps those at or above 0.3 of it, in order, in 32 bits, with
// the row error that one coefficient at a time gives.
TEST(TransformLanes, RowCoefficientsAndCompressRowAsOneAtATime) {
  // The smallest cubes hold fewer values than a vector: the loops' tails alone.
  const int32_t meshes[][3] = {{5, 3, 9}, {16, 8, 4}, {12, 20, 33}, {1, 1, 2}, {1, 3, 1}};
  for (const char* name : {"daub1", "daub3", "daub6", "symm5"})
    for (const auto& m : meshes)
      for (const bool whole : {false, true}) {
        SCOPED_TRACE(testing::Message() << name << " " << m[0] << " cells " << whole);
        const mesh_model mesh = qt::uniform_mesh(m[0], m[1], m[2], 1.0, 1.0, 1.0);
        std::vector<int32_t> top(static_cast<std::size_t>(m[0]) * m[1], 0);
        for (std::size_t c = 0; c < top.size(); ++c)
          top[c] = static_cast<int32_t>((c * 7) % 4 + 1) % (m[2] + 1);
        const active_cells cells = get_active_cells("null", mesh, top, run_log(nullptr));
        compression c = qt::wavelet_of(name);
        set_padded_extents(mesh, c);
        c.threshold_surface = 0.3;
        const int32_t n = whole ? cells.ncell_total : cells.nactive;
        std::vector<double> row(n), want(c.cube_size);
        for (int32_t i = 0; i < n; ++i) row[i] = (i % 5 == 2) ? 0.0 : std::cos(1.7 * i * i);
        row_to_cube(c, cells, row.data(), n, want.data());
        const int32_t nn[3] = {c.padded_nz, c.padded_nx, c.padded_ny};
        line_by_line(c.filters, want.data(), nn, true);
        double largest = 0.0, lost = 0.0, energy = 0.0;
        for (double v : want) largest = std::fmax(largest, std::fabs(v));
        compressed_row keep;
        for (std::size_t p = 0; p < want.size(); ++p) {
          const bool kept = std::fabs(want[p]) >= largest * c.threshold_surface;
          if (kept) keep.idx.push_back(p + 1), keep.val.push_back(static_cast<float>(want[p]));
          const double r = (want[p] - (kept ? keep.val.back() : 0.0)) / largest;
          lost += r * r, energy += (want[p] / largest) * (want[p] / largest);
        }
        for (int64_t t : vector_targets()) {
          compress_workspace ws;
          ws.lines.vector_target = t;
          std::vector<double> got(want.size(), NAN);
          EXPECT_EQ(row_coefficients(c, cells, row.data(), n, got.data(), ws.lines), largest);
          EXPECT_TRUE(got == want) << vector_target_name(t);
          compressed_row rec;
          int64_t nnz = 5;
          const double err =
              compress_row(c, cells, row.data(), n, rec, nnz, datum_kind::surface, ws);
          EXPECT_TRUE(rec.idx == keep.idx && rec.val == keep.val) << vector_target_name(t);
          EXPECT_EQ(rec.idx.capacity(), rec.idx.size());
          EXPECT_EQ(nnz, 5 + static_cast<int64_t>(keep.idx.size()));
          EXPECT_NEAR(err, std::sqrt(lost / energy), 1e-12 * std::sqrt(lost / energy));
        }
      }
}

// Several rows transformed at once as interleaved cubes, in shares of the
// lines as threads take them, on every target: each lane holds what the row
// alone gives line by line, forward from cubes whose padding holds NaN, and
// inverse, back to the rows through cubes_to_block.
TEST(TransformLanes, InterleavedCubesAsEachRowAlone) {
  const int32_t meshes[][3] = {{5, 3, 9}, {6, 5, 9}, {1, 3, 1}, {7, 1, 5}};
  for (const char* name : all_wavelets)
    for (const auto& m : meshes) {
      const mesh_model mesh = qt::uniform_mesh(m[0], m[1], m[2], 1.0, 1.0, 1.0);
      std::vector<int32_t> top(static_cast<std::size_t>(m[0]) * m[1], 0);
      for (std::size_t c = 0; c < top.size(); ++c)
        top[c] = static_cast<int32_t>((c * 5) % 3) % (m[2] + 1);
      const active_cells cells = get_active_cells("null", mesh, top, run_log(nullptr));
      compression c = qt::wavelet_of(name);
      set_padded_extents(mesh, c);
      const int32_t nn[3] = {c.padded_nz, c.padded_nx, c.padded_ny};
      const std::size_t n = static_cast<std::size_t>(cells.nactive);
      const std::size_t size = static_cast<std::size_t>(c.cube_size);
      for (const std::size_t lanes : {1, 3, 8}) {
        std::vector<double> block(n * lanes), coefficients(size * lanes);
        for (std::size_t v = 0; v < block.size(); ++v) block[v] = v % 7 == 3 ? 0.0 : std::cos(0.9 * v * v);
        for (std::size_t v = 0; v < coefficients.size(); ++v) coefficients[v] = std::sin(1.3 * v * v + 0.2);
        std::vector<double> forward(size * lanes), inverse = coefficients, back(n * lanes);
        for (std::size_t l = 0; l < lanes; ++l) {
          std::vector<double> row(n), cube(size);
          for (std::size_t k = 0; k < n; ++k) row[k] = block[k * lanes + l];
          row_to_cube(c, cells, row.data(), static_cast<int64_t>(n), cube.data());
          line_by_line(c.filters, cube.data(), nn, true);
          for (std::size_t p = 0; p < size; ++p) forward[p * lanes + l] = cube[p];
          for (std::size_t p = 0; p < size; ++p) cube[p] = coefficients[p * lanes + l];
          line_by_line(c.filters, cube.data(), nn, false);
          for (std::size_t p = 0; p < size; ++p) inverse[p * lanes + l] = cube[p];
          cube_to_row(c, cells, row.data(), static_cast<int64_t>(n), cube.data());
          for (std::size_t k = 0; k < n; ++k) back[k * lanes + l] = row[k];
        }
        for (int64_t t : vector_targets())
          for (const std::size_t parts : {1, 3}) {
            SCOPED_TRACE(testing::Message() << name << " " << m[0] << "x" << m[1] << "x" << m[2]
                                            << " lanes " << lanes << " parts " << parts << " "
                                            << vector_target_name(t));
            line_buffers lb;
            lb.vector_target = t;
            std::vector<double> got(size * lanes, NAN), rows(n * lanes, NAN);
            interleaved_cubes cubes = lanes_of_compression(c, got.data(), lanes);
            for (std::size_t part = 0; part < parts; ++part)
              block_to_cubes(c, cells, block.data(), static_cast<int64_t>(n), {lanes, lanes}, cubes,
                             part, parts);
            for (int axis = 0; axis < 3; ++axis)
              for (std::size_t part = 0; part < parts; ++part)
                transform_axis(c.filters, cubes, axis, 1, part, parts, lb);
            EXPECT_TRUE(got == forward);
            got = coefficients;
            for (int axis = 0; axis < 3; ++axis)
              for (std::size_t part = 0; part < parts; ++part)
                transform_axis(c.filters, cubes, axis, -1, part, parts, lb);
            EXPECT_TRUE(got == inverse);
            for (std::size_t part = 0; part < parts; ++part)
              cubes_to_block(c, cells, rows.data(), static_cast<int64_t>(n), {lanes, lanes}, cubes,
                             part, parts);
            EXPECT_TRUE(rows == back);
          }
      }
    }
}
