// Triangulation and surface, checked by their properties: lists, hull, fill level, empty
// circumcircles; a plane reproduced inside the hull, the nearest hull point's value outside.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "topo/surface.hpp"
#include "topo/triangulation.hpp"

using quolvent::tri_status;

namespace {

struct net {
  std::vector<double> x, y, z;
  std::vector<int32_t> adj, adj_end;
  tri_status status = tri_status::ok;
  int32_t n() const { return static_cast<int32_t>(x.size()); }
};

// build: sort on x (when asked) and triangulate, in arrays of the client's size. The
// sort must carry y and z alike (z = x + 2y).
net build(net t, bool sort = true) {
  const int32_t n = t.n();
  t.z.resize(t.x.size());
  for (int32_t i = 0; i < n; ++i) t.z[i] = t.x[i] + 2 * t.y[i];
  t.adj.assign(static_cast<std::size_t>(std::max(6 * n - 9, 1)), -7);
  t.adj_end.assign(static_cast<std::size_t>(std::max(n, 1)), -7);
  if (sort) quolvent::order_nodes(n, 3, t.x, t.y, t.z, t.adj_end);
  for (int32_t i = 0; sort && i < n; ++i) EXPECT_EQ(t.z[i], t.x[i] + 2 * t.y[i]) << i;
  quolvent::triangulate(n, t.x, t.y, t.adj, t.adj_end, t.status);
  return t;
}

net points(std::vector<double> x, std::vector<double> y) { return net{x, y, {}, {}, {}}; }

net random_net(int32_t n, uint32_t seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  net t;
  for (int32_t i = 0; i < n; ++i) t.x.push_back(u(gen)), t.y.push_back(u(gen));
  return t;
}

std::vector<int32_t> list(const net& t, int32_t k) {
  return {t.adj.begin() + (k == 1 ? 0 : t.adj_end[k - 2]), t.adj.begin() + t.adj_end[k - 1]};
}

// The entry behind a in k's list: cyclic for an interior node, 0 behind the
// last of a hull node; -1 when a is not in the list.
int32_t after(const net& t, int32_t k, int32_t a) {
  const auto v = list(t, k);
  const auto i = std::find(v.begin(), v.end(), a);
  return i == v.end() ? -1 : (i + 1 == v.end() ? v.front() : *(i + 1));
}

long double orient(const net& t, int32_t a, int32_t b, int32_t c) {
  const long double ax = t.x[a - 1], ay = t.y[a - 1];
  return (t.x[b - 1] - ax) * (t.y[c - 1] - ay) - (t.y[b - 1] - ay) * (t.x[c - 1] - ax);
}

// The first property of a Delaunay triangulation that fails, or "".
std::string check(const net& t) {
  const int32_t n = t.n();
  if (t.status != tri_status::ok) return "status " + std::to_string(static_cast<int>(t.status));
  int32_t h = 0, end = 0;
  for (int32_t k = 1; k <= n; ++k) {
    if (t.adj_end[k - 1] < end + 2 || t.adj_end[k - 1] > std::ssize(t.adj)) return "list ends";
    end = t.adj_end[k - 1];
    h += t.adj[end - 1] == 0;  // a hull node
  }
  // With the fill level of a plane triangulation, no list can wrap twice.
  if (end != 6 * n - 6 - h) return "fill level " + std::to_string(end);
  for (int32_t k = 1; k <= n; ++k) {
    const std::string at = " at node " + std::to_string(k);
    const auto v = list(t, k);
    const bool hull = v.back() == 0;
    for (std::size_t i = 0; i + hull < v.size(); ++i) {
      const int32_t a = v[i], b = i + 1 < v.size() ? v[i + 1] : v[0];
      if (a < 1 || a > n || a == k || std::count(v.begin(), v.end(), a) != 1) return "entry" + at;
      if (b == 0) continue;
      if (!(orient(t, k, a, b) > 0)) return "not counterclockwise" + at;
      if (after(t, a, b) != k || after(t, b, k) != a) return "neighbours disagree" + at;
      // The circumcircle of (k, a, b), centre relative to k, holds no node.
      const long double ax = t.x[a - 1] - t.x[k - 1], ay = t.y[a - 1] - t.y[k - 1];
      const long double bx = t.x[b - 1] - t.x[k - 1], by = t.y[b - 1] - t.y[k - 1];
      const long double a2 = ax * ax + ay * ay, b2 = bx * bx + by * by, d = 2 * (ax * by - ay * bx);
      const long double ux = (by * a2 - ay * b2) / d, uy = (ax * b2 - bx * a2) / d;
      for (int32_t m = 1; a > k && b > k && m <= n; ++m) {  // each triangle once
        const long double dx = t.x[m - 1] - t.x[k - 1] - ux, dy = t.y[m - 1] - t.y[k - 1] - uy;
        if (dx * dx + dy * dy < (ux * ux + uy * uy) * (1 - 1e-9L)) return "circumcircle" + at;
      }
    }
    if (hull && after(t, v[0], k) != 0) return "hull chain broken" + at;
    for (int32_t m = 1; hull && m <= n; ++m)
      if (orient(t, k, v[0], m) < 0) return "node outside the hull" + at;
  }
  return "";
}

}  // namespace

