#include "tri_check.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <set>
#include <utility>

#include "topo/triangulation.hpp"

namespace tt {

void build(net& t, bool sort) {
  const int32_t n = t.n();
  if (t.z.size() != t.x.size()) t.z.assign(t.x.size(), 0.0);
  t.adj.assign(static_cast<std::size_t>(std::max(6 * n - 9, 1)), -7);
  t.adj_end.assign(static_cast<std::size_t>(std::max(n, 1)), -7);
  if (sort) order_nodes(n, 3, t.x, t.y, t.z, t.adj_end);
  triangulate(n, t.x, t.y, t.adj, t.adj_end, t.status);
}

std::vector<int32_t> neighbours(const net& t, int32_t k) {
  const int32_t start = k == 1 ? 1 : t.adj_end[static_cast<std::size_t>(k - 2)] + 1;
  const int32_t end = t.adj_end[static_cast<std::size_t>(k - 1)];
  std::vector<int32_t> v;
  for (int32_t p = start; p <= end; ++p) v.push_back(t.adj[static_cast<std::size_t>(p - 1)]);
  return v;
}

int32_t hull_count(const net& t) {
  int32_t h = 0;
  for (int32_t k = 1; k <= t.n(); ++k) {
    const auto v = neighbours(t, k);
    if (!v.empty() && v.back() == 0) ++h;
  }
  return h;
}

namespace {

// Orientation of (a, b, c) in long double: > 0 counterclockwise.
long double orient(const net& t, int32_t a, int32_t b, int32_t c) {
  auto X = [&](int32_t i) { return static_cast<long double>(t.x[static_cast<std::size_t>(i - 1)]); };
  auto Y = [&](int32_t i) { return static_cast<long double>(t.y[static_cast<std::size_t>(i - 1)]); };
  return (X(b) - X(a)) * (Y(c) - Y(a)) - (Y(b) - Y(a)) * (X(c) - X(a));
}

// In-circle determinant of d against the counterclockwise (a, b, c): > 0
// inside. scale: the magnitude of its terms, for a tolerance.
long double incircle(const net& t, int32_t a, int32_t b, int32_t c, int32_t d, long double& scale) {
  auto X = [&](int32_t i) { return static_cast<long double>(t.x[static_cast<std::size_t>(i - 1)]); };
  auto Y = [&](int32_t i) { return static_cast<long double>(t.y[static_cast<std::size_t>(i - 1)]); };
  const long double adx = X(a) - X(d), ady = Y(a) - Y(d);
  const long double bdx = X(b) - X(d), bdy = Y(b) - Y(d);
  const long double cdx = X(c) - X(d), cdy = Y(c) - Y(d);
  const long double al = adx * adx + ady * ady, bl = bdx * bdx + bdy * bdy,
                    cl = cdx * cdx + cdy * cdy;
  scale = (std::fabs(adx) + std::fabs(ady)) * (std::fabs(bdx) + std::fabs(bdy)) * cl +
          (std::fabs(bdx) + std::fabs(bdy)) * (std::fabs(cdx) + std::fabs(cdy)) * al +
          (std::fabs(cdx) + std::fabs(cdy)) * (std::fabs(adx) + std::fabs(ady)) * bl;
  return al * (bdx * cdy - cdx * bdy) + bl * (cdx * ady - adx * cdy) + cl * (adx * bdy - bdx * ady);
}

std::string at(int32_t k) { return " (node " + std::to_string(k) + ")"; }

}  // namespace

std::string check_triangulation(const net& t, bool exact) {
  const int32_t n = t.n();
  if (t.status != 0) return "status " + std::to_string(t.status);
  // Pointers grow, and the fill level is 6n - 6 - h.
  int32_t prev = 0;
  for (int32_t k = 1; k <= n; ++k) {
    const int32_t e = t.adj_end[static_cast<std::size_t>(k - 1)];
    if (e <= prev + 1) return "list too short" + at(k);
    prev = e;
  }
  const int32_t h = hull_count(t);
  if (t.adj_end[static_cast<std::size_t>(n - 1)] != 6 * n - 6 - h)
    return "fill level " + std::to_string(t.adj_end[static_cast<std::size_t>(n - 1)]) +
           " for n " + std::to_string(n) + ", h " + std::to_string(h);

  std::set<std::pair<int32_t, int32_t>> arcs;
  std::set<std::pair<int32_t, int32_t>> hull_arcs;
  std::vector<std::array<int32_t, 3>> tris;
  for (int32_t k = 1; k <= n; ++k) {
    const auto v = neighbours(t, k);
    const bool hull = v.back() == 0;
    const std::size_t m = hull ? v.size() - 1 : v.size();
    for (std::size_t i = 0; i < m; ++i) {
      if (v[i] < 1 || v[i] > n || v[i] == k) return "bad entry" + at(k);
      if (!arcs.insert({k, v[i]}).second) return "repeated neighbour" + at(k);
    }
    if (hull) hull_arcs.insert({k, v[0]});
    // Adjacent entries: counterclockwise triangles; an interior node's list
    // turns exactly once around it.
    double turn = 0.0;
    const std::size_t pairs = hull ? m - 1 : m;
    for (std::size_t i = 0; i < pairs; ++i) {
      const int32_t a = v[i], b = v[(i + 1) % m];
      if (!(orient(t, k, a, b) > 0)) return "not counterclockwise" + at(k);
      const double ax = t.x[static_cast<std::size_t>(a - 1)] - t.x[static_cast<std::size_t>(k - 1)];
      const double ay = t.y[static_cast<std::size_t>(a - 1)] - t.y[static_cast<std::size_t>(k - 1)];
      const double bx = t.x[static_cast<std::size_t>(b - 1)] - t.x[static_cast<std::size_t>(k - 1)];
      const double by = t.y[static_cast<std::size_t>(b - 1)] - t.y[static_cast<std::size_t>(k - 1)];
      turn += std::atan2(ax * by - ay * bx, ax * bx + ay * by);
      if (k < a && k < b) tris.push_back({k, a, b});
    }
    const double full = 2.0 * std::acos(-1.0);
    if (!hull && std::fabs(turn - full) > 1e-6) return "interior list not one turn" + at(k);
    if (hull && turn > full / 2 + 1e-9) return "hull node turn above 180 degrees" + at(k);
  }
  // Symmetry, and each triangle seen alike from its three corners.
  for (const auto& [a, b] : arcs)
    if (!arcs.count({b, a})) return "arc not symmetric" + at(a);
  if (static_cast<int32_t>(tris.size()) != 2 * n - 2 - h) return "triangle count";
  for (const auto& tr : tris) {
    for (int c = 0; c < 3; ++c) {
      const int32_t k = tr[static_cast<std::size_t>(c)];
      const int32_t a = tr[static_cast<std::size_t>((c + 1) % 3)];
      const int32_t b = tr[static_cast<std::size_t>((c + 2) % 3)];
      const auto v = neighbours(t, k);
      const std::size_t m = v.back() == 0 ? v.size() - 1 : v.size();
      const auto ia = std::find(v.begin(), v.begin() + static_cast<long>(m), a) - v.begin();
      const bool cyclic = v.back() != 0;
      const std::size_t nx = static_cast<std::size_t>(ia) + 1;
      const int32_t after = nx < m ? v[nx] : (cyclic ? v[0] : -1);
      if (after != b) return "triangle lists disagree" + at(k);
    }
  }
  // Hull: each hull arc has every node on or left of it; hull arcs chain.
  for (const auto& [a, b] : hull_arcs) {
    const auto vb = neighbours(t, b);
    if (vb.back() != 0 || vb[vb.size() - 2] != a) return "hull chain broken" + at(b);
    for (int32_t m = 1; m <= n; ++m)
      if (orient(t, a, b, m) < 0) return "node outside a hull arc" + at(m);
  }
  // Empty circumcircles, by brute force: a quick test against the circle's
  // centre and radius, and the in-circle determinant for every node near or
  // inside the circle.
  std::vector<long double> px(static_cast<std::size_t>(n)), py(static_cast<std::size_t>(n));
  for (std::size_t i = 0; i < px.size(); ++i) {
    px[i] = t.x[i];
    py[i] = t.y[i];
  }
  for (const auto& tr : tris) {
    const long double ax = px[tr[0] - 1], ay = py[tr[0] - 1];
    const long double bx = px[tr[1] - 1] - ax, by = py[tr[1] - 1] - ay;
    const long double cx = px[tr[2] - 1] - ax, cy = py[tr[2] - 1] - ay;
    const long double d = 2 * (bx * cy - by * cx);
    const long double b2 = bx * bx + by * by, c2 = cx * cx + cy * cy;
    const long double ux = (cy * b2 - by * c2) / d, uy = (bx * c2 - cx * b2) / d;
    const long double r2 = ux * ux + uy * uy;
    for (int32_t m = 1; m <= n; ++m) {
      const long double dx = px[static_cast<std::size_t>(m - 1)] - ax - ux;
      const long double dy = py[static_cast<std::size_t>(m - 1)] - ay - uy;
      if (dx * dx + dy * dy > r2 * (1 + 1e-6L)) continue;
      if (m == tr[0] || m == tr[1] || m == tr[2]) continue;
      long double scale = 0;
      const long double in = incircle(t, tr[0], tr[1], tr[2], m, scale);
      const long double tol = exact ? 0.0L : 1e-12L * scale;
      if (in > tol) return "node " + std::to_string(m) + " inside a circumcircle";
    }
  }
  return "";
}

net random_net(int32_t n, uint32_t seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  net t;
  std::set<std::pair<double, double>> seen;
  while (t.n() < n) {
    const double x = u(gen), y = u(gen);
    if (!seen.insert({x, y}).second) continue;
    t.x.push_back(x);
    t.y.push_back(y);
    t.z.push_back(0.0);
  }
  return t;
}

}  // namespace tt
