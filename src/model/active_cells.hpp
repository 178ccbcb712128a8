// Active cells: which cells take part in a row, and the place of each.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/channels.hpp"
#include "model/model.hpp"

namespace quolvent {

// get_active_cells
//   Given:   file_name, "null"/"NULL" (first four characters) for no flag
//            file, else a file of nx*ny*nz flags -1, 0, 1; top_index(iy, ix),
//            ny*nx values, iy fastest, of the mesh; out, the run's log.
//   Returns: the active cells: active_map(iz, ix, iy) (> 0 the place
//            in a row, 0 no part, < 0 flagged "inf") and the counts; the
//            counts are written to the log.
//   Fails:   missing flag file -> file-not-found report "active cells"; too
//            few values, a bad value, one value too many, a flag outside
//            -1..1 -> their reports; no active cell -> "ERROR: all cells are
//            inactive."; arrays that can't be allocated -> allocation report
//            "get_active_cells". Each ends in a plain stop.
active_cells get_active_cells(const std::string& file_name, const mesh_model& mesh,
                              const std::vector<int32_t>& top_index, const run_log& out);

}  // namespace quolvent
