// The ground: from the topography points to the column tops, through a
// Delaunay triangulation and the surface sampled over the mesh.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/channels.hpp"
#include "model/model.hpp"
#include "topo/topo_reader.hpp"

namespace quolvent {

// read_topography
//   Given:   the topography file name of the control file; the mesh; the
//            run's log.
//   Returns: top_index, ny x nx (iy fastest): all 0 when the name begins with
//            exactly "null" or "NULL" (no file is opened), otherwise the tops
//            of the ground of the file (read_topo_file, ground_tops).
//   Fails:   the stops of read_topo_file and ground_tops.
std::vector<int32_t> read_topography(const std::string& file_name, const mesh_model& mesh,
                                     const run_log& out);

// ground_tops
//   Given:   the topography points, the mesh, the run's log.
//   Returns: top_index, ny x nx (iy fastest), by column_tops from the surface
//            through the points sampled over every node line and cell
//            mid-line. Plan corners of the mesh beyond the points, farther
//            than a quarter cell from every point, are added as nodes with
//            the elevation of the point nearest to them. Inside, the nodes
//            hold the northing as their first coordinate. Warns ("Warning:
//            Topography region is not large enough.") and goes on when the
//            points cover less than 0.3 of the mesh plan.
//   Fails:   points outside the mesh -> "Error: Topography is outside the
//            mesh."; more points than 32-bit list positions can hold;
//            coincident points -> each listed, then "Error: <count> duplicate
//            points found in topography file."; all nodes on one line ->
//            "Error: Points in the topography file are collinear.". Each ends
//            in a stop. `name` names the file in the messages.
std::vector<int32_t> ground_tops(const topo_points& points, const mesh_model& mesh,
                                 const std::string& name, const run_log& out);

}  // namespace quolvent
