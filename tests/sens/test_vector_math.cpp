// The array arctangent and logarithm at every width the machine has: close to
// the scalar functions, the tail of an array like its body, and the same value
// wherever in an array it stands.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "sens/vector_math.hpp"

namespace {

double ulps(double got, double want) {
  const double gap = std::fabs(std::nextafter(want, INFINITY) - want);
  return std::fabs(got - want) / gap;
}

struct width_guard {
  ~width_guard() { force_vector_width(0); }
};

}  // namespace

TEST(VectorMath, ArraysAtEveryWidth) {
  width_guard restore;
  std::mt19937_64 rng(5);
  std::uniform_real_distribution<double> u(-1, 1);
  std::vector<double> base(37);
  for (auto& v : base) v = u(rng) * std::ldexp(1.0, static_cast<int>(rng() % 40) - 20);
  std::vector<double> first_at, first_log;
  for (int w : {4, 2, 1}) {
    force_vector_width(w);
    // The whole array first: the shorter ones are compared with it.
    for (std::size_t count : {std::size_t{37}, std::size_t{0}, std::size_t{1}, std::size_t{3},
                              std::size_t{5}}) {
      std::vector<double> a(base.begin(), base.begin() + count), l(a);
      for (auto& v : l) v = std::fabs(v) + 1e-30;
      const std::vector<double> l0 = l;
      atan_array(a.data(), a.size());
      log_array(l.data(), l.size());
      for (std::size_t i = 0; i < count; ++i) {
        EXPECT_LE(ulps(a[i], std::atan(base[i])), 4.0) << w << " " << i;
        EXPECT_LE(ulps(l[i], std::log(l0[i])), 4.0) << w << " " << i;
      }
      if (count == 37 && first_at.empty()) {
        first_at = a;
        first_log = l;
      }
      // A value gives the same result at the end of a short array as inside a long one.
      if (count > 0 && count < 37) {
        EXPECT_EQ(a.back(), first_at[count - 1]);
        EXPECT_EQ(l.back(), first_log[count - 1]);
      }
    }
    first_at.clear();
    first_log.clear();
  }
}
