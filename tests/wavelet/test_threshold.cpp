#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "sens/gsus_mod.hpp"
#include "sens/gsus_no_atan_mod.hpp"
#include "support/test_support.hpp"
#include "wavelet/compress_row_mod.hpp"
#include "wavelet/threshold.hpp"
#include "wavelet_setup.hpp"

namespace {

// band_row: 64 values on a 4 x 4 x 4 mesh (no filtering at that size) whose
// relative energies are the given ones, scaled by 3 and with mixed signs.
std::vector<double> band_row(const std::vector<double>& energy) {
  std::vector<double> row;
  for (size_t i = 0; i < energy.size(); ++i) row.push_back((i % 2 ? -3.0 : 3.0) * std::sqrt(energy[i]));
  return row;
}

std::vector<double> three_bands() {
  std::vector<double> e(10, 5e-7);
  e.insert(e.end(), 20, 2e-6);
  e.insert(e.end(), 33, 0.5);
  e.push_back(1.0);
  return e;
}

std::string wctol_block(const std::string& eps, const std::string& thr, const std::string& ratio) {
  return "\n At the relative  accuracy of:  " + eps + "\n" +
         " Estimated relative threshold:  " + thr + "\n" +
         " Predicted compression  ratio:  " + ratio + "\n";
}

// A survey over a 16 x 16 x 8 mesh of 10 m cells with a vertical field.
void survey_setup(int32_t nz = 8) {
  wt::set_mesh(16, 16, nz, {}, 10.0);
  obs = obs_set{};
  obs.incl = 90.0;
  obs.decl = 0.0;
  obs.aincl = 90.0;
  obs.adecl = 0.0;
  obs.geomag = 50000.0;
  obs.idir = 1;
}

void add_datum(double x, double y, double z) {
  obs.obs_x.push_back(x);
  obs.obs_y.push_back(y);
  obs.obs_z.push_back(z);
  obs.ndata = static_cast<int32_t>(obs.obs_x.size());
}

// row_of: the weighted row of datum i (1-based), computed directly.
std::vector<double> row_of(int32_t i, const std::vector<double>& wtz) {
  std::vector<double> g(cells.nactive);
  const size_t d = static_cast<size_t>(i - 1);
  sens_row(mesh.yn.data(), mesh.xn.data(), mesh.zn.data(), mesh.ny, mesh.nx, mesh.nz,
           top_index.data(), i, obs.obs_y[d], obs.obs_x[d], mesh.z0 - obs.obs_z[d], g.data(),
           g.size());
  for (size_t k = 0; k < g.size(); ++k) g[k] /= wtz[k];
  return g;
}

}  // namespace

TEST(Wctol, LogLinesForInterpolationFlatCurveAndExtrapolation) {
  wt::use_wavelet("daub2");
  wt::set_mesh(4, 4, 4);
  const std::vector<double> row = band_row(three_bands());
  {
    // Between the first two points, in log-log.
    qt::capture cap;
    const double t = wctol(row.data(), 64, 1e-3);
    EXPECT_NEAR(t, 1.4400e-3, 1e-7);
    EXPECT_EQ(cap.log(), wctol_block("1.0000E-03", "1.4400E-03", "1.8824E+00"));
    EXPECT_EQ(cap.screen(), "");
  }
  {
    // All ten points below eps and the curve flat at the end: the last point.
    qt::capture cap;
    const double t = wctol(row.data(), 64, 0.5);
    EXPECT_DOUBLE_EQ(t, std::sqrt(std::exp(9 * 1.2792139405522476 - 13.815510557964274)));
    EXPECT_EQ(cap.log(), wctol_block("5.0000E-01", "3.1623E-01", "1.8824E+00"));
  }
  {
    // Nothing in the first band (err(1) = 0): the first point's threshold.
    std::vector<double> e(63, 2e-6);
    e.push_back(1.0);
    const std::vector<double> r = band_row(e);
    qt::capture cap;
    EXPECT_NEAR(wctol(r.data(), 64, 5e-3), 1e-3, 1e-12);
    EXPECT_EQ(cap.log(), wctol_block("5.0000E-03", "1.0000E-03", "1.0000E+00"));
  }
  // A steady curve extrapolates past 0.1 (a threshold above 0.32), up to 1.
  std::vector<double> e;
  for (int m = 0; m < 64; ++m) e.push_back(std::pow(10.0, -m * 6.0 / 63.0));
  const std::vector<double> r = band_row(e);
  {
    qt::capture cap;
    EXPECT_NEAR(wctol(r.data(), 64, 0.5), 0.52070, 1e-5);
    EXPECT_EQ(cap.log(), wctol_block("5.0000E-01", "5.2070E-01", "1.0667E+01"));
  }
  {
    qt::capture cap;
    EXPECT_EQ(wctol(r.data(), 64, 0.99), 1.0);
    EXPECT_EQ(cap.log(), wctol_block("9.9000E-01", "1.0000E+00", "6.4000E+01"));
  }
}

