// Column tops: the number of mesh layers above the ground in each column,
// the one thing the rest of the program knows of the ground.
#pragma once

#include <cstdint>
#include <vector>

namespace quolvent {

// column_tops
//   Given:   surf, the surface sampled at (2ny + 1) x (2nx + 1) points (first
//            subscript fastest) over every node line and cell mid-line of the
//            mesh; the layer count nz, the node depths zn (nz + 1 values), the
//            mesh top z0.
//   Returns: top_index, ny x nx (iy fastest): per column the layer
//            holding the lowest of its nine samples and every layer above it;
//            0 when that sample is at or above z0, nz when it is below the mesh
//            bottom. A lowest sample within a few rounding errors of a layer
//            boundary (boundary_tolerance) counts as on it, and one on a
//            boundary takes the layer above. A sample that is not a number is
//            passed over; a column with no sample that is a number gets 0, as
//            without topography.
//   Fails:   never.
// boundary_tolerance
//   Given:   the layer boundary elevations elev[0..nz] (z0 - zn).
//   Returns: how near a boundary a surface sample counts as on it: a few
//            rounding errors of the largest elevation of the mesh, the size of
//            what an interpolated flat ground or a boundary's own sum may be off.
//   Fails:   never.
double boundary_tolerance(const std::vector<double>& elev);

std::vector<int32_t> column_tops(const std::vector<double>& surf, int32_t ny, int32_t nx, int32_t nz,
                                 const std::vector<double>& zn, double z0);

}  // namespace quolvent
