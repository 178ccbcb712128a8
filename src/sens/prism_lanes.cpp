// The cache fill and the prism formula, several cells at a time.
// This file is compiled once per vector target (Highway's foreach_target).
//
// Every lane does exactly the arithmetic of the one-cell formula
// (cell_value, sens/prism_cell.hpp), operation for operation, without fused multiply-adds:
// only the arctangents and logarithms (Highway's, not the C library's)
// differ from it in the last bits.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "sens/prism_lanes.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/contrib/math/math-inl.h>
#include <hwy/highway.h>

#include <algorithm>
#include <cfloat>
#include <cstring>

#include "sens/prism_lanes.hpp"

// No multiply-add is fused behind the code's back: the vector targets with
// fused multiply-adds must give the bits of those without.
#pragma clang fp contract(off)

HWY_BEFORE_NAMESPACE();
namespace quolvent {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// At most 16 doubles a vector: the reach past the end of an array stays
// within lane_pad on every target.
using lanes_tag = hn::CappedTag<double, 16>;
using V = hn::Vec<lanes_tag>;
using M = hn::Mask<lanes_tag>;

// The sides of a cell's planes along an axis (the values of axis_side).
constexpr int side_negative = 0, side_across = 1, side_positive = 2;

inline int side_of(double a, double b) {
  if (a > 0.0 && b >= 0.0) return side_positive;
  if (a < 0.0 && b <= 0.0) return side_negative;
  return side_across;
}

// AtanOfRatio: atan(n / d) with one division: the quotient of the smaller
// magnitude over the larger (in [0, 1], the range of Highway's arctangent
// polynomial) and pi/2 minus it where |n| > |d|. Highway's Atan(n / d) would
// take two divisions, one for the quotient and one for its reduction.
HWY_INLINE V AtanOfRatio(lanes_tag d, V n, V den) {
  const V half_pi = hn::Set(d, 1.57079632679489661923132169);
  const V an = hn::Abs(n), ad = hn::Abs(den);
  const M above_one = hn::Gt(an, ad);
  const V t = hn::Div(hn::Min(an, ad), hn::Max(an, ad));
  hn::impl::AtanImpl<double> impl;
  const V p = impl.AtanPoly(d, t);
  const V a = hn::IfThenElse(above_one, hn::Sub(half_pi, p), p);
  // The sign of the quotient.
  const V sign = hn::And(hn::SignBit(d), hn::Xor(n, den));
  return hn::Or(a, sign);
}

void FillNodePlane(const node_fill_in& in, int32_t j, double* r, double* ax, double* ay) {
  const lanes_tag d;
  const int32_t n = static_cast<int32_t>(hn::Lanes(d));
  const int32_t ez = in.ez, ex = in.ex, ey = in.ey, ny = in.ny;
  auto top_at = [&](int32_t jj, int32_t i) {
    return in.top[static_cast<std::size_t>(jj - 1) +
                  static_cast<std::size_t>(i - 1) * static_cast<std::size_t>(ny)];
  };
  const V zero = hn::Zero(d);
  const double y = in.yn[j - 1] - in.oy;
  const double ys = y == 0.0 ? in.shift : y;
  const double yy = y * y;
  for (int32_t i = 1; i <= ex; ++i) {
    const double x = in.xn[i - 1] - in.ox;
    const double xs = x == 0.0 ? in.shift : x;
    const double hh = yy + x * x;
    // Start level: the highest node any of the four columns around this
    // line can reach; the rim is computed whole.
    int32_t start = 1;
    if (j > 1 && j < ey && i > 1 && i < ex) {
      const int32_t t = std::min(std::min(top_at(j - 1, i - 1), top_at(j, i - 1)),
                                 std::min(top_at(j - 1, i), top_at(j, i)));
      start = std::clamp(t + 1, 1, ez);
    }
    const std::size_t base = static_cast<std::size_t>(ez) * static_cast<std::size_t>(i - 1);
    double* rl = r + base;
    double* axl = ax + base;
    double* ayl = ay + base;
    const V vy = hn::Set(d, y), vx = hn::Set(d, x), vys = hn::Set(d, ys), vxs = hn::Set(d, xs);
    const V vhh = hn::Set(d, hh);
    // Whole vectors: the last one runs past the line into the next line's
    // head (computed after it) or the plane's padding.
    for (int32_t k = start - 1; k < ez; k += n) {
      const V z = hn::LoadU(d, in.z_node + k);
      const V rr = hn::Sqrt(hn::Add(hn::Mul(z, z), vhh));
      // The arctangents of (y z) / (xs r) and (z x) / (r ys). At the point
      // itself both are 0 over 0; the cell that reads such a node is set
      // aside by the prism formula, but the cache holds no NaN either.
      const M at_point = hn::Eq(rr, zero);
      hn::StoreU(rr, d, rl + k);
      hn::StoreU(hn::IfThenZeroElse(at_point, AtanOfRatio(d, hn::Mul(vy, z), hn::Mul(vxs, rr))),
                 d, axl + k);
      hn::StoreU(hn::IfThenZeroElse(at_point, AtanOfRatio(d, hn::Mul(z, vx), hn::Mul(rr, vys))),
                 d, ayl + k);
    }
  }
}

// column_view: the four node lines around one column (first index y, second
// x: 1 the lower plane, 2 the upper) and the column's plane offsets.
struct column_view {
  const double *r11, *r12, *r21, *r22;
  const double *a11, *a12, *a21, *a22;  // at_x
  const double *b11, *b12, *b21, *b22;  // at_y
  double y1, y2, x1, x2;
  int sy, sx;
};

// Stretch: cells k0..k1 of one column, whose z planes lie on one side sz,
// into out[0..k1-k0] (and up to a vector beyond); the cells that need the
// one-cell formula into flagged, with place indx0 for cell k0.
HWY_INLINE void Stretch(const prism_row_in& in, const column_view& c, int32_t k0, int32_t k1,
                        int sz, double* out, std::size_t indx0, int32_t j, int32_t i,
                        std::vector<flagged_cell>& flagged) {
  const lanes_tag d;
  const int32_t n = static_cast<int32_t>(hn::Lanes(d));
  const int sy = c.sy, sx = c.sx;
  const bool inside = sy == side_across && sx == side_across && sz == side_across;
  // A plane at offset 0 was cached as if at +zero_offset; it stands for the
  // side of the plane the cell's value needs.
  const bool flip_p1 = c.y1 == 0.0 && !inside, flip_p2 = c.y2 == 0.0 && inside;
  const bool flip_q1 = c.x1 == 0.0 && !inside, flip_q2 = c.x2 == 0.0 && inside;
  const double x1sq_s = c.x1 * c.x1, x2sq_s = c.x2 * c.x2;
  const double y1sq_s = c.y1 * c.y1, y2sq_s = c.y2 * c.y2;
  const V y1 = hn::Set(d, c.y1), y2 = hn::Set(d, c.y2);
  const V x1 = hn::Set(d, c.x1), x2 = hn::Set(d, c.x2);
  const V x1sq = hn::Set(d, x1sq_s), x2sq = hn::Set(d, x2sq_s);
  const V y1sq = hn::Set(d, y1sq_s), y2sq = hn::Set(d, y2sq_s);
  const V edge = hn::Set(d, in.edge_sq);
  const V zero = hn::Zero(d);
  const V smallest = hn::Set(d, DBL_MIN), largest = hn::Set(d, DBL_MAX);
  const V four_pi = hn::Set(d, 12.566370614359172);
  const V gxz = hn::Set(d, in.dir.gxz), gyz = hn::Set(d, in.dir.gyz), gxy = hn::Set(d, in.dir.gxy);
  const V gyy = hn::Set(d, in.dir.gyy), gxx = hn::Set(d, in.dir.gxx), gzz = hn::Set(d, in.dir.gzz);
  const V scale = hn::Set(d, in.scale);

  // The z guard of a cell across the observation depth is one per stretch.
  bool z_guard_fails = false;
  double zq1 = 0, zq2 = 0, zq3 = 0, zq4 = 0;
  if (sz == side_across) {
    zq1 = x2sq_s + y2sq_s, zq2 = y2sq_s + x1sq_s, zq3 = x2sq_s + y1sq_s, zq4 = x1sq_s + y1sq_s;
    z_guard_fails = !(zq1 > in.edge_sq) || !(zq2 > in.edge_sq) || !(zq3 > in.edge_sq) ||
                    !(zq4 > in.edge_sq);
  }
  const M all_bad = hn::Eq(zero, zero);

  for (int32_t k = k0; k <= k1; k += n) {
    const std::size_t lo = static_cast<std::size_t>(k - 1), hi = static_cast<std::size_t>(k);
    const V R111 = hn::LoadU(d, c.r11 + lo), R112 = hn::LoadU(d, c.r11 + hi);
    const V R121 = hn::LoadU(d, c.r12 + lo), R122 = hn::LoadU(d, c.r12 + hi);
    const V R211 = hn::LoadU(d, c.r21 + lo), R212 = hn::LoadU(d, c.r21 + hi);
    const V R221 = hn::LoadU(d, c.r22 + lo), R222 = hn::LoadU(d, c.r22 + hi);
    const V z1 = hn::LoadU(d, in.z_node + lo), z2 = hn::LoadU(d, in.z_node + hi);

    // The point on the node (2, 2, 2) of this cell.
    M bad = hn::Eq(R222, zero);
    if (z_guard_fails) bad = all_bad;
    auto guard = [&](V q1, V q2, V q3, V q4) {
      bad = hn::Or(bad, hn::Not(hn::Gt(q1, edge)));
      bad = hn::Or(bad, hn::Not(hn::Gt(q2, edge)));
      bad = hn::Or(bad, hn::Not(hn::Gt(q3, edge)));
      bad = hn::Or(bad, hn::Not(hn::Gt(q4, edge)));
    };
    using hn::Add;
    using hn::Mul;
    using hn::Sub;

    V Qy, Qx, Qz;
    if (sy == side_positive) {
      Qy = hn::Div(Mul(Mul(Mul(Add(R222, y2), Add(R121, y1)), Add(R112, y1)), Add(R211, y2)),
                   Mul(Mul(Mul(Add(R122, y1), Add(R221, y2)), Add(R212, y2)), Add(R111, y1)));
    } else if (sy == side_negative) {
      Qy = hn::Div(Mul(Mul(Mul(Sub(R122, y1), Sub(R221, y2)), Sub(R212, y2)), Sub(R111, y1)),
                   Mul(Mul(Mul(Sub(R222, y2), Sub(R121, y1)), Sub(R112, y1)), Sub(R211, y2)));
    } else {
      const V z1sq = Mul(z1, z1), z2sq = Mul(z2, z2);
      const V q1 = Add(x2sq, z2sq), q2 = Add(x2sq, z1sq), q3 = Add(x1sq, z2sq),
              q4 = Add(x1sq, z1sq);
      guard(q1, q2, q3, q4);
      Qy = hn::Div(
          Mul(Mul(Mul(Mul(Mul(Add(R222, y2), Sub(R122, y1)), q2), q3), Sub(R111, y1)),
              Add(R211, y2)),
          Mul(Mul(Mul(Mul(Mul(q1, Sub(R121, y1)), Add(R221, y2)), Sub(R112, y1)), Add(R212, y2)),
              q4));
    }
    if (sx == side_positive) {
      Qx = hn::Div(Mul(Mul(Mul(Add(R222, x2), Add(R211, x1)), Add(R112, x1)), Add(R121, x2)),
                   Mul(Mul(Mul(Add(R212, x1), Add(R221, x2)), Add(R122, x2)), Add(R111, x1)));
    } else if (sx == side_negative) {
      Qx = hn::Div(Mul(Mul(Mul(Sub(R212, x1), Sub(R221, x2)), Sub(R122, x2)), Sub(R111, x1)),
                   Mul(Mul(Mul(Sub(R222, x2), Sub(R211, x1)), Sub(R112, x1)), Sub(R121, x2)));
    } else {
      const V z1sq = Mul(z1, z1), z2sq = Mul(z2, z2);
      const V q1 = Add(y2sq, z2sq), q2 = Add(y2sq, z1sq), q3 = Add(y1sq, z2sq),
              q4 = Add(y1sq, z1sq);
      guard(q1, q2, q3, q4);
      Qx = hn::Div(
          Mul(Mul(Mul(Mul(Mul(Add(R222, x2), Sub(R212, x1)), q2), q3), Add(R121, x2)),
              Sub(R111, x1)),
          Mul(Mul(Mul(Mul(Mul(q1, Add(R221, x2)), Sub(R211, x1)), Add(R122, x2)), Sub(R112, x1)),
              q4));
    }
    if (sz == side_positive) {
      Qz = hn::Div(Mul(Mul(Mul(Add(R222, z2), Add(R211, z1)), Add(R121, z1)), Add(R112, z2)),
                   Mul(Mul(Mul(Add(R221, z1), Add(R212, z2)), Add(R122, z2)), Add(R111, z1)));
    } else if (sz == side_negative) {
      Qz = hn::Div(Mul(Mul(Mul(Sub(R221, z1), Sub(R212, z2)), Sub(R122, z2)), Sub(R111, z1)),
                   Mul(Mul(Mul(Sub(R222, z2), Sub(R211, z1)), Sub(R121, z1)), Sub(R112, z2)));
    } else {
      const V q1 = hn::Set(d, zq1), q2 = hn::Set(d, zq2), q3 = hn::Set(d, zq3),
              q4 = hn::Set(d, zq4);
      Qz = hn::Div(
          Mul(Mul(Mul(Mul(Mul(Add(R222, z2), Sub(R221, z1)), q2), q3), Add(R112, z2)),
              Sub(R111, z1)),
          Mul(Mul(Mul(Mul(Mul(q1, Add(R212, z2)), Sub(R211, z1)), Add(R122, z2)), Sub(R121, z1)),
              q4));
    }

    // Arctangent sums over the two planes of the y and the x axis.
    const V ay111 = hn::LoadU(d, c.b11 + lo), ay112 = hn::LoadU(d, c.b11 + hi);
    const V ay121 = hn::LoadU(d, c.b12 + lo), ay122 = hn::LoadU(d, c.b12 + hi);
    const V ay211 = hn::LoadU(d, c.b21 + lo), ay212 = hn::LoadU(d, c.b21 + hi);
    const V ay221 = hn::LoadU(d, c.b22 + lo), ay222 = hn::LoadU(d, c.b22 + hi);
    const V ax111 = hn::LoadU(d, c.a11 + lo), ax112 = hn::LoadU(d, c.a11 + hi);
    const V ax121 = hn::LoadU(d, c.a12 + lo), ax122 = hn::LoadU(d, c.a12 + hi);
    const V ax211 = hn::LoadU(d, c.a21 + lo), ax212 = hn::LoadU(d, c.a21 + hi);
    const V ax221 = hn::LoadU(d, c.a22 + lo), ax222 = hn::LoadU(d, c.a22 + hi);
    V P1 = Sub(Add(Sub(ay111, ay112), ay122), ay121);
    V P2 = Add(Sub(Sub(ay212, ay211), ay222), ay221);
    V Q1 = Sub(Add(Sub(ax111, ax112), ax212), ax211);
    V Q2 = Add(Sub(Sub(ax122, ax121), ax222), ax221);
    if (flip_p1) P1 = hn::Neg(P1);
    if (flip_p2) P2 = hn::Neg(P2);
    if (flip_q1) Q1 = hn::Neg(Q1);
    if (flip_q2) Q2 = hn::Neg(Q2);
    const V Sy = Add(P1, P2);
    const V Sx = Add(Q1, Q2);
    // The three diagonal terms add up to -4 pi at a point within the source.
    const V Sz = inside ? hn::Neg(Add(Add(four_pi, Sy), Sx)) : hn::Neg(Add(Sy, Sx));

    // A quotient outside the normal numbers is left to the C library's
    // logarithm, which the vector one doesn't stand in for there.
    auto normal = [&](V q) { return hn::And(hn::Ge(q, smallest), hn::Le(q, largest)); };
    bad = hn::Or(bad, hn::Not(hn::And(hn::And(normal(Qy), normal(Qx)), normal(Qz))));
    const V Ly = hn::Log(d, Qy), Lx = hn::Log(d, Qx), Lz = hn::Log(d, Qz);
    // Each log term paired with the product of the two other axes, each sum
    // with its own.
    V v = Add(Add(Add(Add(Add(Mul(gxz, Ly), Mul(gyz, Lx)), Mul(gxy, Lz)), Mul(gyy, Sy)),
                  Mul(gxx, Sx)),
              Mul(gzz, Sz));
    v = Mul(v, scale);
    bad = hn::Or(bad, hn::Not(hn::Le(hn::Abs(v), largest)));
    const int32_t t = k - k0;
    hn::StoreU(v, d, out + t);

    const int32_t left = k1 - k + 1;
    if (left < n) bad = hn::And(bad, hn::FirstN(d, static_cast<std::size_t>(left)));
    if (HWY_UNLIKELY(!hn::AllFalse(d, bad))) {
      uint8_t bits[8] = {};
      hn::StoreMaskBits(d, bad, bits);
      for (int32_t l = 0; l < n; ++l)
        if (bits[l / 8] >> (l % 8) & 1)
          flagged.push_back({indx0 + static_cast<std::size_t>(t + l), j, i, k + l});
    }
  }
}

void PrismColumns(const prism_row_in& in, int32_t j, const node_plane& lo, const node_plane& hi,
                  double* g, std::size_t indx, double* col, std::vector<flagged_cell>* flagged) {
  const std::size_t sx = static_cast<std::size_t>(in.ez);
  const int32_t ny = in.ny, nx = in.nx, nz = in.nz;
  column_view c{};
  c.y1 = in.yn[j - 1] - in.oy;
  c.y2 = in.yn[j] - in.oy;
  c.sy = side_of(c.y1, c.y2);
  for (int32_t i = 1; i <= nx; ++i) {
    c.x1 = in.xn[i - 1] - in.ox;
    c.x2 = in.xn[i] - in.ox;
    c.sx = side_of(c.x1, c.x2);
    const int32_t kt = std::clamp(
        in.top[static_cast<std::size_t>(j - 1) + static_cast<std::size_t>(i - 1) * ny], 0, nz);
    const std::size_t b1 = sx * static_cast<std::size_t>(i - 1), b2 = b1 + sx;
    c.r11 = lo.r + b1, c.r12 = lo.r + b2, c.r21 = hi.r + b1, c.r22 = hi.r + b2;
    c.a11 = lo.ax + b1, c.a12 = lo.ax + b2, c.a21 = hi.ax + b1, c.a22 = hi.ax + b2;
    c.b11 = lo.ay + b1, c.b12 = lo.ay + b2, c.b21 = hi.ay + b1, c.b22 = hi.ay + b2;
    // The column in at most three stretches of one z side each: above the
    // point, across its depth, below it.
    for (int32_t k = kt + 1; k <= nz;) {
      const int32_t e = in.run_end[k];
      const std::size_t t = static_cast<std::size_t>(k - kt - 1);
      Stretch(in, c, k, e, in.z_side[k], col + t, indx + t, j, i, *flagged);
      k = e + 1;
    }
    const std::size_t m = static_cast<std::size_t>(nz - kt);
    if (m > 0) std::memcpy(g, col, m * sizeof(double));
    g += m;
    indx += m;
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace quolvent
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
#include "base/vector_dispatch.hpp"

namespace quolvent {

QUOLVENT_EXPORT(FillNodePlane)
QUOLVENT_EXPORT(PrismColumns)

void fill_node_plane(int64_t target, const node_fill_in& in, int32_t j, const node_plane& p) {
  FillNodePlane_for(dispatch_index(target))(in, j, p.r, p.ax, p.ay);
}

void prism_columns(int64_t target, const prism_row_in& in, int32_t j, const node_plane& lo,
                   const node_plane& hi, double* g, std::size_t indx, double* col,
                   std::vector<flagged_cell>& flagged) {
  PrismColumns_for(dispatch_index(target))(in, j, lo, hi, g, indx, col, &flagged);
}

}  // namespace quolvent
#endif  // HWY_ONCE
