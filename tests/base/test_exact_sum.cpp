// Exact per-cell sums against an independent fixed-point sum, and the same
// bits whatever the order of the terms and however they are split; the rows
// of a run shared out in whole groups.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "base/exact_sum.hpp"
#include "base/row_range.hpp"

using namespace quolvent;

namespace {

using u128 = unsigned __int128;

// terms: count random non-negative doubles of full 53-bit mantissas whose
// last places lie between 2^lo and 2^hi, with some zeros.
std::vector<double> terms(std::mt19937_64& rng, int count, int lo, int hi) {
  std::vector<double> t;
  std::uniform_int_distribution<int> place(lo, hi);
  for (int i = 0; i < count; ++i) {
    const uint64_t m = (rng() >> 11) | (uint64_t{1} << 52);
    t.push_back(i % 17 == 5 ? 0.0 : std::ldexp(static_cast<double>(m), place(rng)));
  }
  return t;
}

// fixed: x in units of 2^lo (x a multiple of it).
u128 fixed(double x, int lo) {
  if (x == 0.0) return 0;
  int e = 0;
  const double f = std::frexp(x, &e);  // x = f 2^e, f in [0.5, 1)
  return static_cast<u128>(static_cast<uint64_t>(std::ldexp(f, 53))) << (e - 53 - lo);
}

// sum_of: the rounded sum of t, its terms dealt out among parts summed apart
// and merged.
double sum_of(const std::vector<double>& t, std::size_t parts = 1) {
  std::vector<exact_sums> part(parts);
  for (auto& p : part) p.assign(1);
  for (std::size_t i = 0; i < t.size(); ++i) part[i % parts].add(&t[i], 0, 1);
  for (std::size_t j = 1; j < parts; ++j) part[0].merge(part[j]);
  std::vector<double> out;
  part[0].round(out);
  return out[0];
}

}  // namespace

// The sum of terms that fit a 128-bit fixed point, computed there exactly,
// against the rounded exact sum (of parts merged): within half an ulp of it,
// ties to even.
TEST(ExactSum, CorrectlyRoundedAgainstAFixedPointSum) {
  std::mt19937_64 rng(7);
  for (const auto& [count, lo, hi] : {std::tuple{1, -30, 0}, {400, -30, 30}, {1000, -12, -10}}) {
    for (int rep = 0; rep < 20; ++rep) {
      const std::vector<double> t = terms(rng, count, lo, hi);
      u128 ref = 0;
      for (double x : t) ref += fixed(x, lo);
      const double r = sum_of(t, 1 + rep % 3);
      const u128 got = fixed(r, lo);
      const u128 diff = got > ref ? got - ref : ref - got;
      EXPECT_LE(2 * diff, static_cast<u128>(1) << (std::ilogb(r) - 52 - lo)) << count << " " << lo;
    }
  }
  // 2^53 + 1 and 2^53 + 3 lie halfway: to the even neighbour, down and up.
  EXPECT_EQ(sum_of({9007199254740992.0, 1.0}), 9007199254740992.0);
  EXPECT_EQ(sum_of({9007199254740994.0, 1.0}), 9007199254740996.0);
  // One term comes back as it is, subnormal or not.
  for (double x : {3e-300, 5e-320, 1.7e308, 0.1}) EXPECT_EQ(sum_of({x}), x);
}

// Terms shuffled, dealt out among parts summed apart and merged: the same
// sum every time, also over magnitudes so wide that the window moves up
// while the terms come and small terms are cut.
TEST(ExactSum, SameBitsForAnyOrderAndSplit) {
  std::mt19937_64 rng(11);
  for (const auto& [lo, hi] : {std::pair{-20, 20}, {-1000, 900}, {-1074, -1000}}) {
    std::vector<double> t = terms(rng, 1500, lo, hi);
    const double first = sum_of(t);
    for (int rep = 0; rep < 10; ++rep) {
      std::shuffle(t.begin(), t.end(), rng);
      EXPECT_EQ(sum_of(t, 1 + rep % 4), first) << lo;
    }
  }
}

// Infinite and NaN terms win whatever else comes, in either order and across
// a merge; negative terms count by their size; no terms give 0; a sum past
// the largest double is infinite.
TEST(ExactSum, InfiniteNanAndNegativeTerms) {
  const double inf = INFINITY, nan = NAN;
  EXPECT_EQ(sum_of({}), 0.0);
  EXPECT_EQ(sum_of({1.0, inf, 2.0}), inf);
  for (const auto& t : {std::vector{1.0, nan, inf}, {inf, 3.0, nan}})
    EXPECT_TRUE(std::isnan(sum_of(t)));
  EXPECT_EQ(sum_of({-1.5, 2.0, -0.0}), 3.5);
  EXPECT_EQ(sum_of({1.7e308, 1.7e308}), inf);
  EXPECT_TRUE(std::isnan(sum_of({1e300, nan}, 2)));
}

// The adder gives the same sums as one thread adding every row, and leaves
// the rows at 0.
TEST(ExactSum, AdderFromManyThreads) {
  const std::size_t n = 5000;  // more than one stripe
  std::mt19937_64 rng(3);
  std::vector<std::vector<double>> rows;
  for (int i = 0; i < 16; ++i) rows.push_back(terms(rng, static_cast<int>(n), -40, 40));
  exact_sums one, many;
  one.assign(n);
  many.assign(n);
  for (auto& r : rows) one.add(r.data(), 0, n);
  exact_adder adder(many);
#pragma omp parallel for num_threads(4)
  for (int i = 0; i < 16; ++i) adder.add_and_clear(rows[static_cast<std::size_t>(i)].data(), i);
  std::vector<double> a, b;
  one.round(a);
  many.round(b);
  EXPECT_EQ(a, b);
  for (const auto& r : rows) EXPECT_EQ(std::count(r.begin(), r.end(), 0.0), static_cast<long>(n));
}

// Blocks of rows cover the rows in order without gaps, start on a group (but
// for the first), hold the even share to within a group; a part beyond the
// groups is empty.
TEST(RowRange, BlocksOfWholeGroups) {
  for (const auto& [rows, parts] : {std::pair{row_range{0, 1000}, 3}, {{0, 5}, 3}, {{0, 0}, 2},
                                     {{0, 1000}, 64}, {{40, 93}, 3}}) {
    int32_t at = rows.first;
    const double share = static_cast<double>(rows.count()) / parts;
    for (int p = 0; p < parts; ++p) {
      const row_range b = split_rows(rows, p, parts);
      EXPECT_EQ(b.first, at) << p;
      EXPECT_GE(b.last, b.first);
      if (p > 0 && b.count() > 0) EXPECT_EQ(b.first % sum_group_rows, 0);
      EXPECT_LT(std::abs(b.count() - share), sum_group_rows) << p;
      at = b.last;
    }
    EXPECT_EQ(at, rows.last);
  }
  EXPECT_EQ(block_of(5, 1, 3).count(), 0);
}