TEST(Triangulate, PointSetsGiveDelaunayTriangulations) {
  std::vector<std::pair<net, bool>> sets{{points({0, 1, 0}, {0, 0, 1}), false}};
  // Collinear starts scrambled along the line, then one node off it (a fan) or nodes on both sides.
  for (double side : {1.0, -1.0}) {
    for (double off : {-1.0, 1.5, 9.0})
      sets.push_back({points({1, 2, 0, 1.5, 3, 0.5, off}, {0, 0, 0, 0, 0, 0, side}), false});
    sets.push_back({points({0, 0, 0, 0, side, -side, 2 * side, -3 * side, 0.1},
                           {0, 1, 2, 3, 1.5, 0.7, 5, -1, 9}), false});
  }
  // Random nets, half in the sorted order the program gives them and half as they come (nodes
  // inside the hull so far: the insertion inside a triangle).
  for (uint32_t s = 1; s <= 30; ++s) sets.push_back({random_net(3 + 7 * s, s), s % 2 == 0});
  // A grid, every cell four cocircular nodes: equality keeps the diagonal, no swap loop.
  net grid;
  for (int i = 0; i <= 40; ++i)
    for (int j = 0; j <= 25; ++j) grid.x.push_back(5 * i), grid.y.push_back(3 * j);
  sets.push_back({grid, true});
  for (const auto& [t, sort] : sets) EXPECT_EQ(check(build(t, sort)), "") << t.n() << " nodes";
}

TEST(Triangulate, FewNodesCollinearNodesAndCocircularQuads) {
  const net two = build(points({0, 1}, {0, 1}), false);
  EXPECT_TRUE(two.status == tri_status::too_few && two.adj_end == std::vector<int32_t>(2, -7));
  // All on one line: collinear, adj untouched, adj_end their order along it.
  const net line = build(points({1, 2, 0, 1.5, 3, 0.5}, {1, 2, 0, 1.5, 3, 0.5}), false);
  EXPECT_TRUE(line.status == tri_status::collinear);
  EXPECT_EQ(line.adj_end, (std::vector<int32_t>{3, 6, 1, 4, 2, 5}));
  // Cocircular, acute and obtuse across the arc 2-3: it stays.
  const net quad = build(points({-5, 3, 4, 5}, {0, 4, -3, 0}));
  EXPECT_EQ(check(quad), "");
  EXPECT_GT(after(quad, 2, 3), 0);
  // The checker sees a node moved into a circumcircle and a list out of order.
  net moved = quad, broken = build(random_net(50, 4));
  moved.x[3] = 4.9;
  std::swap(broken.adj[10], broken.adj[11]);
  EXPECT_TRUE(check(moved).starts_with("circumcircle") && check(broken) != "");
}

// Nodes on a plane in a hull of random shape: inside, the plane; outside, the plane at the
// nearest point of the hull arcs, by brute force. Searches from any start agree.
TEST(EvalSurface, PlaneInsideNearestHullPointOutsideAndTheSameFromAnyStart) {
  const auto plane = [](double x, double y) { return 12.5 - 3.0 * x + 7.25 * y; };
  net t = build(random_net(300, 21));
  for (int32_t k = 0; k < t.n(); ++k) t.z[k] = plane(t.x[k], t.y[k]);
  net r = t;  // the same nodes with random values, for the starts
  std::mt19937 gen(1);
  for (auto& z : r.z) z = std::uniform_real_distribution<double>(50, 100)(gen);
  const auto at = [](const net& n, double px, double py, int32_t& ist) {
    double pz = -1.0;
    auto st = quolvent::surface_status::unusable;
    quolvent::eval_surface(n.n(), px, py, n.x, n.y, n.z, n.adj, n.adj_end, ist, pz, st);
    return std::pair{pz, st};
  };
  int32_t carried = 1;
  for (int i = 0; i < 61 * 61; ++i) {
    const double px = -0.5 + i / 61 / 30.0, py = -0.5 + i % 61 / 30.0;
    int32_t one = 1, fresh = 1;
    const auto [pz, st] = at(t, px, py, one);
    const auto c = at(r, px, py, carried), fr = at(r, px, py, fresh);
    ASSERT_TRUE(c.second == fr.second && std::fabs(c.first - fr.first) < 1e-9) << px << " " << py;
    double best = 1e300, value = plane(px, py);
    for (int32_t a = 1; st == quolvent::surface_status::outside && a <= t.n(); ++a) {
      const auto v = list(t, a);
      const double ax = t.x[a - 1], ay = t.y[a - 1];
      const double dx = t.x[v[0] - 1] - ax, dy = t.y[v[0] - 1] - ay, l2 = dx * dx + dy * dy;
      const double f = std::clamp(((px - ax) * dx + (py - ay) * dy) / l2, 0.0, 1.0);
      const double d = std::hypot(ax + f * dx - px, ay + f * dy - py);
      if (v.back() == 0 && d < best) best = d, value = plane(ax + f * dx, ay + f * dy);
    }
    ASSERT_NEAR(pz, value, 1e-9) << px << " " << py << " status " << static_cast<int>(st);
  }
}
