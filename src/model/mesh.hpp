// MESH_MOD: the rectilinear mesh file.
#pragma once

#include <string>

#include "model/model.hpp"

namespace quolvent {

// read_mesh
//   Given:   name, the mesh file (trailing blanks are cut).
//   Returns: the mesh: nx, ny, nz, the widths, the origin,
//            z0, and the nodes as running sums (zn[0] = 0, depths downward).
//   Fails:   a missing file -> file-not-found report "mesh"; a read that
//            doesn't give five complete reads, a negative count, a mesh of
//            2^31 cells or more, or nodes that overflow -> "ERROR reading
//            mesh file: <name>" (with a line saying why for the last three);
//            arrays that can't be allocated -> allocation report "read_mesh".
//            Each ends in a plain stop.
mesh_model read_mesh(const std::string& name);

}  // namespace quolvent
