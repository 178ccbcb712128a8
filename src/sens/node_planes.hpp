// The per-node part of the prism formula, computed once
// per observation point: the distance to each mesh node and two arctangents.
// Each thread of a row loop keeps its own cache; the prism formula only reads it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "sens/prism_lanes.hpp"

namespace quolvent {

// arctangent_cache: r_node, at_x, at_y, each two planes of ez * ex values,
// every plane followed by lane_pad more values (which the vector loops may
// touch): plane j of the nodes (1-based y node) in slot (j-1) % 2 at
// (j-1) % 2 * plane_stride, the node (k, i) (1-based: z, x) of a plane at
// (k-1) + ez*(i-1), so that the four node lines around a column run with
// unit stride in k. Two planes are all one row of columns needs, and they
// stay in cache however large the mesh.
// ez, ex, ey are the node counts the arrays were made for (0: none yet).
// z_node (ez + lane_pad) holds zn[k] - oz of the point. col (ez + lane_pad)
// is the work space of the prism formula for the cells of one column;
// z_side and run_end (ez) the side of each layer's planes and the last layer
// of each run of one side; flagged the cells of a row of columns left to the
// one-cell formula.
struct arctangent_cache {
  std::vector<double> at_x, at_y, r_node, z_node;
  std::vector<double> col;
  std::vector<unsigned char> z_side;
  std::vector<int32_t> run_end;
  std::vector<flagged_cell> flagged;
  int32_t ez = 0, ex = 0, ey = 0;
  std::size_t plane_stride = 0;

  // plane: the slot of y node j (1..ey).
  node_plane plane(int32_t j) {
    const std::size_t at = static_cast<std::size_t>((j - 1) % 2) * plane_stride;
    return {r_node.data() + at, at_x.data() + at, at_y.data() + at};
  }
};

// compute_node_plane: fills plane j (1..ny+1) of the cache c for the point
// (oy, ox, oz) over the mesh yn[0..ny], xn[0..nx], zn[0..nz] (zn are depths),
// column tops top[(j-1) + (i-1)*ny], on the vector target `target`
// (vector_math.hpp). At j = first (the first plane a walk fills: 1 for a
// whole row) it first sets z_node for the point, and makes the arrays anew
// when the node counts changed.
// A y or x offset of exactly 0 is taken as `shift` in the denominators of the
// arctangents (zero_offset of the mesh's length scale).
// Only the part of each node line that some cell below the ground can reach
// is computed: from 1 + the smallest top of the four columns around the node
// down, the rim of the mesh always whole.
// Fails: no memory for the arrays: the allocation stop "calc_arctangents".
void compute_node_plane(arctangent_cache& c, int64_t target, double shift, const double* yn,
                        const double* xn, const double* zn, int32_t ny, int32_t nx, int32_t nz,
                        const int32_t* top, double oy, double ox, double oz, int32_t j,
                        int32_t first = 1);

}  // namespace quolvent
