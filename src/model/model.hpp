// The shared records of a run: filled once by their readers, read by
// everything after them, alive to the end of the process.
//
// Arrays are std::vector with 0-based storage: element i of a 1-based
// quantity is at [i - 1]. Multi-dimensional arrays are flat, the first
// subscript running fastest; the *_at helpers take 1-based subscripts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// run_params: the parsed control file.
struct run_params {
  std::string mesh_file;    // line 1, comment cut, trailing blanks cut
  std::string obs_file;     // line 2
  std::string topo_file;    // line 3
  std::string weight_file;  // line 4 (a file name, or "VALUE " and a number)
  std::string wavelet;      // line 5, always exactly 5 characters, blank-padded
  std::string eps_line;     // line 6, comment cut: "itol eps" or "null"
  bool diag_flag = false;   // line 7
};
extern run_params params;

// mesh_model: the rectilinear mesh. xn, yn are absolute coordinates; zn are
// depths below the mesh top (zn[0] = 0, growing downward). The depth of a
// point is z0 minus its elevation.
struct mesh_model {
  int32_t nx = 0, ny = 0, nz = 0;
  std::vector<double> dx, dy, dz;  // nx, ny, nz widths; dz[0] is the top layer
  std::vector<double> xn, yn, zn;  // nx+1, ny+1, nz+1 nodes
  double z0 = 0.0;                 // elevation of the mesh top
};
extern mesh_model mesh;

// obs_set: the data in file order; datum i (1-based) is row i of the matrix.
struct obs_set {
  double incl = 0, decl = 0, geomag = 0;  // inducing field, degrees
  double aincl = 0, adecl = 0;            // measured direction, degrees
  int32_t idir = 1;                       // 1: common direction; 0: per datum
  int32_t ndata = 0;
  std::vector<double> obs_x, obs_y, obs_z;    // easting, northing, elevation
  std::vector<double> obs_aincl, obs_adecl;   // only when idir is 0
};
extern obs_set obs;

// top_index(iy, ix): layers above the ground in column (iy, ix); iy fastest.
extern std::vector<int32_t> top_index;
inline int32_t top_at(int iy, int ix) {
  return top_index[static_cast<std::size_t>(iy - 1) +
                   static_cast<std::size_t>(ix - 1) * static_cast<std::size_t>(mesh.ny)];
}

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
extern active_cells cells;
inline int32_t active_at(int iz, int ix, int iy) {
  const std::size_t nz = static_cast<std::size_t>(mesh.nz);
  const std::size_t nx = static_cast<std::size_t>(mesh.nx);
  return cells.active_map[static_cast<std::size_t>(iz - 1) +
                          nz * (static_cast<std::size_t>(ix - 1) +
                                nx * static_cast<std::size_t>(iy - 1))];
}
