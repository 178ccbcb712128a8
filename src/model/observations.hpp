// Observations: the data file, and the split of the data into surface and
// borehole data.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// read_data_file
//   Given:   name, the observation file (trailing blanks are cut).
//   Returns: the global `obs` filled: field, direction, idir, ndata and the
//            positions (and per-datum directions when idir is 0), in file order.
//   Fails:   missing file -> file-not-found report "data"; a line missing
//            -> "ERROR: end reached when reading data file <name>"; a line
//            that can't be parsed -> "ERROR reading data file <name>" and the
//            line; idir not 0 or 1 -> "ERROR: idir in data file should be 0
//            or 1." and the line; ndata below 1 -> "ERROR: Number of data
//            should be positive." and the name; arrays that can't grow ->
//            allocation report "read_data_file". Each ends in a plain stop.
//   Calls:   text_open, next_data_line, ff_read_text, report, file_not_found,
//            alloc_failed.
void read_data_file(const std::string& name);

// locate
//   Given:   v, nodes (m + 1 ascending values, 0-based storage), m.
//   Returns: cell, the 1-based cell index of v (0 below the first node, m + 1
//            beyond the last; a value on an inner node gets the cell of lower
//            index), and node, the first node not below v (the last one when
//            v is beyond all). Values within 1e-6 of nodes(1) count as on it.
//   Fails:   never.
//   Calls:   nothing.
void locate(double v, const std::vector<double>& nodes, int32_t m, int32_t& cell, double& node);

// classify_data
//   Given:   obs_type, sized ndata; the globals `mesh`, `obs`, `top_index`.
//   Returns: obs_type(i) = +1 for a surface datum, -1 for a borehole datum;
//            data_kind = +1 all surface, -1 all borehole, 0 mixed. Writes the
//            group counts to screen and log, and the borehole indices to the
//            log.
//   Fails:   a borehole datum on a cell edge is logged ("Point ... is on an
//            edge."); after all data, any such datum ends the run with
//            "Error: there are data points on cell edges." and a plain stop.
//   Calls:   locate, report, report_log, stop_plain, fmt_*.
void classify_data(std::vector<int32_t>& obs_type, int32_t& data_kind);
