// Exact per-cell sums against an independent rational sum, whatever the order
// of the terms and however they are split; the rows of a run shared out in
// whole groups.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <tuple>
#include <vector>

#include "base/exact_sum.hpp"
#include "base/row_range.hpp"

using namespace quolvent;

namespace {

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

// rational_sum: the sum of |t| kept whole, as an integer count of 2^-1074
// (every finite double is one), rounded once to nearest, ties to even.
double rational_sum(const std::vector<double>& t) {
  std::vector<uint32_t> w(72, 0);  // 2304 bits: 2098 for the largest double, the rest carries
  for (double x : t) {
    if (x == 0.0) continue;
    int e = 0;
    std::frexp(x, &e);
    const int place = std::max(e - 53, -1074) + 1074;  // |x| = m 2^(place - 1074), m < 2^53
    const auto m = static_cast<uint64_t>(std::ldexp(std::fabs(x), 1074 - place));
    unsigned __int128 v = static_cast<unsigned __int128>(m) << (place % 32);
    for (auto i = static_cast<std::size_t>(place / 32); v != 0; ++i) {
      v += w[i];
      w[i] = static_cast<uint32_t>(v);
      v >>= 32;
    }
  }
  const auto bit = [&](int i) { return i >= 0 && (w[static_cast<std::size_t>(i / 32)] >> (i % 32)) & 1; };
  int top = 72 * 32 - 1;
  while (top >= 0 && !bit(top)) --top;
  const int lo = std::max(top - 52, 0);  // the last place kept
  uint64_t m = 0;
  for (int i = top; i >= lo; --i) m = 2 * m + bit(i);
  bool below = false;
  for (int i = 0; i < lo - 1; ++i) below |= bit(i);
  if (bit(lo - 1) && (below || (m & 1))) ++m;
  return std::ldexp(static_cast<double>(m), lo - 1074);
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

// The rounded exact sum, its terms shuffled and dealt out among parts summed
// apart and merged, against the whole rational sum: the same double for
// random terms over narrow and wide ranges (so wide that the window moves up
// while the terms come and small terms are cut), and for terms
// made to fall on the edges of rounding: halfway cases decided by a term far
// below the last place (more than the 64 bits a conversion looks at), ties
// to even, carries through every limb, sums past the largest double, huge
// and tiny terms, subnormals and their sums into the normal range, and
// negative terms, which count by their size.
TEST(ExactSum, CorrectlyRoundedAgainstARationalSum) {
  std::mt19937_64 rng(7);
  std::vector<std::vector<double>> cases;
  for (const auto& [count, lo, hi] :
       {std::tuple{1, -30, 0}, {400, -30, 30}, {1000, -12, -10}, {300, -1074, -1000},
        {300, -200, 200}, {1500, -1000, 900}})
    for (int rep = 0; rep < 10; ++rep) cases.push_back(terms(rng, count, lo, hi));
  const double max = std::numeric_limits<double>::max(), min = std::numeric_limits<double>::min();
  const double sub = std::numeric_limits<double>::denorm_min(), p = std::ldexp(1.0, -53);
  const std::vector<std::vector<double>> edges{
      {1.0, p}, {1.0 + 2 * p, p}, {1.0, p, std::ldexp(1.0, -80)}, {1.0, p, -std::ldexp(1.0, -80)},
      {std::ldexp(1.0, 60), std::ldexp(1.0, 7), 0.5, std::ldexp(1.0, -20)},
      {std::ldexp(1.0, -1000), std::ldexp(1.0, -1053), sub}, {min, min * p, sub}, {min - sub, 3 * sub},
      {sub, sub, sub}, {max, std::ldexp(1.0, 970)}, {max, std::ldexp(1.0, 969)}, {max, max},
      {1e300, 1e-300, 1e-300}, {-1.0, 1.0, -3.0}, {0.1, 0.2, 0.3}, {-0.0, 0.0}, {}};
  cases.insert(cases.end(), edges.begin(), edges.end());
  std::vector<double> carries(1000, std::ldexp(1.0, 53) - 1.0);
  carries.push_back(std::ldexp(1.0, -30));
  cases.push_back(carries);
  for (std::size_t k = 0; k < cases.size(); ++k)
    for (std::size_t parts : {1, 2, 3, 4}) {
      std::shuffle(cases[k].begin(), cases[k].end(), rng);
      EXPECT_EQ(sum_of(cases[k], parts), rational_sum(cases[k])) << k;
    }
  EXPECT_EQ(rational_sum({1.0, p, std::ldexp(1.0, -80)}), 1.0 + 2 * p);  // the reference itself
  EXPECT_EQ(rational_sum({1.0, p}), 1.0);
}

// Infinite and NaN terms win whatever else comes, in either order and across
// a merge.
TEST(ExactSum, InfiniteAndNanTerms) {
  const double inf = INFINITY, nan = NAN;
  EXPECT_EQ(sum_of({1.0, inf, 2.0}), inf);
  for (const auto& t : {std::vector{1.0, nan, inf}, {inf, 3.0, nan}})
    EXPECT_TRUE(std::isnan(sum_of(t)));
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
// groups is empty. The groups are sized by the number of data alone.
TEST(RowRange, BlocksOfWholeGroups) {
  for (const auto& [rows, parts, group] :
       {std::tuple{row_range{0, 1000}, 3, 16}, {{0, 5}, 3, 8}, {{0, 0}, 2, 8},
        {{0, 1000}, 64, 8}, {{40, 93}, 3, 16}, {{0, 100}, 16, 8}}) {
    int32_t at = rows.first;
    const double share = static_cast<double>(rows.count()) / parts;
    for (int p = 0; p < parts; ++p) {
      const row_range b = split_rows(rows, p, parts, group);
      EXPECT_EQ(b.first, at) << p;
      EXPECT_GE(b.last, b.first);
      if (p > 0 && b.count() > 0) EXPECT_EQ(b.first % group, 0);
      EXPECT_LT(std::abs(b.count() - share), group) << p;
      at = b.last;
    }
    EXPECT_EQ(at, rows.last);
  }
  EXPECT_EQ(block_of(5, 1, 3).count(), 0);
}
