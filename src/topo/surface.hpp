// Point location in the triangulation of triangulation.hpp, and the
// piecewise-linear surface through the node values, extended beyond the hull
// to the value at the nearest hull point.
//
// Numbering as in triangulation.hpp: node numbers and list positions are
// 1-based values, storage is 0-based (node k at tx[k-1]).
#pragma once

#include <cstdint>
#include <span>

namespace quolvent {

// surface_status: how a surface value was found, or why there is none.
enum class surface_status {
  inside,       // inside the hull: linear in its triangle
  outside,      // outside the hull or on a hull arc: the nearest hull point's value
  unusable,     // fewer than 3 nodes, or a search start outside 1..n
  no_triangle,  // collinear nodes, or a triangle of zero area
};

// left
//   Given:   the points a, b and p.
//   Returns: true when p lies on or to the left of the directed line from a
//            to b, by the exact comparison (bx - ax)(py - ay) >= (px - ax)(by - ay);
//            ties count as left.
//   Fails:   never.
inline bool left(double ax, double ay, double bx, double by, double px, double py) {
  return (bx - ax) * (py - ay) >= (px - ax) * (by - ay);
}

// find_triangle
//   Given:   the start node nst (below 1 counts as 1), the point (px, py), a
//            triangulation.
//   Returns: i1, i2, i3: p inside, the vertices of a triangle holding it,
//            counterclockwise; p outside the hull or on a hull arc, i1 the
//            rightmost and i2 the leftmost hull node visible from p, i3 = 0; all
//            nodes and p on one line, i1 = i2 = i3 = 0. Allocates nothing.
//   Fails:   only by the collinear result.
void find_triangle(int32_t nst, double px, double py, std::span<const double> tx,
                   std::span<const double> ty, std::span<const int32_t> adj,
                   std::span<const int32_t> adj_end, int32_t& i1, int32_t& i2, int32_t& i3);

// eval_surface
//   Given:   n nodes with values tz, their triangulation, the point (px, py),
//            the search start ist (in and out).
//   Returns: pz and status: inside, linear in its triangle; outside (or on a
//            hull arc), the value at the nearest hull point. A triangle or
//            hull arc whose corners have one value gives exactly that value. On
//            success ist becomes a node of the triangle or arc found, so that
//            the next search starts nearby.
//   Fails:   by status alone, never stops the run: unusable for n < 3 or ist
//            outside 1..n (pz = 0.0, ist unchanged); no_triangle for
//            collinear nodes or a triangle of zero area (pz = 0.0).
void eval_surface(int32_t n, double px, double py, std::span<const double> tx,
                  std::span<const double> ty, std::span<const double> tz,
                  std::span<const int32_t> adj, std::span<const int32_t> adj_end, int32_t& ist,
                  double& pz, surface_status& status);

}  // namespace quolvent
