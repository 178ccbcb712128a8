// The prism formula for one cell, from the cached corner
// values, and the walk over the cells of one datum.
#include "sens/prism_row.hpp"

#include <algorithm>
#include <cmath>
#include <string>

#include "base/format.hpp"
#include "base/stop.hpp"
#include "sens/prism_lanes.hpp"
#include "sens/vector_math.hpp"

namespace quolvent {

namespace {

constexpr double four_pi = 12.566370614359172;

// cache_view: the two node planes around a row of columns as plain
// pointers, the stride of the x index, and the guard distance: the squared
// distance from the point's line along an axis to a cell edge parallel to it,
// below which the logarithm has no value.
struct cache_view {
  node_plane lo, hi;
  std::size_t sx;
  double edge_sq;
};

// gsus_prepare: the prism formula of one cell up to its logarithms: the
// three quotients in q[0..2] and the arctangent sums Sy, Sx, Sz in s[0..2].
// The vector loop (prism_lanes.cpp) does the same arithmetic on several
// cells at once and leaves to this one the cells it can't vouch for.
// Returns false (and leaves q and s alone) where the formula has no value: an
// edge guard, or the point on the cell's node (2, 2, 2).
inline bool gsus_prepare(const cache_view& cv, axis_side sy, axis_side sx, axis_side sz, double y1,
                         double y2, double x1, double x2, double z1, double z2, double y1sq,
                         double y2sq, double x1sq, double x2sq, double z1sq, double z2sq, int32_t i,
                         int32_t k, double* q, double* s) {
  // Node (a, b, c) of the cell: plane a (lo or hi), place b11 + bc below.
  const std::size_t b11 = static_cast<std::size_t>(k - 1) + cv.sx * static_cast<std::size_t>(i - 1);
  const std::size_t b12 = b11 + 1, b21 = b11 + cv.sx, b22 = b21 + 1;
  const double* r1 = cv.lo.r;
  const double* r2 = cv.hi.r;
  const double R111 = r1[b11], R112 = r1[b12], R121 = r1[b21], R122 = r1[b22];
  const double R211 = r2[b11], R212 = r2[b12], R221 = r2[b21], R222 = r2[b22];
  const double edge_sq = cv.edge_sq;

  // The point on the node (2, 2, 2) of this cell: every other cell around that
  // node is caught by the guard below, and this one has no value either.
  if (R222 == 0.0) return false;

  // Each logarithm: one quotient of products, each factor a sum of two
  // numbers of one sign, then one logarithm (taken by the caller, several
  // cells at a time).
  double Qy, Qx, Qz;
  if (sy == axis_side::positive) {
    Qy = ((R222 + y2) * (R121 + y1) * (R112 + y1) * (R211 + y2)) /
         ((R122 + y1) * (R221 + y2) * (R212 + y2) * (R111 + y1));
  } else if (sy == axis_side::negative) {
    Qy = ((R122 - y1) * (R221 - y2) * (R212 - y2) * (R111 - y1)) /
         ((R222 - y2) * (R121 - y1) * (R112 - y1) * (R211 - y2));
  } else {
    const double q1 = x2sq + z2sq, q2 = x2sq + z1sq, q3 = x1sq + z2sq, q4 = x1sq + z1sq;
    if (!(q1 > edge_sq) || !(q2 > edge_sq) || !(q3 > edge_sq) || !(q4 > edge_sq)) return false;
    Qy = ((R222 + y2) * (R122 - y1) * q2 * q3 * (R111 - y1) * (R211 + y2)) /
         (q1 * (R121 - y1) * (R221 + y2) * (R112 - y1) * (R212 + y2) * q4);
  }
  if (sx == axis_side::positive) {
    Qx = ((R222 + x2) * (R211 + x1) * (R112 + x1) * (R121 + x2)) /
         ((R212 + x1) * (R221 + x2) * (R122 + x2) * (R111 + x1));
  } else if (sx == axis_side::negative) {
    Qx = ((R212 - x1) * (R221 - x2) * (R122 - x2) * (R111 - x1)) /
         ((R222 - x2) * (R211 - x1) * (R112 - x1) * (R121 - x2));
  } else {
    const double q1 = y2sq + z2sq, q2 = y2sq + z1sq, q3 = y1sq + z2sq, q4 = y1sq + z1sq;
    if (!(q1 > edge_sq) || !(q2 > edge_sq) || !(q3 > edge_sq) || !(q4 > edge_sq)) return false;
    Qx = ((R222 + x2) * (R212 - x1) * q2 * q3 * (R121 + x2) * (R111 - x1)) /
         (q1 * (R221 + x2) * (R211 - x1) * (R122 + x2) * (R112 - x1) * q4);
  }
  if (sz == axis_side::positive) {
    Qz = ((R222 + z2) * (R211 + z1) * (R121 + z1) * (R112 + z2)) /
         ((R221 + z1) * (R212 + z2) * (R122 + z2) * (R111 + z1));
  } else if (sz == axis_side::negative) {
    Qz = ((R221 - z1) * (R212 - z2) * (R122 - z2) * (R111 - z1)) /
         ((R222 - z2) * (R211 - z1) * (R121 - z1) * (R112 - z2));
  } else {
    const double q1 = x2sq + y2sq, q2 = y2sq + x1sq, q3 = x2sq + y1sq, q4 = x1sq + y1sq;
    if (!(q1 > edge_sq) || !(q2 > edge_sq) || !(q3 > edge_sq) || !(q4 > edge_sq)) return false;
    Qz = ((R222 + z2) * (R221 - z1) * q2 * q3 * (R112 + z2) * (R111 - z1)) /
         (q1 * (R212 + z2) * (R211 - z1) * (R122 + z2) * (R121 - z1) * q4);
  }
  q[0] = Qy;
  q[1] = Qx;
  q[2] = Qz;

  // Arctangent sums over the two planes of the y and the x axis.
  const double *ay1 = cv.lo.ay, *ay2 = cv.hi.ay;
  const double *ax1 = cv.lo.ax, *ax2 = cv.hi.ax;
  double P1 = ay1[b11] - ay1[b12] + ay1[b22] - ay1[b21];
  double P2 = ay2[b12] - ay2[b11] - ay2[b22] + ay2[b21];
  double Q1 = ax1[b11] - ax1[b12] + ax2[b12] - ax2[b11];
  double Q2 = ax1[b22] - ax1[b21] - ax2[b22] + ax2[b21];

  // A plane at offset 0 was cached as if at +zero_offset; it stands for the
  // side of the plane the cell's value needs.
  const bool inside = sy == axis_side::across && sx == axis_side::across && sz == axis_side::across;
  if (y1 == 0.0 && !inside) P1 = -P1;
  if (y2 == 0.0 && inside) P2 = -P2;
  if (x1 == 0.0 && !inside) Q1 = -Q1;
  if (x2 == 0.0 && inside) Q2 = -Q2;

  const double Sy = P1 + P2;
  const double Sx = Q1 + Q2;
  // The three diagonal terms add up to -4 pi at a point within the source.
  const double Sz = inside ? -(four_pi + Sy + Sx) : -(Sy + Sx);
  s[0] = Sy;
  s[1] = Sx;
  s[2] = Sz;
  return true;
}

// gsus_finish: the value from the logarithms L and the sums s: each log term
// paired with the product of the two other axes, each sum with its own.
inline double gsus_finish(const direction_products& d, const double* L, const double* s) {
  return d.gxz * L[0] + d.gyz * L[1] + d.gxy * L[2] + d.gyy * s[0] + d.gxx * s[1] + d.gzz * s[2];
}

void edge_message(const run_log& out, int32_t idat, int32_t i, int32_t j, int32_t k) {
  const std::string line = " Observation point" + fmt_free_int(idat) + "  is on the edge" +
                           " of the model cell (" + fmt_free_int(i) + fmt_free_int(j) +
                           fmt_free_int(k) + " ).";
  out.report_log({"", line, "Sensitivity set to zero!", ""});
}

}  // namespace

double on_node(double v, const double* nodes, int32_t m, double tol) {
  if (!(tol > 0.0) || m < 0) return v;
  const double* end = nodes + static_cast<std::size_t>(m) + 1;
  const double* above = std::lower_bound(nodes, end, v);
  if (above != end && *above - v <= tol) return *above;
  if (above != nodes && v - *(above - 1) <= tol) return *(above - 1);
  return v;
}

row_workspace make_row_workspace(const direction_products& d, double length_scale) {
  row_workspace ws;
  ws.dir = d;
  ws.vector_target = run_vector_target();
  ws.length_scale = length_scale;
  return ws;
}

axis_side axis_flag(double a, double b) {
  if (a > 0.0 && b >= 0.0) return axis_side::positive;
  if (a < 0.0 && b <= 0.0) return axis_side::negative;
  return axis_side::across;
}

void prism_row(row_workspace& ws, double geomag, const double* yn, const double* xn,
               const double* zn, int32_t ny, int32_t nx, int32_t nz, const int32_t* top,
               int32_t idat, double oy, double ox, double oz, double* g, std::size_t glen,
               const run_log& out, const row_part_fn& done) {
  // The layers of column (j, i) above the ground.
  auto top_of = [&](int32_t j, int32_t i) {
    return std::clamp(top[static_cast<std::size_t>(j - 1) + static_cast<std::size_t>(i - 1) * ny],
                      0, nz);
  };
  // The walk must fill g exactly: checked before anything is written.
  std::size_t cells = 0;
  for (int32_t j = 1; j <= ny; ++j)
    for (int32_t i = 1; i <= nx; ++i) cells += static_cast<std::size_t>(nz - top_of(j, i));
  if (cells != glen) stop_text("indx /= size(g)");

  const double scale = geomag / four_pi;
  // A point on a node plane up to the rounding of its coordinates is on it:
  // offsets of exactly 0 there, so that the plane's side rules hold.
  const double tol = plane_tolerance(ws.length_scale);
  oy = on_node(oy, yn, ny, tol);
  ox = on_node(ox, xn, nx, tol);
  oz = on_node(oz, zn, nz, tol);
  arctangent_cache& c = ws.cache;
  const double shift = zero_offset(ws.length_scale);
  compute_node_plane(c, ws.vector_target, shift, yn, xn, zn, ny, nx, nz, top, oy, ox, oz, 1);

  // The side of each layer's planes, and the runs of one side: a column
  // splits into at most three stretches (above the point, across its depth,
  // below it), each one straight vector loop.
  for (int32_t k = 1; k <= nz; ++k)
    c.z_side[static_cast<std::size_t>(k)] = static_cast<unsigned char>(axis_flag(
        c.z_node[static_cast<std::size_t>(k - 1)], c.z_node[static_cast<std::size_t>(k)]));
  for (int32_t k = nz; k >= 1; --k)
    c.run_end[static_cast<std::size_t>(k)] =
        (k < nz &&
         c.z_side[static_cast<std::size_t>(k)] == c.z_side[static_cast<std::size_t>(k + 1)])
            ? c.run_end[static_cast<std::size_t>(k + 1)]
            : k;

  const double edge_sq = edge_guard_sq(ws.length_scale);
  const prism_row_in in{
      c.ez, c.ex, yn, xn,      c.z_node.data(), c.z_side.data(), c.run_end.data(), top, ny, nx,
      nz,   oy,   ox, edge_sq, scale,           ws.dir};
  // One row of columns at a time, from the two node planes around it: the
  // cache stays in cache, and the caller's pass over the finished cells finds
  // them there too.
  std::size_t indx = 0;
  for (int32_t j = 1; j <= ny; ++j) {
    compute_node_plane(c, ws.vector_target, shift, yn, xn, zn, ny, nx, nz, top, oy, ox, oz, j + 1);
    const cache_view cv{c.plane(j), c.plane(j + 1), static_cast<std::size_t>(c.ez), edge_sq};
    const std::size_t first = indx;
    for (int32_t i = 1; i <= nx; ++i) indx += static_cast<std::size_t>(nz - top_of(j, i));
    c.flagged.clear();
    prism_columns(ws.vector_target, in, j, cv.lo, cv.hi, g + first, first, c.col.data(), c.flagged);
    if (ws.every_cell_alone) {
      c.flagged.clear();
      std::size_t at = first;
      for (int32_t i = 1; i <= nx; ++i)
        for (int32_t k = top_of(j, i) + 1; k <= nz; ++k) c.flagged.push_back({at++, j, i, k});
    }

    // The cells the vector loop set aside, in cell order, one at a time: those
    // with a value get it here, the others 0 and the edge message.
    for (const flagged_cell& f : c.flagged) {
      const int32_t i = f.i, k = f.k;
      const double y1 = yn[j - 1] - oy, y2 = yn[j] - oy;
      const double x1 = xn[i - 1] - ox, x2 = xn[i] - ox;
      const double z1 = zn[k - 1] - oz, z2 = zn[k] - oz;
      double q[3], s[3];
      const bool ok =
          gsus_prepare(cv, axis_flag(y1, y2), axis_flag(x1, x2), axis_flag(z1, z2), y1, y2, x1, x2,
                       z1, z2, y1 * y1, y2 * y2, x1 * x1, x2 * x2, z1 * z1, z2 * z2, i, k, q, s);
      double v = 0.0;
      if (ok) {
        for (double& e : q) e = std::log(e);
        v = gsus_finish(ws.dir, q, s) * scale;
      }
      // A value that isn't a number (a degenerate cell) is treated like a
      // point on an edge: no NaN or Inf ever reaches a row.
      if (!ok || !std::isfinite(v)) {
        edge_message(out, idat, i, j, k);
        v = 0.0;
      }
      g[f.indx] = v;
    }
    if (done && indx > first) done(first, indx);
  }
}

}  // namespace quolvent