TEST(Wctol, StopsWhenTheAccuracyIsOutOfReachOrTheRowIsEmpty) {
  wt::use_wavelet("daub2");
  wt::set_mesh(4, 4, 4);
  const std::vector<double> row = band_row(three_bands());
  const std::string reach = " Cannot achieve the required relative accuracy,\n program is terminated.\n";
  for (double eps : {1e-4, 0.0, -1.0}) {
    qt::capture cap;
    EXPECT_THROW(wctol(row.data(), 64, eps), qt::stop_caught);
    EXPECT_EQ(cap.log(), reach) << eps;
    EXPECT_EQ(cap.screen(), "") << eps;
  }
  const std::string empty =
      "\nERROR: the sample row has no finite value other than 0, so no threshold\n"
      "can be estimated from it. Give the relative threshold itself (itol 2).\n"
      "program is terminated.\n";
  std::vector<double> zero(64, 0.0);
  qt::capture cap;
  EXPECT_THROW(wctol(zero.data(), 64, 0.05), qt::stop_caught);
  EXPECT_EQ(cap.screen(), empty);
  EXPECT_EQ(cap.log(), empty);
}

TEST(Wctol, DroppingBelowTheEstimateCostsAboutEps) {
  wt::use_wavelet("daub2");
  wt::set_mesh(16, 16, 16);
  const int32_t n = cells.nactive;
  // A smooth, fast-decaying row, like the field of a point above the centre.
  std::vector<double> row(n);
  for (int iy = 1; iy <= 16; ++iy)
    for (int ix = 1; ix <= 16; ++ix)
      for (int iz = 1; iz <= 16; ++iz) {
        const double dx = ix - 8.3, dy = iy - 8.6, dz = iz + 0.7;
        const double r2 = dx * dx + dy * dy + dz * dz;
        row[active_at(iz, ix, iy) - 1] = (2 * dz * dz - dx * dx - dy * dy) / (r2 * r2 * std::sqrt(r2));
      }
  for (double eps : {0.01, 0.05, 0.2}) {
    qt::capture quiet;
    const double t = wctol(row.data(), n, eps);
    std::vector<double> cube(ncube);
    row_to_cube(row.data(), n, cube.data());
    transform_cube(cube.data(), 1);
    double m = 0.0, total = 0.0, dropped = 0.0;
    for (double c : cube) m = std::max(m, std::fabs(c));
    for (double c : cube) {
      total += c * c;
      if (std::fabs(c) < t * m) dropped += c * c;
    }
    const double achieved = std::sqrt(dropped / total);
    EXPECT_GT(achieved, 0.5 * eps) << eps;
    EXPECT_LT(achieved, 1.2 * eps) << eps;
  }
}

TEST(EstimateThresholds, FieldReadingAndItsFailures) {
  wt::use_wavelet("daub2");
  wt::set_mesh(4, 4, 4);
  const std::vector<double> wtz(64, 1.0);
  const std::vector<int32_t> kinds;
  obs = obs_set{};
  double s = -1.0, b = -1.0;
  {
    qt::capture cap;
    estimate_thresholds(64, wtz, top_index, kinds, "2 0.001", s, b);
    EXPECT_EQ(s, 0.001);
    EXPECT_EQ(b, 0.001);
    EXPECT_EQ(cap.log(), "");
  }
  {
    // The default needs no datum; with none of either kind nothing changes.
    qt::capture cap;
    s = b = 7.0;
    estimate_thresholds(64, wtz, top_index, kinds, "null", s, b);
    estimate_thresholds(64, wtz, top_index, kinds, "NULL   ", s, b);
    EXPECT_EQ(s, 7.0);
    EXPECT_EQ(b, 7.0);
    EXPECT_EQ(cap.log(), "");
  }
  const std::string unreadable = "Unrecognized input for compression threshold,\nprogram is terminated.\n";
  const std::string bad_itol = "Error:  itol should be 1 or 2.\n";
  const std::string bad_eps =
      "\nERROR: the relative accuracy must be above 0 when itol is 1.\nprogram is terminated.\n";
  const struct { const char* line; const std::string* text; } cases[] = {
      {"1", &unreadable},     {"", &unreadable},       {"   ", &unreadable},
      {"1 /", &unreadable},   {"one 0.05", &unreadable}, {"1 abc", &unreadable},
      {"Null", &unreadable},  {"3 0.05", &bad_itol},   {"0 0.05", &bad_itol},
      {"-1 0.05", &bad_itol}, {"1 0", &bad_eps},       {"1 -0.05", &bad_eps}};
  for (const auto& c : cases) {
    qt::capture cap;
    EXPECT_THROW(estimate_thresholds(64, wtz, top_index, kinds, c.line, s, b), qt::stop_caught)
        << c.line;
    EXPECT_EQ(cap.screen(), *c.text) << c.line;
    EXPECT_EQ(cap.log(), *c.text) << c.line;
  }
}

