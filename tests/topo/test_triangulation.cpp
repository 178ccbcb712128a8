#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

#include "topo/triangulation.hpp"
#include "tri_check.hpp"

using tt::net;

namespace {

net from(std::vector<std::pair<double, double>> pts) {
  net t;
  for (auto [x, y] : pts) {
    t.x.push_back(x);
    t.y.push_back(y);
  }
  return t;
}

bool joined(const net& t, int32_t a, int32_t b) {
  const auto v = tt::neighbours(t, a);
  return std::find(v.begin(), v.end(), b) != v.end();
}

}  // namespace

// ------------------------------------------------------------------ sorting

TEST(SortIndex, OrdersKeysOfEveryLengthAndKeepsThem) {
  std::mt19937 gen(11);
  for (int32_t n : {0, 1, 2, 3, 11, 12, 13, 40, 1000, 20000}) {
    std::vector<double> key(static_cast<std::size_t>(n));
    // Few distinct values, so that ties are common.
    for (auto& k : key) k = static_cast<double>(gen() % 97) * 0.5 - 7.0;
    const auto copy = key;
    std::vector<int32_t> ind(static_cast<std::size_t>(n), -1);
    sort_index(n, key, ind);
    EXPECT_EQ(key, copy);
    auto sorted_ind = ind;
    std::sort(sorted_ind.begin(), sorted_ind.end());
    std::vector<int32_t> one_to_n(static_cast<std::size_t>(n));
    std::iota(one_to_n.begin(), one_to_n.end(), 1);
    EXPECT_EQ(sorted_ind, one_to_n) << "n " << n;
    for (int32_t i = 1; i < n; ++i)
      ASSERT_LE(key[static_cast<std::size_t>(ind[i - 1] - 1)],
                key[static_cast<std::size_t>(ind[i] - 1)])
          << "n " << n;
  }
}

TEST(SortIndex, AlreadySortedAndReversedInput) {
  for (bool reversed : {false, true}) {
    const int32_t n = 5000;
    std::vector<double> key(n);
    for (int32_t i = 0; i < n; ++i) key[i] = reversed ? n - i : i;
    std::vector<int32_t> ind(n);
    sort_index(n, key, ind);
    for (int32_t i = 1; i < n; ++i) ASSERT_LE(key[ind[i - 1] - 1], key[ind[i] - 1]);
  }
}

TEST(OrderNodes, PermutesTheCarriedArraysAlike) {
  std::mt19937 gen(5);
  const int32_t n = 3001;
  std::vector<double> x(n), y(n), z(n);
  for (int32_t i = 0; i < n; ++i) {
    x[i] = static_cast<double>(gen() % 500);
    y[i] = i;          // the original place
    z[i] = 2.0 * i;    // tied to it
  }
  const auto x0 = x;
  std::vector<int32_t> ind(n);
  order_nodes(n, 3, x, y, z, ind);
  std::vector<int32_t> seen(n, 0);
  for (int32_t i = 0; i < n; ++i) {
    const int32_t from = static_cast<int32_t>(y[i]);
    EXPECT_EQ(ind[i], from + 1);  // the workspace keeps the permutation, signs restored
    EXPECT_EQ(x[i], x0[from]);
    EXPECT_EQ(z[i], 2.0 * from);
    ++seen[from];
    if (i > 0) EXPECT_LE(x[i - 1], x[i]);
  }
  EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), n);

  // One array only: the others stay as they are.
  std::vector<double> a{3, 1, 2}, b{30, 10, 20}, c{300, 100, 200};
  std::vector<int32_t> w(3);
  order_nodes(3, 1, a, b, c, w);
  EXPECT_EQ(a, (std::vector<double>{1, 2, 3}));
  EXPECT_EQ(b, (std::vector<double>{30, 10, 20}));
}

// ------------------------------------------------------------- small cases

TEST(Triangulate, FewerThanThreeNodesLeaveTheArraysAlone) {
  net t = from({{0, 0}, {1, 1}});
  tt::build(t, false);
  EXPECT_EQ(t.status, 1);
  EXPECT_TRUE(std::all_of(t.adj.begin(), t.adj.end(), [](int32_t v) { return v == -7; }));
  EXPECT_TRUE(std::all_of(t.adj_end.begin(), t.adj_end.end(), [](int32_t v) { return v == -7; }));
}

