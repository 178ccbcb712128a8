// Observations: the data file, and the split of the data into surface and
// borehole data.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/channels.hpp"
#include "model/model.hpp"

namespace quolvent {

// read_data_file
//   Given:   name, the observation file (trailing blanks are cut).
//   Returns: the data: field, direction, idir, ndata and the
//            positions (and per-datum directions when idir is 0), in file order.
//   Fails:   missing file -> file-not-found report "data"; a line missing
//            -> "ERROR: end reached when reading data file <name>"; a line
//            that can't be parsed -> "ERROR reading data file <name>" and the
//            line; idir not 0 or 1 -> "ERROR: idir in data file should be 0
//            or 1." and the line; ndata below 1 -> "ERROR: Number of data
//            should be positive." and the name; arrays that can't grow ->
//            allocation report "read_data_file". Each ends in a plain stop.
obs_set read_data_file(const std::string& name);

// node_tolerance: how near a node a position counts as on it: 1e-6 of the
// mesh's length scale (mesh_length_scale), so 1e-6 in file units on a mesh
// with no width below 1.
inline double node_tolerance(double length_scale) { return 1e-6 * length_scale; }

// locate
//   Given:   v, nodes (m + 1 ascending values, 0-based storage), m, and tol,
//            the node tolerance (node_tolerance).
//   Returns: cell, the 1-based cell index of v (0 below the first node, m + 1
//            beyond the last; a value on an inner node gets the cell of lower
//            index), and node, the first node not below v (the last one when
//            v is beyond all). Values within tol of nodes(1) count as on it.
//   Fails:   never.
void locate(double v, const std::vector<double>& nodes, int32_t m, double tol, int32_t& cell,
            double& node);

// data_split: the kind of each datum and of the whole survey.
struct data_split {
  std::vector<datum_kind> datum_kinds;
  datum_kind survey_kind = datum_kind::mixed;
};

// classify_data
//   Given:   the mesh, its length scale (mesh_length_scale), the data, the
//            column tops top_index (ny x nx), the run's log. A position counts
//            as on a node within node_tolerance(length_scale) of it.
//   Returns: datum_kinds(i) surface or borehole for each datum; survey_kind
//            surface when all are, borehole when all are, else mixed. Writes
//            the group counts to screen and log, and the borehole indices to
//            the log.
//   Fails:   a borehole datum on a cell edge is logged ("Point ... is on an
//            edge."); after all data, any such datum ends the run with
//            "Error: there are data points on cell edges." and a stop.
data_split classify_data(const mesh_model& mesh, double length_scale, const obs_set& obs,
                         const std::vector<int32_t>& top_index, const run_log& out);

}  // namespace quolvent
