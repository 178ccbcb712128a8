// The rectilinear mesh file.
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
//            2^31 cells or more, a cell width that is not positive (the first
//            one in file order, named by its axis and place), or nodes that
//            overflow -> "ERROR reading mesh file: <name>" (with a line saying
//            why for the last four); arrays that can't be allocated ->
//            allocation report "read_mesh". Each ends in a plain stop.
mesh_model read_mesh(const std::string& name);

// mesh_length_scale
//   Given:   the mesh m.
//   Returns: the length that the program's geometric tolerances are measured
//            in: the smallest cell width of m along any axis, but never more
//            than 1. So a mesh with no width below 1 keeps tolerances in file
//            units, and a finer one gets them in proportion to its cells.
//            Widths that are not positive and finite are passed over (read_mesh
//            refuses them); with none left the scale is 1.
//   Fails:   never.
double mesh_length_scale(const mesh_model& m);

}  // namespace quolvent
