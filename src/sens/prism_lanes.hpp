// The two loops of a row that hold its cost, run several values
// at a time on a vector target (see vector_math.hpp): the per-node fill of
// the arctangent cache, along each vertical node line of a plane of nodes,
// and the prism formula down each column of a row of columns.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "sens/field_directions.hpp"

namespace quolvent {

// The vector loops read and write up to this many values past the end of a
// node line, a column or a cache array; the arrays they use are made this
// much longer, and what lands there is never used.
constexpr std::size_t lane_pad = 32;

// node_fill_in: one observation point against the node lines of a mesh.
// z_node[k] = zn[k] - oz (k = 0..ez-1, then lane_pad more values); top holds
// the column tops (top[(j-1) + (i-1)*ny]); ez, ex, ey are the node counts.
struct node_fill_in {
  const double* yn;
  const double* xn;
  const double* z_node;
  const int32_t* top;
  int32_t ny, nx;
  int32_t ez, ex, ey;
  double oy, ox, shift;
};

// node_plane: the cache's values on one plane of nodes (one y node), the
// node (k, i) (1-based: z, x) at (k-1) + ez*(i-1).
struct node_plane {
  double* r;   // distance to the node
  double* ax;  // arctangent of the x term
  double* ay;  // arctangent of the y term
};

// fill_node_plane
//   Given:   the target, the point and mesh in, the y node j (1..ey); p, whose
//            arrays hold ez*ex values each plus lane_pad.
//   Returns: for each node line of plane j from 1 + the smallest top of the
//            four columns around it down (the rim of the mesh whole): r the
//            distance to the node, ax and ay the arctangents of the two
//            quotients of the prism formula, a y or x offset of exactly 0
//            taken as the shift in their denominators; both 0 at a node of
//            distance 0.
//   Fails:   never.
void fill_node_plane(int64_t target, const node_fill_in& in, int32_t j, const node_plane& p);

// prism_row_in: what the walk over the cells needs besides the cache.
// z_side[k] is the side of cell k's planes (the values of axis_side), and
// run_end[k] the last cell of the run of equal sides from k on (k = 1..nz).
struct prism_row_in {
  int32_t ez, ex;
  const double* yn;
  const double* xn;
  const double* z_node;
  const unsigned char* z_side;
  const int32_t* run_end;
  const int32_t* top;
  int32_t ny, nx, nz;
  double oy, ox;
  double edge_sq;  // edge_guard_sq of the length scale
  double scale;    // geomag / (4 pi)
  direction_products dir;
};

// flagged_cell: a cell the vector loop leaves to the one-cell formula: its
// place in the row and its indices (1-based y, x, z).
struct flagged_cell {
  std::size_t indx;
  int32_t j, i, k;
};

// prism_columns
//   Given:   the target; in; j, a row of columns (1..ny); lo and hi, the
//            filled node planes j and j+1; g, the cells of the columns of row
//            j (below the tops, in the order x, z, exactly as many as they
//            hold), the first of them at place indx of the whole row;
//            col, nz + lane_pad values of work space.
//   Returns: g filled with the value of each cell; the cells where the
//            formula may have no value or the vector logarithm no answer
//            (an edge guard, the point on the node (2, 2, 2), a quotient
//            outside the normal numbers, a value that is not finite) are
//            appended to flagged in cell order, their entries in g unset.
//   Fails:   never.
void prism_columns(int64_t target, const prism_row_in& in, int32_t j, const node_plane& lo,
                   const node_plane& hi, double* g, std::size_t indx, double* col,
                   std::vector<flagged_cell>& flagged);

}  // namespace quolvent