TEST(Triangulate, ThreeNodesGiveThreeHullLists) {
  net t = from({{0, 0}, {1, 0}, {0, 1}});
  tt::build(t, false);
  ASSERT_EQ(t.status, 0);
  EXPECT_EQ(t.adj_end, (std::vector<int32_t>{3, 6, 9}));
  for (int32_t k = 1; k <= 3; ++k) {
    const auto v = tt::neighbours(t, k);
    ASSERT_EQ(v.size(), 3u);
    EXPECT_EQ(v[2], 0);
  }
  EXPECT_EQ(tt::check_triangulation(t, true), "");
}

TEST(Triangulate, CollinearNodesGiveStatus2AndTheirOrderAlongTheLine) {
  // Out of order along the line: before the left end, between, behind the right end.
  net t = from({{1, 1}, {2, 2}, {0, 0}, {1.5, 1.5}, {3, 3}, {0.5, 0.5}});
  const std::vector<int32_t> adj_before(t.adj);
  tt::build(t, false);
  EXPECT_EQ(t.status, 2);
  EXPECT_EQ(t.adj_end, (std::vector<int32_t>{3, 6, 1, 4, 2, 5}));
  EXPECT_TRUE(std::all_of(t.adj.begin(), t.adj.end(), [](int32_t v) { return v == -7; }));
}

TEST(Triangulate, CollinearStartThenANodeOffTheLineOnEitherSide) {
  for (double side : {1.0, -1.0}) {
    for (double off_x : {-1.0, 0.0, 1.5, 4.0, 9.0}) {
      // The line nodes come in a scrambled order; the last one is off the line.
      net t = from({{1, 0}, {2, 0}, {0, 0}, {1.5, 0}, {3, 0}, {0.5, 0}, {off_x, side}});
      tt::build(t, false);
      EXPECT_EQ(tt::check_triangulation(t, true), "") << side << " " << off_x;
      // A fan: the off-line node sees every line node, and the line nodes
      // join only their neighbours along the line.
      for (int32_t k = 1; k <= 6; ++k) EXPECT_TRUE(joined(t, 7, k));
      EXPECT_TRUE(joined(t, 3, 6));
      EXPECT_TRUE(joined(t, 6, 1));
      EXPECT_TRUE(joined(t, 1, 4));
      EXPECT_TRUE(joined(t, 4, 2));
      EXPECT_TRUE(joined(t, 2, 5));
      EXPECT_FALSE(joined(t, 3, 1));
      EXPECT_EQ(tt::hull_count(t), 7);
    }
  }
}

TEST(Triangulate, CollinearStartThenMoreNodesOnBothSides) {
  for (double side : {1.0, -1.0}) {
    net t = from({{0, 0}, {0, 1}, {0, 2}, {0, 3}, {side, 1.5}, {-side, 0.7}, {2 * side, 5},
                  {-3 * side, -1}, {0.1, 9}});
    tt::build(t, false);
    EXPECT_EQ(tt::check_triangulation(t, true), "") << side;
  }
}

TEST(Triangulate, FourCocircularNodesKeepTheFirstDiagonal) {
  // Sorted on x: (0,0), (0,1), (1,0), (1,1). The first triangle holds the
  // arc 2-3; node 4 lies exactly on its circumcircle, so the arc stays.
  net t = from({{0, 0}, {0, 1}, {1, 0}, {1, 1}});
  tt::build(t, true);
  ASSERT_EQ(tt::check_triangulation(t, true), "");
  EXPECT_TRUE(joined(t, 2, 3));
  EXPECT_FALSE(joined(t, 1, 4));
  // Slightly off the circle, the other diagonal wins.
  net u = from({{0, 0}, {0, 1}, {1, 0}, {1.0005, 0.998}});
  tt::build(u, true);
  ASSERT_EQ(tt::check_triangulation(u, true), "");
  EXPECT_TRUE(joined(u, 1, 4));
  EXPECT_FALSE(joined(u, 2, 3));
}

TEST(SwapTest, DecidesByTheOppositeAngles) {
  // out1 = (0,-1), out2 = (0,1); in1 left at (-a, 0), k right at (b, 0).
  auto decide = [](double a, double b) {
    std::vector<double> x{-a, b, 0, 0}, y{0, 0, -1, 1};
    return swap_test(1, 2, 3, 4, x, y);
  };
  EXPECT_FALSE(decide(1.0, 1.0));    // on one circle: keep
  EXPECT_FALSE(decide(2.0, 2.0));    // both angles acute
  EXPECT_TRUE(decide(0.5, 0.5));     // both obtuse
  EXPECT_TRUE(decide(0.5, 1.5));     // obtuse + acute, sum above 180
  EXPECT_FALSE(decide(3.0, 0.5));    // acute + obtuse, sum below 180
}

