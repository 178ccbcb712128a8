#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "topo/surface.hpp"
#include "topo/triangulation.hpp"
#include "tri_check.hpp"

using tt::net;

namespace {

double plane(double x, double y) { return 12.5 - 3.0 * x + 7.25 * y; }

// A unit square with its four corners and random points strictly inside,
// valued on the plane above.
net square_net(int32_t inner, uint32_t seed) {
  net t;
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> u(0.01, 0.99);
  for (auto [x, y] : {std::pair{0.0, 0.0}, {1.0, 0.0}, {0.0, 1.0}, {1.0, 1.0}}) {
    t.x.push_back(x);
    t.y.push_back(y);
  }
  for (int32_t i = 0; i < inner; ++i) {
    t.x.push_back(u(gen));
    t.y.push_back(u(gen));
  }
  for (std::size_t i = 0; i < t.x.size(); ++i) t.z.push_back(plane(t.x[i], t.y[i]));
  tt::build(t);
  return t;
}

struct eval {
  double pz;
  int32_t status;
};

eval at(const net& t, double px, double py, int32_t& ist) {
  eval e{-1.0, -9};
  eval_surface(t.n(), px, py, t.x, t.y, t.z, t.adj, t.adj_end, ist, e.pz, e.status);
  return e;
}

eval at(const net& t, double px, double py) {
  int32_t ist = 1;
  return at(t, px, py, ist);
}

// Nearest point of the segment a-b to p.
std::pair<double, double> nearest_on(double ax, double ay, double bx, double by, double px,
                                     double py) {
  const double dx = bx - ax, dy = by - ay;
  double s = ((px - ax) * dx + (py - ay) * dy) / (dx * dx + dy * dy);
  s = std::clamp(s, 0.0, 1.0);
  return {ax + s * dx, ay + s * dy};
}

}  // namespace

TEST(Left, TiesCountAsLeft) {
  EXPECT_TRUE(left(0, 0, 1, 0, 0.5, 1));
  EXPECT_FALSE(left(0, 0, 1, 0, 0.5, -1));
  EXPECT_TRUE(left(0, 0, 1, 0, 7, 0));
  EXPECT_TRUE(left(0, 0, 1, 1, 0, 0));
}

TEST(EvalSurface, ReproducesAPlaneInsideTheHull) {
  const net t = square_net(200, 4);
  std::mt19937 gen(8);
  std::uniform_real_distribution<double> u(0.0001, 0.9999);
  for (int i = 0; i < 2000; ++i) {
    const double x = u(gen), y = u(gen);
    const eval e = at(t, x, y);
    ASSERT_EQ(e.status, 0) << x << " " << y;
    ASSERT_NEAR(e.pz, plane(x, y), 1e-10);
  }
}

TEST(EvalSurface, NodeValuesExactlyAtInteriorNodes) {
  const net t = square_net(60, 5);
  for (int32_t k = 1; k <= t.n(); ++k) {
    const double x = t.x[k - 1], y = t.y[k - 1];
    if (x == 0.0 || x == 1.0 || y == 0.0 || y == 1.0) continue;
    const eval e = at(t, x, y);
    EXPECT_EQ(e.status, 0);
    EXPECT_NEAR(e.pz, t.z[k - 1], 1e-12);
  }
}

TEST(EvalSurface, OutsideTakesTheNearestHullPoint) {
  // A hull of random shape: a random cloud, values on the plane. Outside, the
  // value is the plane at the nearest point of the hull, found by brute force
  // over the hull arcs.
  net t = tt::random_net(150, 21);
  for (std::size_t i = 0; i < t.x.size(); ++i) t.z[i] = plane(t.x[i], t.y[i]);
  tt::build(t);
  std::vector<std::pair<int32_t, int32_t>> arcs;
  for (int32_t k = 1; k <= t.n(); ++k) {
    const auto v = tt::neighbours(t, k);
    if (v.back() == 0) arcs.push_back({k, v.front()});
  }
  std::mt19937 gen(3);
  std::uniform_real_distribution<double> u(-2.0, 3.0);
  int outside = 0;
  for (int i = 0; i < 3000; ++i) {
    const double px = u(gen), py = u(gen);
    int32_t ist = 1;
    const eval e = at(t, px, py, ist);
    if (e.status == 0) continue;
    ++outside;
    ASSERT_EQ(e.status, 1);
    double best = 1e300, value = 0.0;
    for (auto [a, b] : arcs) {
      const auto [qx, qy] =
          nearest_on(t.x[a - 1], t.y[a - 1], t.x[b - 1], t.y[b - 1], px, py);
      const double d = std::hypot(qx - px, qy - py);
      if (d < best) {
        best = d;
        value = plane(qx, qy);
      }
    }
    ASSERT_NEAR(e.pz, value, 1e-9) << px << " " << py;
  }
  EXPECT_GT(outside, 1000);
}

