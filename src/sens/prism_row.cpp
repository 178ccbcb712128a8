// The prism formula for one cell, from the cached corner
// values, and the walk over the cells of one datum.
#include "sens/prism_row.hpp"

#include <algorithm>
#include <cmath>
#include <deque>
#include <exception>
#include <omp.h>
#include <string>
#include <vector>

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

namespace {

// row_walk: what a walk over one datum's cells reads; g is the whole row.
struct row_walk {
  double geomag;
  const double *yn, *xn, *zn;
  int32_t ny, nx, nz;
  const int32_t* top;
  int32_t idat;
  double oy, ox, oz;
  double* g;
};

// layers_below: the cells of column (j, i) below the ground.
std::size_t layers_below(const row_walk& w, int32_t j, int32_t i) {
  const int32_t t = std::clamp(
      w.top[static_cast<std::size_t>(j - 1) + static_cast<std::size_t>(i - 1) * w.ny], 0, w.nz);
  return static_cast<std::size_t>(w.nz - t);
}

// walk_rows: the rows of columns j_first..j_last of w's row, whose first
// cell is at g[indx]. The node plane j_first is filled first, so that a walk
// may start at any row of columns: each value is the same whoever walks it.
void walk_rows(row_workspace& ws, const row_walk& w, int32_t j_first, int32_t j_last,
               std::size_t indx, const run_log& out, const row_part_fn& done) {
  const double *yn = w.yn, *xn = w.xn, *zn = w.zn;
  const int32_t ny = w.ny, nx = w.nx, nz = w.nz;
  const int32_t* top = w.top;
  double* g = w.g;
  const double scale = w.geomag / four_pi;
  // A point on a node plane up to the rounding of its coordinates is on it:
  // offsets of exactly 0 there, so that the plane's side rules hold.
  const double tol = plane_tolerance(ws.length_scale);
  const double oy = on_node(w.oy, yn, ny, tol);
  const double ox = on_node(w.ox, xn, nx, tol);
  const double oz = on_node(w.oz, zn, nz, tol);
  arctangent_cache& c = ws.cache;
  const double shift = zero_offset(ws.length_scale);
  compute_node_plane(c, ws.vector_target, shift, yn, xn, zn, ny, nx, nz, top, oy, ox, oz, j_first,
                     j_first);

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
  for (int32_t j = j_first; j <= j_last; ++j) {
    compute_node_plane(c, ws.vector_target, shift, yn, xn, zn, ny, nx, nz, top, oy, ox, oz, j + 1,
                       j_first);
    const node_plane lo = c.plane(j), hi = c.plane(j + 1);
    const std::size_t first = indx;
    for (int32_t i = 1; i <= nx; ++i) indx += layers_below(w, j, i);
    c.flagged.clear();
    prism_columns(ws.vector_target, in, j, lo, hi, g + first, first, c.col.data(), c.flagged);
    if (ws.every_cell_alone) {
      c.flagged.clear();
      std::size_t at = first;
      for (int32_t i = 1; i <= nx; ++i)
        for (int32_t k = nz - static_cast<int32_t>(layers_below(w, j, i)) + 1; k <= nz; ++k)
          c.flagged.push_back({at++, j, i, k});
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
        edge_message(out, w.idat, i, j, k);
        v = 0.0;
      }
      g[f.indx] = v;
    }
    if (done && indx > first) done(first, indx);
  }
}

// row_starts: at [j] the place of the first cell of row of columns j + 1,
// j = 0..ny (the last: the row's length). Fails: the length isn't glen:
// "indx /= size(g)", before any cell is computed.
std::vector<std::size_t> row_starts(const row_walk& w, std::size_t glen) {
  std::vector<std::size_t> at(static_cast<std::size_t>(std::max(w.ny, 0)) + 1, 0);
  for (int32_t j = 1; j <= w.ny; ++j) {
    std::size_t cells = 0;
    for (int32_t i = 1; i <= w.nx; ++i) cells += layers_below(w, j, i);
    at[static_cast<std::size_t>(j)] = at[static_cast<std::size_t>(j - 1)] + cells;
  }
  if (at.back() != glen) stop_text("indx /= size(g)");
  return at;
}

}  // namespace

void prism_row(row_workspace& ws, double geomag, const double* yn, const double* xn,
               const double* zn, int32_t ny, int32_t nx, int32_t nz, const int32_t* top,
               int32_t idat, double oy, double ox, double oz, double* g, std::size_t glen,
               const run_log& out, const row_part_fn& done) {
  const row_walk w{geomag, yn, xn, zn, ny, nx, nz, top, idat, oy, ox, oz, g};
  // The walk must fill g exactly: checked before anything is written.
  std::size_t cells = 0;
  for (int32_t j = 1; j <= ny; ++j)
    for (int32_t i = 1; i <= nx; ++i) cells += layers_below(w, j, i);
  if (cells != glen) stop_text("indx /= size(g)");
  walk_rows(ws, w, 1, ny, 0, out, done);
}

void prism_row_parallel(const row_workspace& ws, double geomag, const double* yn, const double* xn,
                        const double* zn, int32_t ny, int32_t nx, int32_t nz, const int32_t* top,
                        int32_t idat, double oy, double ox, double oz, double* g, std::size_t glen,
                        const run_log& out) {
  const row_walk w{geomag, yn, xn, zn, ny, nx, nz, top, idat, oy, ox, oz, g};
  const std::vector<std::size_t> at = row_starts(w, glen);
  // Rows of columns in runs of about equal numbers of cells, one a thread.
  const int parts = std::clamp(omp_get_max_threads(), 1, std::max(ny, 1));
  std::vector<int32_t> from(static_cast<std::size_t>(parts) + 1, ny + 1);
  from[0] = 1;
  for (std::size_t p = 1; p < from.size() - 1; ++p) {
    // The run starts at the row of columns that holds its first share's cell.
    const std::size_t share = glen * p / static_cast<std::size_t>(parts);
    const auto past = std::upper_bound(at.begin(), at.end() - 1, share);
    from[p] = std::max(from[p - 1], static_cast<int32_t>(past - at.begin()));
  }
  // Each run's messages are held until the runs before it have given
  // theirs; a stop in a run ends the row where the walk of one thread would:
  // the messages before it in the log, then the stop.
  std::deque<run_log> logs;
  for (int p = 0; p < parts; ++p) logs.emplace_back(nullptr).hold_log();
  std::vector<std::exception_ptr> failed(static_cast<std::size_t>(parts));
#pragma omp parallel for schedule(static, 1) num_threads(parts)
  for (int p = 0; p < parts; ++p) {
    const std::size_t up = static_cast<std::size_t>(p);
    if (from[up] > from[up + 1] - 1) continue;
    try {
      row_workspace own = ws;  // its settings; the cache is remade as needed
      walk_rows(own, w, from[up], from[up + 1] - 1, at[static_cast<std::size_t>(from[up] - 1)],
                logs[up], {});
    } catch (...) {
      failed[up] = std::current_exception();
    }
  }
  for (std::size_t p = 0; p < failed.size(); ++p) {
    logs[p].pass_held(out);
    if (failed[p]) std::rethrow_exception(failed[p]);
  }
}

}  // namespace quolvent
