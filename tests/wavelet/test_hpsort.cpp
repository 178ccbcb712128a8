#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "wavelet/hpsort.hpp"

TEST(Hpsort, AgreesWithStandardSortOnManyLengths) {
  std::mt19937_64 gen(7);
  std::uniform_real_distribution<double> u(-1.0e3, 1.0e3);
  for (int64_t n : {0, 1, 2, 3, 4, 5, 7, 8, 16, 33, 100, 1001}) {
    std::vector<double> a(static_cast<size_t>(n));
    for (auto& v : a) v = u(gen);
    if (n > 4) a[1] = a[3] = a[n - 1];  // repeated values
    std::vector<double> b = a;
    hpsort(a.data(), n);
    std::sort(b.begin(), b.end());
    EXPECT_EQ(a, b) << "n = " << n;
  }
}

TEST(Hpsort, SortedReversedAndConstantInputs) {
  std::vector<double> up{1, 2, 3, 4, 5, 6}, down{6, 5, 4, 3, 2, 1}, same(9, 2.5);
  hpsort(up.data(), 6);
  hpsort(down.data(), 6);
  hpsort(same.data(), 9);
  EXPECT_EQ(up, (std::vector<double>{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(down, up);
  EXPECT_EQ(same, std::vector<double>(9, 2.5));
}

TEST(Hpsort, SortsOnlyTheFirstN) {
  std::vector<double> a{3, 1, 2, -5};
  hpsort(a.data(), 3);
  EXPECT_EQ(a, (std::vector<double>{1, 2, 3, -5}));
}
