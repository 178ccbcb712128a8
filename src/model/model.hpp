// The records of a run's model and data: each filled once by its reader or
// stage, owned by the run, and handed down read-only to what comes after.
//
// Arrays are std::vector with 0-based storage: element i of a 1-based
// quantity is at [i - 1]. Multi-dimensional arrays are flat, the first
// subscript running fastest; the *_at helpers take 1-based subscripts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace quolvent {

// mesh_model: the rectilinear mesh. xn, yn are absolute coordinates; zn are
// depths below the mesh top (zn[0] = 0, growing downward). The depth of a
// point is z0 minus its elevation.
struct mesh_model {
  int32_t nx = 0, ny = 0, nz = 0;
  std::vector<double> dx, dy, dz;  // nx, ny, nz widths; dz[0] is the top layer
  std::vector<double> xn, yn, zn;  // nx+1, ny+1, nz+1 nodes
  double z0 = 0.0;                 // elevation of the mesh top
};

// obs_set: the data in file order; datum i (1-based) is row i of the matrix.
struct obs_set {
  double incl = 0, decl = 0, geomag = 0;  // inducing field, degrees
  double aincl = 0, adecl = 0;            // measured direction, degrees
  int32_t idir = 1;                       // 1: common direction; 0: per datum
  int32_t ndata = 0;
  std::vector<double> easting, northing, elevation;  // each datum's position
  std::vector<double> datum_aincl, datum_adecl;      // only when idir is 0
};

// datum_kind: where a datum was measured; for a whole survey, mixed when it
// holds both. The values are those the program has always used for them.
enum class datum_kind : int32_t { borehole = -1, mixed = 0, surface = 1 };

// active_cells: a cell's place in a row (active_map(iz, ix, iy), iz fastest):
// > 0 its 1-based place, 0 no part, < 0 flagged "inf"; and the counts.
struct active_cells {
  std::vector<int32_t> active_map;
  int32_t ncell_total = 0;
  int32_t nbelow = 0;
  int32_t nactive = 0;
  int32_t ninf = 0;
  int32_t ninactive = 0;
};

// top_at: top_index(iy, ix), layers above the ground in column (iy, ix), of
// a mesh with ny columns along y; top_index is ny x nx, iy fastest.
inline int32_t top_at(const std::vector<int32_t>& top_index, int32_t ny, int iy, int ix) {
  return top_index[static_cast<std::size_t>(iy - 1) +
                   static_cast<std::size_t>(ix - 1) * static_cast<std::size_t>(ny)];
}

// active_at: active_map(iz, ix, iy) of the mesh m.
inline int32_t active_at(const active_cells& c, const mesh_model& m, int iz, int ix, int iy) {
  const std::size_t nz = static_cast<std::size_t>(m.nz);
  const std::size_t nx = static_cast<std::size_t>(m.nx);
  return c.active_map[static_cast<std::size_t>(iz - 1) +
                      nz * (static_cast<std::size_t>(ix - 1) +
                            nx * static_cast<std::size_t>(iy - 1))];
}

// survey: everything the row loops know of the model and the data, filled
// stage by stage by the driver and read-only after.
struct survey {
  mesh_model mesh;
  obs_set obs;
  std::vector<int32_t> top_index;           // ny x nx, iy fastest
  active_cells cells;
  std::vector<datum_kind> datum_kinds;         // one per datum
  datum_kind survey_kind = datum_kind::mixed;  // all surface, all borehole, mixed
  std::vector<double> weights;                 // the cell weighting, n values
  int32_t n = 0;                            // row length: cells below the ground
};

}  // namespace quolvent
