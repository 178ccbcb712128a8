// The prism formula for one cell, from the cached corner
// values, and the walk over the cells of one datum.
#include "sens/prism_row.hpp"

#include <algorithm>
#include <cmath>
#include <string>

#include "base/format.hpp"
#include "base/stop.hpp"
#include "sens/prism_cell.hpp"
#include "sens/prism_lanes.hpp"
#include "sens/vector_math.hpp"

namespace quolvent {

namespace {

constexpr double four_pi = 12.566370614359172;

// corners_of: the cached node values at the eight corners of cell (i, k)
// (1-based x and z) between the node planes lo and hi; sx is the stride of
// the x index in a plane.
cell_corners corners_of(const node_plane& lo, const node_plane& hi, std::size_t sx, int32_t i,
                        int32_t k) {
  cell_corners c;
  const std::size_t b11 = static_cast<std::size_t>(k - 1) + sx * static_cast<std::size_t>(i - 1);
  for (int a = 0; a < 2; ++a) {
    const node_plane& p = a == 0 ? lo : hi;
    for (int b = 0; b < 2; ++b)
      for (int z = 0; z < 2; ++z) {
        const std::size_t at = b11 + (b == 1 ? sx : 0) + static_cast<std::size_t>(z);
        c.v[a][b][z] = {p.r[at], p.ax[at], p.ay[at]};
      }
  }
  return c;
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
    const node_plane lo = c.plane(j), hi = c.plane(j + 1);
    const std::size_t first = indx;
    for (int32_t i = 1; i <= nx; ++i) indx += static_cast<std::size_t>(nz - top_of(j, i));
    c.flagged.clear();
    prism_columns(ws.vector_target, in, j, lo, hi, g + first, first, c.col.data(), c.flagged);
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
      const cell_offsets o{yn[j - 1] - oy, yn[j] - oy, xn[i - 1] - ox,
                           xn[i] - ox,     zn[k - 1] - oz, zn[k] - oz};
      double v = 0.0;
      // No value, or one that isn't a number (a degenerate cell): treated
      // like a point on an edge, so that no NaN or Inf ever reaches a row.
      if (!cell_value(corners_of(lo, hi, static_cast<std::size_t>(c.ez), i, k), o, edge_sq, ws.dir,
                      scale, v)) {
        edge_message(out, idat, i, j, k);
        v = 0.0;
      }
      g[f.indx] = v;
    }
    if (done && indx > first) done(first, indx);
  }
}

}  // namespace quolvent
