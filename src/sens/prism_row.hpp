// The closed-form prism formula for the cells of one datum,
// from the cached corner values (prism_row).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "base/channels.hpp"
#include "sens/node_planes.hpp"
#include "sens/field_directions.hpp"

namespace quolvent {

// row_workspace: what one thread needs to compute rows: the direction
// products of its current datum, the arctangent cache, the vector target its
// loops run on (vector_math.hpp), and the length scale of the model's mesh
// (mesh_length_scale), which the geometric tolerances of the prism formula
// are measured in. Made inside each parallel region, one per thread.
struct row_workspace {
  direction_products dir;
  arctangent_cache cache;
  int64_t vector_target = 0;
  double length_scale = 1.0;
  // Every cell through the one-cell formula, which otherwise sees only the
  // cells the vector loop sets aside: a check of that formula on every cell.
  bool every_cell_alone = false;
};

// make_row_workspace: a workspace for directions d and the model mesh's length
// scale, on the run's vector target (run_vector_target: the machine's widest
// unless QUOLVENT_VECTOR names another). A row over another mesh (the extended
// mesh of the regular-grid loop) keeps the model's scale, so that both loops
// treat a point near an edge alike.
row_workspace make_row_workspace(const direction_products& d, double length_scale);

// The prism formula's two tolerances on a mesh of length scale s: the
// squared distance from a cell edge below which a logarithm has no value,
// and the offset a plane exactly at the point is taken at. With s = 1 they
// are 1e-6 and 0.001 in file units.
inline double edge_guard_sq(double s) { return 1e-6 * (s * s); }
inline double zero_offset(double s) { return 0.001 * s; }

// plane_tolerance: how near a node plane an observation point counts as on
// it in the prism formula, on a mesh of length scale s: 1e-6 s (as for the
// data split) below width 1, where coordinates written on a plane may miss the
// summed node by a rounding error; none from width 1 up, where the formula
// has always taken the point as it stands.
inline double plane_tolerance(double s) { return s < 1.0 ? 1e-6 * s : 0.0; }

// on_node
//   Given:   a position v, the ascending nodes[0..m], a tolerance tol.
//   Returns: the node nearest above or below v when it lies within tol of v
//            (the one above first), else v itself.
//   Fails:   never.
double on_node(double v, const double* nodes, int32_t m, double tol);

// axis_side: where the two planes of a cell along one axis lie from the
// observation point. Each side has its own form of the logarithm term, chosen
// to avoid cancellation.
enum class axis_side {
  negative,  // both planes on the negative side, or the upper one at 0
  across,    // the point between the planes, or on the lower one
  positive,  // both planes on the positive side
};

// axis_flag: the side of an axis with plane offsets a < b.
axis_side axis_flag(double a, double b);

// prism_row
//   Given:   the workspace ws (its directions set); the field strength geomag;
//            the mesh with nodes yn[0..ny], xn[0..nx], zn[0..nz] (zn are
//            depths) and column tops top[(j-1) + (i-1)*ny]; the datum idat
//            (1-based, for the edge message) at the observation point (oy, ox,
//            oz) (northing, easting, depth below the mesh top); out, the log.
//            A coordinate within plane_tolerance of the workspace's length
//            scale of a node is taken on that node.
//   Returns: g[0..glen-1] filled in the order y, x, z, cells k = top+1..nz of
//            each column: the integral over each cell of the dipole kernel
//            for the workspace's directions, times geomag / (4 pi). The
//            row is made one row of columns (one y) at a time; done, when
//            given, is called with the places [begin, end) of each one as
//            soon as its cells are final, while they are still in cache.
//            The cells run several at a time on the workspace's vector
//            target; a cell the vector loop can't vouch for is computed alone.
//   Fails:   a cell where the point lies within 0.001 times the workspace's
//            length scale of the line through a cell edge of an axis whose
//            flag is 0 (edge_guard_sq), on a node of the cell, or
//            whose value is not finite gets 0 and a message in the log, in
//            cell order; column tops that don't give exactly glen cells stop
//            with "indx /= size(g)" before any cell is computed.
using row_part_fn = std::function<void(std::size_t begin, std::size_t end)>;
void prism_row(row_workspace& ws, double geomag, const double* yn, const double* xn,
               const double* zn, int32_t ny, int32_t nx, int32_t nz, const int32_t* top,
               int32_t idat, double oy, double ox, double oz, double* g, std::size_t glen,
               const run_log& out, const row_part_fn& done = {});

// prism_row_parallel
//   Given:   what prism_row is given, the workspace for its settings alone
//            (directions, vector target, length scale); not called from
//            inside a parallel region (it would run on one thread there).
//   Returns: g as prism_row fills it, bit for bit, made by every thread of
//            a parallel region of its own, each a run of rows of columns
//            (about as many cells each) with a workspace of its own; the edge
//            messages in the log as prism_row writes them, in cell order.
//   Fails:   as prism_row: the stop of the first run (in cell order) that
//            stops, after the messages of the cells before it.
void prism_row_parallel(const row_workspace& ws, double geomag, const double* yn, const double* xn,
                        const double* zn, int32_t ny, int32_t nx, int32_t nz, const int32_t* top,
                        int32_t idat, double oy, double ox, double oz, double* g, std::size_t glen,
                        const run_log& out);

}  // namespace quolvent
