// Exact per-cell sums against an independent fixed-point sum, and the same
// bits whatever the order of the terms and however they are split; the rows
// of a run shared out in whole groups.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "base/exact_sum.hpp"
#include "base/row_range.hpp"

using namespace quolvent;

namespace {

using u128 = unsigned __int128;

// terms: count random non-negative doubles of full 53-bit mantissas whose
// last places lie between 2^lo and 2^hi, with some zeros and subnormal-free.
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
  const auto m = static_cast<uint64_t>(std::ldexp(f, 53));
  return static_cast<u128>(m) << (e - 53 - lo);
}

double sum_of(const std::vector<double>& t) {
  exact_sums s;
  s.assign(1);
  for (double x : t) s.add(&x, 0, 1);
  std::vector<double> out;
  s.round(out);
  return out[0];
}

}  // namespace

// The sum of terms that fit a 128-bit fixed point, computed there exactly,
// against the rounded exact sum: within half an ulp of it, ties to even
// (checked where a tie is made on purpose).
TEST(ExactSum, CorrectlyRoundedAgainstAFixedPointSum) {
  std::mt19937_64 rng(7);
  const struct {
    int count, lo, hi;
  } cases[] = {{1, -30, 0}, {2, -30, 30}, {400, -30, 30}, {1000, -12, -10}, {1000, 0, 0},
               {50, -60, -2}};
  for (const auto& k : cases) {
    for (int rep = 0; rep < 20; ++rep) {
      const std::vector<double> t = terms(rng, k.count, k.lo, k.hi);
      u128 ref = 0;
      for (double x : t) ref += fixed(x, k.lo);
      const double r = sum_of(t);
      const u128 got = fixed(r, k.lo);
      int e = 0;
      std::frexp(r, &e);
      const u128 ulp = static_cast<u128>(1) << (e - 53 - k.lo);
      const u128 diff = got > ref ? got - ref : ref - got;
      EXPECT_LE(2 * diff, ulp) << k.count << " " << k.lo << " " << k.hi;
    }
  }
  // 2^53 + 1 is halfway between 2^53 and 2^53 + 2: to even.
  EXPECT_EQ(sum_of({9007199254740992.0, 1.0}), 9007199254740992.0);
  EXPECT_EQ(sum_of({9007199254740992.0, 1.0, 1.0, 1.0}), 9007199254740996.0);
  EXPECT_EQ(sum_of({9007199254740994.0, 1.0}), 9007199254740996.0);
  // One term comes back as it is, subnormal or not.
  for (double x : {1.0, 3e-300, 5e-320, 1.7e308, 0.1})
    EXPECT_EQ(sum_of({x}), x);
}

// Terms shuffled, split among parts summed apart and merged in any order:
// the same bits every time, also over a wide range of magnitudes where the
// window moves up while the terms come and small terms are cut.
TEST(ExactSum, SameBitsForAnyOrderAndSplit) {
  std::mt19937_64 rng(11);
  const struct {
    int lo, hi;
  } ranges[] = {{-20, 20}, {-1000, 900}, {-1074, -1000}, {-200, -100}};
  for (const auto& r : ranges) {
    const int n = 5;  // cells
    std::vector<std::vector<double>> rows;
    for (int i = 0; i < 300; ++i) rows.push_back(terms(rng, n, r.lo, r.hi));
    rows[17][2] = 0.0;
    std::vector<double> first;
    for (int rep = 0; rep < 10; ++rep) {
      std::shuffle(rows.begin(), rows.end(), rng);
      const int parts = 1 + rep % 4;
      std::vector<exact_sums> part(static_cast<std::size_t>(parts));
      for (auto& p : part) p.assign(n);
      for (std::size_t i = 0; i < rows.size(); ++i)
        part[i % static_cast<std::size_t>(parts)].add(rows[i].data(), 0, n);
      exact_sums all;
      all.assign(n);
      for (int j = parts - 1; j >= 0; --j) all.merge(part[static_cast<std::size_t>(j)]);
      std::vector<double> out;
      all.round(out);
      if (rep == 0) first = out;
      for (int k = 0; k < n; ++k) EXPECT_EQ(std::bit_cast<uint64_t>(out[static_cast<std::size_t>(k)]),
                                            std::bit_cast<uint64_t>(first[static_cast<std::size_t>(k)]))
                                      << r.lo << " " << k;
    }
  }
}

// Infinite and NaN terms win whatever else comes, in either order; negative
// terms count by their size; no terms give 0; a sum past the largest double
// is infinite.
TEST(ExactSum, SpecialTerms) {
  const double inf = std::numeric_limits<double>::infinity();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(sum_of({}), 0.0);
  EXPECT_EQ(sum_of({1.0, inf, 2.0}), inf);
  EXPECT_TRUE(std::isnan(sum_of({1.0, nan, inf})));
  EXPECT_TRUE(std::isnan(sum_of({inf, 3.0, nan})));
  EXPECT_EQ(sum_of({-1.5, 2.0, -0.0}), 3.5);
  EXPECT_EQ(sum_of({1.7e308, 1.7e308}), inf);
  exact_sums a, b;
  a.assign(1);
  b.assign(1);
  const double big = 1e300, x = nan;
  a.add(&big, 0, 1);
  b.add(&x, 0, 1);
  a.merge(b);
  std::vector<double> out;
  a.round(out);
  EXPECT_TRUE(std::isnan(out[0]));
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

// Blocks of rows: they cover the rows in order without gaps, start on a
// group (but for the first), hold the even share of the rows to within a
// group, and a part beyond the groups is empty.
TEST(RowRange, BlocksOfWholeGroups) {
  const struct {
    row_range rows;
    int parts;
  } cases[] = {{{0, 1000}, 3},  {{0, 5}, 3},     {{0, 0}, 2},      {{0, 33}, 2},
               {{0, 1000}, 64}, {{40, 93}, 3},   {{17, 18}, 4},    {{0, 160}, 10}};
  for (const auto& k : cases) {
    int32_t at = k.rows.first;
    const double share = static_cast<double>(k.rows.count()) / k.parts;
    for (int p = 0; p < k.parts; ++p) {
      const row_range b = split_rows(k.rows, p, k.parts);
      EXPECT_EQ(b.first, at) << p;
      EXPECT_GE(b.last, b.first);
      if (p > 0 && b.count() > 0) EXPECT_EQ(b.first % sum_group_rows, 0);
      EXPECT_LT(std::abs(b.count() - share), sum_group_rows) << p;
      at = b.last;
    }
    EXPECT_EQ(at, k.rows.last);
  }
  EXPECT_EQ(block_of(5, 1, 3).count(), 0);
  EXPECT_EQ(block_of(5, 0, 3).count(), 5);
  EXPECT_EQ(block_of(100, 0, 2).count(), 48);
}
