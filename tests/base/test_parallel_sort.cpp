// sort_ascending against std::sort, on one thread (the bytes of the bits
// alone) and on three (pieces merged in slices).
#include <gtest/gtest.h>

#include <omp.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "base/parallel_sort.hpp"

// Magnitudes over 2^400, values that differ in one byte of their bits alone,
// both signs, zeros of both signs, infinities and runs of equal values: the
// order of std::sort (-0 before +0), bit for bit, for any thread count.
TEST(SortAscending, AsStdSortOnAnyThreadCount) {
  std::mt19937_64 rng(11);
  std::vector<double> v;
  for (int i = 0; i < 200000; ++i) {
    const uint64_t r = rng();
    switch (i % 5) {
      case 0:
        v.push_back(std::ldexp(static_cast<double>(r >> 11), static_cast<int>(r % 400) - 250));
        break;
      case 1:
        v.push_back(
            std::bit_cast<double>(std::bit_cast<uint64_t>(1.5) ^ ((r & 255) << (8 * (r % 7)))));
        break;
      case 2:
        v.push_back(-v[static_cast<std::size_t>(i - 1 - static_cast<int>(r % 2))]);
        break;
      case 3:
        v.push_back(static_cast<double>(r % 7));
        break;
      default:
        v.push_back(r % 4 == 0 ? -0.0 : r % 4 == 1 ? 0.0 : r % 4 == 2 ? HUGE_VAL : -HUGE_VAL);
    }
  }
  std::vector<double> want = v;
  std::sort(want.begin(), want.end(), [](double a, double b) {
    return a < b || (a == b && std::signbit(a) && !std::signbit(b));
  });
  const int saved = omp_get_max_threads();
  for (int threads : {1, 3}) {
    omp_set_num_threads(threads);
    std::vector<double> got = v;
    quolvent::sort_ascending(got.data(), static_cast<int64_t>(got.size()));
    std::size_t differ = 0;
    for (std::size_t i = 0; i < got.size(); ++i)
      differ += std::bit_cast<uint64_t>(got[i]) != std::bit_cast<uint64_t>(want[i]);
    EXPECT_EQ(differ, 0u) << threads << " threads";
  }
  omp_set_num_threads(saved);
}
