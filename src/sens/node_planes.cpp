// Distance and arctangents per mesh node.
#include "sens/node_planes.hpp"

#include <algorithm>
#include <cmath>
#include <new>
#include <stdexcept>

#include "base/stop.hpp"
#include "sens/prism_lanes.hpp"

namespace quolvent {

void compute_node_plane(arctangent_cache& c, int64_t target, double shift, const double* yn,
                        const double* xn, const double* zn, int32_t ny, int32_t nx, int32_t nz,
                        const int32_t* top, double oy, double ox, double oz, int32_t j,
                        int32_t first) {
  const int32_t ez = std::max(nz, 0) + 1, ex = std::max(nx, 0) + 1, ey = std::max(ny, 0) + 1;
  if (j == first) {
    // Arrays made for other extents would put nodes in the wrong places (or
    // past the end): make them anew for this mesh.
    if (c.ez != ez || c.ex != ex || c.ey != ey) {
      c = arctangent_cache{};
      const std::size_t stride =
          static_cast<std::size_t>(ez) * static_cast<std::size_t>(ex) + lane_pad;
      const std::size_t line = static_cast<std::size_t>(ez) + lane_pad;
      try {
        c.at_x.resize(2 * stride);
        c.at_y.resize(2 * stride);
        c.r_node.resize(2 * stride);
        c.z_node.resize(line);
        c.col.resize(line);
        c.z_side.resize(static_cast<std::size_t>(ez));
        c.run_end.resize(static_cast<std::size_t>(ez));
      } catch (const std::bad_alloc&) {
        alloc_failed("calc_arctangents");
      } catch (const std::length_error&) {
        alloc_failed("calc_arctangents");
      }
      c.ez = ez;
      c.ex = ex;
      c.ey = ey;
      c.plane_stride = stride;
    }
    for (int32_t k = 0; k < ez; ++k) c.z_node[static_cast<std::size_t>(k)] = zn[k] - oz;
  }
  const node_fill_in in{yn, xn, c.z_node.data(), top, ny, nx, ez, ex, ey, oy, ox, shift};
  fill_node_plane(target, in, j, c.plane(j));
}

}  // namespace quolvent
