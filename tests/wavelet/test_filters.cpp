#include <gtest/gtest.h>

#include <cmath>
#include <numeric>

#include "support/test_support.hpp"
#include "wavelet/wavelet_filters.hpp"

namespace {

std::vector<double> filter_of(const std::string& name, int32_t& nc) {
  std::vector<double> f;
  qt::capture quiet;
  check_wavelet(name, f, nc);
  return f;
}

double dot_shifted(const std::vector<double>& f, int shift) {
  double s = 0.0;
  for (size_t k = 0; k + shift < f.size(); ++k) s += f[k] * f[k + shift];
  return s;
}

}  // namespace

TEST(Filters, EveryFamilyMemberHasUnitNormAndEvenShiftOrthogonality) {
  const struct { const char* name; int ncof; double tol; } all[] = {
      {"daub1", 2, 1e-12},  {"daub2", 4, 1e-12},  {"daub3", 6, 1e-10},
      {"daub4", 8, 1e-10},  {"daub5", 10, 1e-10}, {"daub6", 12, 1e-10},
      {"symm4", 8, 1e-10},  {"symm5", 10, 1e-10}, {"symm6", 12, 1e-10}};
  for (const auto& w : all) {
    int32_t nc = -1;
    std::vector<double> f = filter_of(w.name, nc);
    ASSERT_EQ(nc, w.ncof) << w.name;
    ASSERT_EQ(f.size(), static_cast<size_t>(w.ncof)) << w.name;
    EXPECT_NEAR(dot_shifted(f, 0), 1.0, 1e-14) << w.name;
    // Orthogonal to its even shifts, to the digits the table carries.
    for (int s = 2; s < w.ncof; s += 2) EXPECT_NEAR(dot_shifted(f, s), 0.0, w.tol) << w.name << s;
    // Low-pass: the coefficients sum to the square root of 2.
    EXPECT_NEAR(std::accumulate(f.begin(), f.end(), 0.0), std::sqrt(2.0), 1e-9) << w.name;
  }
}

TEST(Filters, Daub1IsNormalisedAndSymm4IsScaledLikeDaub4) {
  int32_t nc = 0;
  std::vector<double> haar = filter_of("daub1", nc);
  EXPECT_EQ(nc, 2);
  EXPECT_DOUBLE_EQ(haar[0], haar[1]);
  EXPECT_NEAR(haar[0], 1.0 / std::sqrt(2.0), 1e-15);
  EXPECT_NE(haar[0], 0.7071068);
  std::vector<double> s4 = filter_of("symm4", nc);
  EXPECT_NEAR(std::accumulate(s4.begin(), s4.end(), 0.0), std::sqrt(2.0), 1e-11);
  EXPECT_NEAR(s4[3] / s4[2], 1.136658243408 / 0.703739068656, 1e-15);
  std::vector<double> d2 = filter_of("daub2", nc);
  EXPECT_NEAR(d2[0], (1 + std::sqrt(3.0)) / (4 * std::sqrt(2.0)), 1e-15);
}

TEST(Filters, NoneGivesTheWarningAndNoFilter) {
  for (const char* name : {"NONE ", "none ", "none!", "NONEx"}) {
    qt::capture cap;
    std::vector<double> f{1.0};
    int32_t nc = 5;
    check_wavelet(name, f, nc);
    EXPECT_EQ(nc, 0);
    EXPECT_TRUE(f.empty());
    const std::string text =
        "\nWARNING: no compression will be used for the sensitivity matrix.\n"
        "The program will need a lot of memory and disk space to store the matrix.\n\n";
    EXPECT_EQ(cap.screen(), text);
    EXPECT_EQ(cap.log(), text);
  }
}

TEST(Filters, BadNamesAndDigitsStopWithTheirMessages) {
  const std::string unknown =
      "\nError: invalid compression method.\nShould be: daub[1-6], symm[4-6], or NONE.\n";
  const std::string bad_daub = "\nERROR: Invalid daub compression.  daub[1-6]\n";
  const std::string bad_symm = "\nError: Invalid symm compression.  symm[4-6]\n";
  const struct { const char* name; const std::string* text; } cases[] = {
      {"Daub2", &unknown}, {"DAUB2", &unknown}, {"None ", &unknown}, {"haar ", &unknown},
      {"", &unknown},      {"daub0", &bad_daub}, {"daub7", &bad_daub}, {"daub ", &bad_daub},
      {"daubx", &bad_daub}, {"daub!", &bad_daub}, {"daub", &bad_daub},  {"symm3", &bad_symm},
      {"symm1", &bad_symm}, {"symm7", &bad_symm}, {"symm ", &bad_symm}};
  for (const auto& c : cases) {
    qt::capture cap;
    std::vector<double> f;
    int32_t nc = 0;
    EXPECT_THROW(check_wavelet(c.name, f, nc), qt::stop_caught) << c.name;
    EXPECT_EQ(cap.screen(), *c.text) << c.name;
    EXPECT_EQ(cap.log(), *c.text) << c.name;
  }
}