TEST(EvalSurface, BehindANodeAndBehindTheMiddleOfAnArc) {
  const net t = square_net(30, 6);
  // In the wedge behind a corner: that corner's value.
  EXPECT_EQ(at(t, 1.5, 1.2).pz, plane(1, 1));
  EXPECT_EQ(at(t, -0.5, -3.0).pz, plane(0, 0));
  EXPECT_EQ(at(t, -0.5, -3.0).status, 1);
  // Behind the middle of an arc: the mean of its two ends.
  const eval e = at(t, 0.5, -2.0);
  EXPECT_EQ(e.status, 1);
  EXPECT_NEAR(e.pz, 0.5 * (plane(0, 0) + plane(1, 0)), 1e-12);
  EXPECT_NEAR(at(t, 7.0, 0.25).pz, plane(1, 0.25), 1e-12);
}

TEST(EvalSurface, OnAHullArcIsOutside) {
  const net t = square_net(30, 7);
  const eval e = at(t, 0.0, 0.375);
  EXPECT_EQ(e.status, 1);
  EXPECT_NEAR(e.pz, plane(0.0, 0.375), 1e-12);
  const eval f = at(t, 0.625, 1.0);
  EXPECT_EQ(f.status, 1);
  EXPECT_NEAR(f.pz, plane(0.625, 1.0), 1e-12);
}

TEST(EvalSurface, CarriedStartGivesTheSameValuesAsAFreshStart) {
  net t = tt::random_net(800, 31);
  std::mt19937 gen(1);
  for (auto& z : t.z) z = std::uniform_real_distribution<double>(50, 100)(gen);
  tt::build(t);
  int32_t ist = 1;
  for (int i = 0; i <= 60; ++i) {
    for (int j = 0; j <= 60; ++j) {
      const double px = -0.1 + 1.2 * i / 60.0, py = -0.1 + 1.2 * j / 60.0;
      const eval carried = at(t, px, py, ist);
      const eval fresh = at(t, px, py);
      ASSERT_EQ(carried.status, fresh.status);
      ASSERT_NEAR(carried.pz, fresh.pz, 1e-9);
      ASSERT_GE(ist, 1);
      ASSERT_LE(ist, t.n());
    }
  }
}

TEST(EvalSurface, BadStartsAndTooFewNodes) {
  const net t = square_net(10, 8);
  int32_t ist = 0;
  eval e = at(t, 0.5, 0.5, ist);
  EXPECT_EQ(e.status, -1);
  EXPECT_EQ(e.pz, 0.0);
  EXPECT_EQ(ist, 0);
  ist = t.n() + 1;
  e = at(t, 0.5, 0.5, ist);
  EXPECT_EQ(e.status, -1);
  EXPECT_EQ(ist, t.n() + 1);

  net two;
  two.x = {0, 1};
  two.y = {0, 1};
  two.z = {5, 6};
  two.adj = {0};
  two.adj_end = {0, 0};
  int32_t one = 1;
  double pz = -1;
  int32_t st = 0;
  eval_surface(2, 0.5, 0.5, two.x, two.y, two.z, two.adj, two.adj_end, one, pz, st);
  EXPECT_EQ(st, -1);
  EXPECT_EQ(pz, 0.0);
}

TEST(FindTriangle, StartsBelowOneCountAsOne) {
  const net t = square_net(40, 9);
  int32_t a1, a2, a3, b1, b2, b3;
  find_triangle(-5, 0.3, 0.6, t.x, t.y, t.adj, t.adj_end, a1, a2, a3);
  find_triangle(1, 0.3, 0.6, t.x, t.y, t.adj, t.adj_end, b1, b2, b3);
  EXPECT_EQ(std::tie(a1, a2, a3), std::tie(b1, b2, b3));
  EXPECT_NE(a3, 0);
}
