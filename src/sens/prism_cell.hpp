// The prism formula one node and one cell at a time, written once for the
// host and for a device (compiled by the device compiler with __host__
// __device__). cell_value is prism_row's formula for the cells the vector
// loop sets aside, and the vector loop does its arithmetic operation for
// operation; node_at is fill_node_plane's. So a device's rows agree with the
// program's but for the last bits of the arctangents and logarithms. Compile
// without fused multiply-adds, as the vector loops are.
#pragma once

#include <cmath>
#include <cstdint>

#include "base/host_device.hpp"

#include "sens/field_directions.hpp"


namespace quolvent {

// node_value: the distance r from the point to a node at offsets (y, x, z),
// and the arctangents ax of (y z) / (xs r) and ay of (z x) / (r ys), where an
// offset of exactly 0 is taken as shift in a denominator; both 0 at the point.
struct node_value {
  double r, ax, ay;
};

QUOLVENT_HOST_DEVICE inline node_value node_at(double y, double x, double z, double shift) {
  const double ys = y == 0.0 ? shift : y;
  const double xs = x == 0.0 ? shift : x;
  const double hh = y * y + x * x;
  const double r = sqrt(z * z + hh);
  if (r == 0.0) return {0.0, 0.0, 0.0};
  return {r, atan((y * z) / (xs * r)), atan((z * x) / (r * ys))};
}

// cell_corners: the node values at the eight corners of a cell, [a][b][c]
// with a the y plane, b the x plane and c the z plane (0 lower, 1 upper).
struct cell_corners {
  node_value v[2][2][2];
};

// cell_offsets: the offsets of the cell's planes from the point.
struct cell_offsets {
  double y1, y2, x1, x2, z1, z2;
};

// The sides of a cell's planes along an axis, as axis_side: 0 both negative
// (or the upper at 0), 1 across, 2 both positive.
QUOLVENT_HOST_DEVICE inline int side_of_planes(double a, double b) {
  if (a > 0.0 && b >= 0.0) return 2;
  if (a < 0.0 && b <= 0.0) return 0;
  return 1;
}

// cell_value
//   Given:   the corners and offsets of one cell, the edge guard (edge_guard_sq
//            of the length scale), the direction products, geomag / (4 pi).
//   Returns: true and the cell's entry in v; false where the formula has no
//            value (the point within the edge guard of an edge of an axis it
//            lies across, on the cell's node (2, 2, 2)) or the value is not
//            finite: the program gives such a cell 0 and the edge message.
//   Fails:   never.
QUOLVENT_HOST_DEVICE inline bool cell_value(const cell_corners& c, const cell_offsets& o,
                                            double edge_sq, const direction_products& d,
                                            double scale, double& v) {
  constexpr double four_pi = 12.566370614359172;
  const double R111 = c.v[0][0][0].r, R112 = c.v[0][0][1].r, R121 = c.v[0][1][0].r,
               R122 = c.v[0][1][1].r;
  const double R211 = c.v[1][0][0].r, R212 = c.v[1][0][1].r, R221 = c.v[1][1][0].r,
               R222 = c.v[1][1][1].r;
  const double y1 = o.y1, y2 = o.y2, x1 = o.x1, x2 = o.x2, z1 = o.z1, z2 = o.z2;
  const double y1sq = y1 * y1, y2sq = y2 * y2, x1sq = x1 * x1, x2sq = x2 * x2, z1sq = z1 * z1,
               z2sq = z2 * z2;
  const int sy = side_of_planes(y1, y2), sx = side_of_planes(x1, x2), sz = side_of_planes(z1, z2);
  if (R222 == 0.0) return false;

  double Qy, Qx, Qz;
  if (sy == 2) {
    Qy = ((R222 + y2) * (R121 + y1) * (R112 + y1) * (R211 + y2)) /
         ((R122 + y1) * (R221 + y2) * (R212 + y2) * (R111 + y1));
  } else if (sy == 0) {
    Qy = ((R122 - y1) * (R221 - y2) * (R212 - y2) * (R111 - y1)) /
         ((R222 - y2) * (R121 - y1) * (R112 - y1) * (R211 - y2));
  } else {
    const double q1 = x2sq + z2sq, q2 = x2sq + z1sq, q3 = x1sq + z2sq, q4 = x1sq + z1sq;
    if (!(q1 > edge_sq) || !(q2 > edge_sq) || !(q3 > edge_sq) || !(q4 > edge_sq)) return false;
    Qy = ((R222 + y2) * (R122 - y1) * q2 * q3 * (R111 - y1) * (R211 + y2)) /
         (q1 * (R121 - y1) * (R221 + y2) * (R112 - y1) * (R212 + y2) * q4);
  }
  if (sx == 2) {
    Qx = ((R222 + x2) * (R211 + x1) * (R112 + x1) * (R121 + x2)) /
         ((R212 + x1) * (R221 + x2) * (R122 + x2) * (R111 + x1));
  } else if (sx == 0) {
    Qx = ((R212 - x1) * (R221 - x2) * (R122 - x2) * (R111 - x1)) /
         ((R222 - x2) * (R211 - x1) * (R112 - x1) * (R121 - x2));
  } else {
    const double q1 = y2sq + z2sq, q2 = y2sq + z1sq, q3 = y1sq + z2sq, q4 = y1sq + z1sq;
    if (!(q1 > edge_sq) || !(q2 > edge_sq) || !(q3 > edge_sq) || !(q4 > edge_sq)) return false;
    Qx = ((R222 + x2) * (R212 - x1) * q2 * q3 * (R121 + x2) * (R111 - x1)) /
         (q1 * (R221 + x2) * (R211 - x1) * (R122 + x2) * (R112 - x1) * q4);
  }
  if (sz == 2) {
    Qz = ((R222 + z2) * (R211 + z1) * (R121 + z1) * (R112 + z2)) /
         ((R221 + z1) * (R212 + z2) * (R122 + z2) * (R111 + z1));
  } else if (sz == 0) {
    Qz = ((R221 - z1) * (R212 - z2) * (R122 - z2) * (R111 - z1)) /
         ((R222 - z2) * (R211 - z1) * (R121 - z1) * (R112 - z2));
  } else {
    const double q1 = x2sq + y2sq, q2 = y2sq + x1sq, q3 = x2sq + y1sq, q4 = x1sq + y1sq;
    if (!(q1 > edge_sq) || !(q2 > edge_sq) || !(q3 > edge_sq) || !(q4 > edge_sq)) return false;
    Qz = ((R222 + z2) * (R221 - z1) * q2 * q3 * (R112 + z2) * (R111 - z1)) /
         (q1 * (R212 + z2) * (R211 - z1) * (R122 + z2) * (R121 - z1) * q4);
  }

  // Arctangent sums over the two planes of the y and the x axis.
  const double ay111 = c.v[0][0][0].ay, ay112 = c.v[0][0][1].ay, ay121 = c.v[0][1][0].ay,
               ay122 = c.v[0][1][1].ay, ay211 = c.v[1][0][0].ay, ay212 = c.v[1][0][1].ay,
               ay221 = c.v[1][1][0].ay, ay222 = c.v[1][1][1].ay;
  const double ax111 = c.v[0][0][0].ax, ax112 = c.v[0][0][1].ax, ax121 = c.v[0][1][0].ax,
               ax122 = c.v[0][1][1].ax, ax211 = c.v[1][0][0].ax, ax212 = c.v[1][0][1].ax,
               ax221 = c.v[1][1][0].ax, ax222 = c.v[1][1][1].ax;
  double P1 = ay111 - ay112 + ay122 - ay121;
  double P2 = ay212 - ay211 - ay222 + ay221;
  double Q1 = ax111 - ax112 + ax212 - ax211;
  double Q2 = ax122 - ax121 - ax222 + ax221;
  // A plane at offset 0 was taken at +shift; it stands for the side of the
  // plane the cell's value needs.
  const bool inside = sy == 1 && sx == 1 && sz == 1;
  if (y1 == 0.0 && !inside) P1 = -P1;
  if (y2 == 0.0 && inside) P2 = -P2;
  if (x1 == 0.0 && !inside) Q1 = -Q1;
  if (x2 == 0.0 && inside) Q2 = -Q2;
  const double Sy = P1 + P2;
  const double Sx = Q1 + Q2;
  // The three diagonal terms add up to -4 pi at a point within the source.
  const double Sz = inside ? -(four_pi + Sy + Sx) : -(Sy + Sx);

  const double Ly = log(Qy), Lx = log(Qx), Lz = log(Qz);
  v = (d.gxz * Ly + d.gyz * Lx + d.gxy * Lz + d.gyy * Sy + d.gxx * Sx + d.gzz * Sz) * scale;
  // Not finite: NaN fails the comparison too.
  return fabs(v) <= 1.7976931348623157e308;
}

}  // namespace quolvent