TEST(ShiftBlock, MovesBothWaysWithoutOverwritingItsSource) {
  std::vector<int32_t> a{1, 2, 3, 4, 5, 6, 7, 8};
  shift_block(2, 5, 2, a);
  EXPECT_EQ(a, (std::vector<int32_t>{1, 2, 3, 2, 3, 4, 5, 8}));
  shift_block(4, 7, -3, a);
  EXPECT_EQ(a, (std::vector<int32_t>{2, 3, 4, 5, 3, 4, 5, 8}));
  const auto keep = a;
  shift_block(3, 2, 1, a);
  shift_block(1, 8, 0, a);
  EXPECT_EQ(a, keep);
}

// ------------------------------------------------------------- large cases

TEST(Triangulate, RandomPointSetsAreDelaunay) {
  for (uint32_t seed = 1; seed <= 30; ++seed) {
    net t = tt::random_net(static_cast<int32_t>(3 + seed * 7), seed);
    tt::build(t);
    ASSERT_EQ(tt::check_triangulation(t, false), "") << "seed " << seed;
  }
}

TEST(Triangulate, UnsortedInputIsDelaunayToo) {
  net t = tt::random_net(400, 77);
  tt::build(t, false);
  EXPECT_EQ(tt::check_triangulation(t, false), "");
}

TEST(Triangulate, ThousandsOfPoints) {
  net t = tt::random_net(2500, 2024);
  tt::build(t);
  EXPECT_EQ(tt::check_triangulation(t, false), "");
  EXPECT_LE(t.adj_end.back(), 6 * t.n() - 9);
}

TEST(Triangulate, GridsFullOfCocircularQuads) {
  // Square and oblong grids, with integer coordinates so that every test is
  // exact: every cell is four points on one circle.
  for (auto [nx, ny, sx, sy] : {std::tuple{12, 9, 1.0, 1.0}, std::tuple{25, 25, 2.0, 3.0},
                                std::tuple{1, 40, 1.0, 1.0}, std::tuple{40, 2, 5.0, 1.0}}) {
    net t;
    std::vector<std::pair<double, double>> pts;
    for (int i = 0; i < nx + 1; ++i)
      for (int j = 0; j < ny + 1; ++j) pts.push_back({i * sx, j * sy});
    std::shuffle(pts.begin(), pts.end(), std::mt19937(3));
    t = from(pts);
    tt::build(t);
    EXPECT_EQ(tt::check_triangulation(t, true), "") << nx << " x " << ny;
    // Every grid node on the rim is on the hull.
    EXPECT_EQ(tt::hull_count(t), 2 * (nx + ny));
  }
}

TEST(Triangulate, ClustersAndWideRangesOfScale) {
  // Points at very different scales, and a rotated grid with near-ties.
  net t;
  std::mt19937 gen(9);
  std::normal_distribution<double> g(0.0, 1.0);
  for (int i = 0; i < 300; ++i) {
    const double s = (i % 3 == 0) ? 1e-3 : (i % 3 == 1 ? 1.0 : 1e3);
    t.x.push_back(s * g(gen));
    t.y.push_back(s * g(gen));
  }
  const double c = std::cos(0.3), s = std::sin(0.3);
  for (int i = 0; i < 15; ++i)
    for (int j = 0; j < 15; ++j) {
      t.x.push_back(5000 + c * i - s * j);
      t.y.push_back(s * i + c * j);
    }
  tt::build(t);
  EXPECT_EQ(tt::check_triangulation(t, false), "");
}

TEST(TriangulationCheck, CatchesANonDelaunayArc) {
  // The checker itself: a valid triangulation whose node then moves off the
  // circle the other way is no longer Delaunay, and a broken list is caught.
  net u = from({{0, 0}, {0, 1}, {1, 0}, {1.0005, 0.998}});
  tt::build(u, true);
  ASSERT_EQ(tt::check_triangulation(u, true), "");
  u.x[3] = 1.2;
  u.y[3] = 1.2;
  EXPECT_NE(tt::check_triangulation(u, true), "");
  net v = tt::random_net(50, 4);
  tt::build(v);
  ASSERT_EQ(tt::check_triangulation(v, false), "");
  std::swap(v.adj[10], v.adj[11]);
  EXPECT_NE(tt::check_triangulation(v, false), "");
}
