// Small meshes and filters for the tests of the wavelet subsystem.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "model/active_cells.hpp"
#include "model/model.hpp"
#include "wavelet/compression.hpp"
#include "wavelet/wavelet_filters.hpp"
#include "wavelet/wtn_mod.hpp"

namespace wt {

// set_mesh: a mesh of unit cells (x easting, y northing) with its top at
// elevation 0, the ground given by top (ny * nx layers above ground, iy
// fastest; empty for none), active cells from it, and the padded extents.
inline void set_mesh(int32_t nx, int32_t ny, int32_t nz, std::vector<int32_t> top = {},
                     double width = 1.0) {
  mesh = mesh_model{};
  mesh.nx = nx;
  mesh.ny = ny;
  mesh.nz = nz;
  mesh.dx.assign(nx, width);
  mesh.dy.assign(ny, width);
  mesh.dz.assign(nz, width);
  for (int32_t i = 0; i <= nx; ++i) mesh.xn.push_back(i * width);
  for (int32_t i = 0; i <= ny; ++i) mesh.yn.push_back(i * width);
  for (int32_t i = 0; i <= nz; ++i) mesh.zn.push_back(i * width);
  mesh.z0 = 0.0;
  if (top.empty()) top.assign(static_cast<size_t>(nx) * ny, 0);
  top_index = top;
  get_active_cells("null", top_index);
  set_padded_extents();
}

// use_wavelet: check_wavelet plus set_filters for name, quietly.
void use_wavelet(const std::string& name);

}  // namespace wt
