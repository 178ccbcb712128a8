// Point location by a walk through the triangulation, and the surface
// through the node values.
#include "topo/surface.hpp"

#include <algorithm>

#include "topo/triangulation.hpp"

namespace quolvent {

void find_triangle(int32_t nst, double px, double py, std::span<const double> tx,
                   std::span<const double> ty, std::span<const int32_t> adj,
                   std::span<const int32_t> adj_end, int32_t& i1, int32_t& i2, int32_t& i3) {
  auto X = [&](int32_t i) { return tx[static_cast<std::size_t>(i - 1)]; };
  auto Y = [&](int32_t i) { return ty[static_cast<std::size_t>(i - 1)]; };
  auto A = [&](int32_t p) { return adj[static_cast<std::size_t>(p - 1)]; };
  auto E = [&](int32_t k) { return adj_end[static_cast<std::size_t>(k - 1)]; };
  auto first_of = [&](int32_t k) { return k == 1 ? 1 : E(k - 1) + 1; };
  // lft(a, b): p on or left of the directed line from node a to node b.
  auto lft = [&](int32_t a, int32_t b) { return left(X(a), Y(a), X(b), Y(b), px, py); };

  int32_t n0 = std::max(nst, 1);
  int32_t nf = 0, nl = 0, n1 = 0, n2 = 0, n3 = 0, n4 = 0, indx = 0, next = 0;
  // A walk through a sound triangulation visits each triangle and hull node
  // at most once. Coordinates whose arithmetic overflows can make the tests
  // contradict each other; a walk longer than the lists themselves then ends
  // with the no-location result instead of running forever.
  int64_t budget = 4 * static_cast<int64_t>(adj.size()) + 64;
  auto worn_out = [&] { return --budget < 0; };

step1:
  if (worn_out()) goto lost;
  // A cone at n0 that holds p.
  indx = E(n0);
  nl = A(indx);
  nf = A(first_of(n0));
  if (nl == 0) {
    // n0 on the hull.
    nl = A(indx - 1);
    if (!lft(n0, nf)) {
      nl = n0;
      goto step7;
    }
    if (!lft(nl, n0)) {
      i1 = n0;
      goto step8;
    }
    n1 = nf;
    indx = first_of(n0);
  } else {
    // n0 interior: the first ray with p on or left of it.
    n1 = nf;
    indx = first_of(n0);
    while (!lft(n0, n1)) {
      if (worn_out()) goto lost;
      ++indx;
      n1 = A(indx);
      if (n1 == nl) {
        n2 = nf;
        goto step5;
      }
    }
  }
  // Turn counterclockwise until p lies right of a ray.
  while (n1 != nl) {
    if (worn_out()) goto lost;
    n2 = A(indx + 1);
    if (!lft(n0, n2)) goto step5;
    ++indx;
    n1 = n2;
  }
  // p on or left of every ray from nf to nl.
  if (!lft(n0, nf)) {
    n2 = nf;
    goto step5;
  }
  if (px == X(n0) && py == Y(n0)) {
    n0 = n1;
    goto step1;
  }
  for (indx = E(n0) - (A(E(n0)) == 0 ? 1 : 0); indx >= first_of(n0); --indx) {
    n1 = A(indx);
    if (!lft(n1, n0)) {
      n0 = n1;
      goto step1;
    }
  }
  // Every node and p on one line.
lost:
  i1 = 0;
  i2 = 0;
  i3 = 0;
  return;

step5:
  // p in the cone at n0 between the adjacent n1 and n2: cross arcs away
  // from n0 until p is left of n1 -> n2.
  n3 = n0;
  while (!lft(n1, n2)) {
    if (worn_out()) goto lost;
    const int32_t q = list_index(n2, n1, adj, adj_end);
    n4 = q == E(n2) ? A(first_of(n2)) : A(q + 1);
    if (n4 == 0) {
      // n1 -> n2 is a hull arc that p sees.
      nf = n2;
      nl = n1;
      goto step7;
    }
    if (lft(n0, n4)) {
      n3 = n1;
      n1 = n4;
    } else {
      n3 = n2;
      n2 = n4;
    }
  }
  // p in the triangle (n1, n2, n3); a hull arc that holds p counts as outside.
  if (A(E(n1)) == 0) {
    if (A(E(n1) - 1) == n3 && lft(n1, n3)) {
      i1 = n1;
      i2 = n3;
      i3 = 0;
      return;
    }
    if (A(first_of(n1)) == n2 && lft(n2, n1)) {
      i1 = n2;
      i2 = n1;
      i3 = 0;
      return;
    }
  }
  i1 = n1;
  i2 = n2;
  i3 = n3;
  return;

step7:
  // nf, nl adjacent visible hull nodes: walk counterclockwise to the
  // rightmost visible node.
  for (;;) {
    if (worn_out()) goto lost;
    next = A(first_of(nf));
    if (lft(nf, next)) break;
    nf = next;
  }
  i1 = nf;

step8:
  // And clockwise to the leftmost.
  for (;;) {
    if (worn_out()) goto lost;
    next = A(E(nl) - 1);
    if (lft(next, nl)) break;
    nl = next;
  }
  i2 = nl;
  i3 = 0;
}

void eval_surface(int32_t n, double px, double py, std::span<const double> tx,
                  std::span<const double> ty, std::span<const double> tz,
                  std::span<const int32_t> adj, std::span<const int32_t> adj_end, int32_t& ist,
                  double& pz, surface_status& status) {
  if (n < 3 || ist < 1 || ist > n) {
    pz = 0.0;
    status = surface_status::unusable;
    return;
  }
  int32_t i1 = 0, i2 = 0, i3 = 0;
  find_triangle(ist, px, py, tx, ty, adj, adj_end, i1, i2, i3);
  if (i1 == 0) {
    pz = 0.0;
    status = surface_status::no_triangle;
    return;
  }
  ist = i1;
  auto X = [&](int32_t i) { return tx[static_cast<std::size_t>(i - 1)]; };
  auto Y = [&](int32_t i) { return ty[static_cast<std::size_t>(i - 1)]; };
  auto Z = [&](int32_t i) { return tz[static_cast<std::size_t>(i - 1)]; };

  if (i3 != 0) {
    const double x1 = X(i1), y1 = Y(i1), z1 = Z(i1);
    const double x2 = X(i2), y2 = Y(i2), z2 = Z(i2);
    const double x3 = X(i3), y3 = Y(i3), z3 = Z(i3);
    const double det = (x3 - x2) * (y1 - y3) - (x1 - x3) * (y3 - y2);
    if (det == 0.0) {
      pz = 0.0;
      status = surface_status::no_triangle;
      return;
    }
    // A flat triangle is flat: its elevation as it stands, not a weighted sum
    // that rounding may put a hair below a layer boundary.
    if (z1 == z2 && z2 == z3) {
      pz = z1;
      status = surface_status::inside;
      return;
    }
    // Barycentric weights, each from differences taken at a vertex.
    const double w1 = ((x3 - x2) * (py - y2) - (y3 - y2) * (px - x2)) / det;
    const double w2 = ((x1 - x3) * (py - y1) - (y1 - y3) * (px - x1)) / det;
    const double w3 = ((x2 - x1) * (py - y1) - (y2 - y1) * (px - x1)) / det;
    pz = (w1 * z1 + w2 * z2) + w3 * z3;
    status = surface_status::inside;
    return;
  }

  // Outside: along the visible chain, clockwise from i1, to the arc or node
  // nearest to p.
  auto A = [&](int32_t p) { return adj[static_cast<std::size_t>(p - 1)]; };
  auto E = [&](int32_t k) { return adj_end[static_cast<std::size_t>(k - 1)]; };
  // A sound hull ends the walk within the visible chain; contradicting tests
  // (arithmetic overflow) end it after one round of the hull.
  int32_t n1 = i1;
  for (int32_t steps = 0;; ++steps) {
    if (steps > n) {
      pz = 0.0;
      status = surface_status::no_triangle;
      return;
    }
    const int32_t n2 = A(E(n1) - 1);
    const double x1 = X(n1), y1 = Y(n1), x2 = X(n2), y2 = Y(n2);
    const double dp = (px - x1) * (x2 - x1) + (py - y1) * (y2 - y1);
    if (dp <= 0.0) {
      // p projects behind n1: the node itself is nearest.
      pz = Z(n1);
      status = surface_status::outside;
      return;
    }
    if ((px - x2) * (x1 - x2) + (py - y2) * (y1 - y2) > 0.0) {
      const double t = dp / ((x2 - x1) * (x2 - x1) + (y2 - y1) * (y2 - y1));
      // An arc with one elevation at both ends gives that elevation exactly.
      pz = Z(n1) == Z(n2) ? Z(n1) : t * Z(n2) + (1.0 - t) * Z(n1);
      status = surface_status::outside;
      return;
    }
    n1 = n2;
  }
}

}  // namespace quolvent