TEST(EstimateThresholds, SampleRowsAreTheDataNearestTheCentre) {
  wt::use_wavelet("daub2");
  survey_setup(1);  // one layer: the borehole sample depth is the top node
  const int32_t n = cells.nactive;
  std::vector<double> wtz(n);
  for (int32_t k = 0; k < n; ++k) wtz[k] = 1.0 + 0.1 * (k % 5);
  // Centre (80, 80). Surface: the 2nd is nearest (the 3rd ties it, later).
  add_datum(10.0, 10.0, 1.0);
  add_datum(83.0, 77.0, 1.0);
  add_datum(77.0, 83.0, 1.0);
  // Borehole: horizontally equal, the one nearer the depth 0 wins.
  add_datum(40.0, 120.0, -30.0);
  add_datum(40.0, 120.0, -4.0);
  const std::vector<int32_t> kinds{1, 1, 1, -1, -1};
  double s = 0.0, b = 0.0;
  std::string log;
  {
    // The main thread's directions are setup_compression's to set.
    SET_G_VALUES(90.0, 0.0, 90.0, 0.0);
    qt::capture cap;
    estimate_thresholds(n, wtz, top_index, kinds, "1 0.05", s, b);
    log = cap.log();
  }
  double ws = 0.0, wb = 0.0;
  {
    qt::capture quiet;
    ws = wctol(row_of(2, wtz).data(), n, 0.05);
    wb = wctol(row_of(5, wtz).data(), n, 0.05);
    EXPECT_NE(wctol(row_of(4, wtz).data(), n, 0.05), wb);
  }
  EXPECT_EQ(s, ws);
  EXPECT_EQ(b, wb);
  EXPECT_EQ(log.find("\n    Sensitivity of surface  data:\n"), 0u);
  EXPECT_NE(log.find("\n    Sensitivity of borehole data:\n"), std::string::npos);

  // One kind only: one block.
  const std::vector<int32_t> all_surface{1, 1, 1, 1, 1};
  qt::capture cap;
  b = -5.0;
  estimate_thresholds(n, wtz, top_index, all_surface, "null", s, b);
  EXPECT_EQ(b, -5.0);
  EXPECT_EQ(cap.log().find("borehole"), std::string::npos);
  EXPECT_NE(cap.log().find("At the relative  accuracy of:  5.0000E-02"), std::string::npos);
}

TEST(SetupCompression, ChoosesTheStoreAndSetsTheDirections) {
  survey_setup();
  const int32_t n = cells.nactive;
  add_datum(80.0, 80.0, 2.0);
  add_datum(20.0, 30.0, 2.0);
  obs.aincl = 60.0;
  obs.adecl = 10.0;
  obs.incl = 70.0;
  obs.decl = -5.0;
  const std::vector<double> wtz(n, 1.0);
  const std::vector<int32_t> kinds{1, 1};
  {
    qt::capture cap;
    setup_compression(n, wtz, top_index, kinds, "NONE ", "null");
    EXPECT_FALSE(compressed);
    EXPECT_EQ(g_full.size(), static_cast<size_t>(n) * 2);
    EXPECT_NE(cap.screen().find("WARNING: no compression"), std::string::npos);
  }
  dir_products set = g_dir();
  SET_G_VALUES(70.0, -5.0, 60.0, 10.0);
  EXPECT_EQ(set.gxz, g_dir().gxz);
  EXPECT_EQ(set.gyy, g_dir().gyy);
  {
    // Per-datum directions: the first datum's go to the main thread.
    obs.idir = 0;
    obs.obs_aincl = {45.0, 30.0};
    obs.obs_adecl = {20.0, 0.0};
    qt::capture cap;
    setup_compression(n, wtz, top_index, kinds, "daub2", "2 0.001");
    EXPECT_TRUE(compressed);
    EXPECT_EQ(ncof, 4);
    EXPECT_EQ(g_compressed.size(), 2u);
    EXPECT_EQ(wctol_surface, 0.001);
    EXPECT_EQ(wctol_borehole, 0.001);
    EXPECT_EQ(cap.log(), "");
    set = g_dir();
    SET_G_VALUES(70.0, -5.0, 45.0, 20.0);
    EXPECT_EQ(set.gxy, g_dir().gxy);
    EXPECT_EQ(set.gzz, g_dir().gzz);
  }
  obs.idir = 1;
  {
    // A matrix that can't exist: the uncompressed store's own message.
    obs.ndata = 2147483647;
    qt::capture cap;
    EXPECT_THROW(setup_compression(2147483647, wtz, top_index, kinds, "none ", "null"),
                 qt::stop_caught);
    obs.ndata = 2;
    EXPECT_NE(cap.screen().find("\nError: not enough memory to allocate for the uncompressed\n"
                                "sensitivity matrix.  Try using compression.\n\n"),
              std::string::npos);
  }
}

TEST(SetupCompression, AchievedErrorOnASurveyMeetsTheRequestedAccuracy) {
  survey_setup();
  const int32_t n = cells.nactive;
  for (int iy = 0; iy < 8; ++iy)
    for (int ix = 0; ix < 8; ++ix) add_datum(5.0 + 20.0 * ix + 3.0, 5.0 + 20.0 * iy + 1.0, 2.0);
  // A depth weighting, as runs use.
  std::vector<double> wtz(n);
  for (int iy = 1; iy <= 16; ++iy)
    for (int ix = 1; ix <= 16; ++ix)
      for (int iz = 1; iz <= 8; ++iz) wtz[active_at(iz, ix, iy) - 1] = std::pow(10.0 * iz - 2.0, -1.5);
  std::vector<int32_t> kinds(obs.ndata, 1);
  std::string log;
  {
    qt::capture cap;
    setup_compression(n, wtz, top_index, kinds, "daub2", "1 0.05");
    log = cap.log();
  }
  const size_t at = log.find("Predicted compression  ratio:");
  ASSERT_NE(at, std::string::npos);
  const double predicted = std::strtod(log.c_str() + at + 30, nullptr);

  int64_t nnz = 0;
  double err_sum = 0.0, row_err = 0.0;
  const std::vector<double> model(n, 0.01);
  transform_test_model(model, wtz);
  for (int32_t i = 1; i <= obs.ndata; ++i) {
    std::vector<double> g = row_of(i, std::vector<double>(n, 1.0));
    double full = 0.0;
    for (int32_t k = 0; k < n; ++k) full += model[k] * g[k];
    for (int32_t k = 0; k < n; ++k) g[k] /= wtz[k];
    COMPRESS_ROW(g.data(), n, g_compressed[i - 1], nnz, kinds[i - 1]);
    err_sum += std::fabs((full - dot_compressed(g_compressed[i - 1])) / full);
    // The row's own relative error, back through the inverse transform.
    std::vector<double> cube(ncube, 0.0), back(n);
    for (size_t k = 0; k < g_compressed[i - 1].idx.size(); ++k)
      cube[g_compressed[i - 1].idx[k] - 1] = g_compressed[i - 1].val[k];
    transform_cube(cube.data(), -1);
    cube_to_row(back.data(), n, cube.data());
    double d2 = 0.0, g2 = 0.0;
    for (int32_t k = 0; k < n; ++k) {
      d2 += (back[k] - g[k]) * (back[k] - g[k]);
      g2 += g[k] * g[k];
    }
    row_err = std::max(row_err, std::sqrt(d2 / g2));
  }
  const double achieved_ratio = static_cast<double>(n) * obs.ndata / static_cast<double>(nnz);
  EXPECT_LE(err_sum / obs.ndata, 0.05);
  EXPECT_LE(row_err, 0.075);
  EXPECT_LT(predicted, 2.0 * achieved_ratio);
  EXPECT_GT(predicted, 0.5 * achieved_ratio);
  RecordProperty("predicted_ratio", std::to_string(predicted));
  RecordProperty("achieved_ratio", std::to_string(achieved_ratio));
}
