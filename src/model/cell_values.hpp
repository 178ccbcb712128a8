// Cell-value sources: a constant or a file of one value per mesh cell.
#pragma once

#include <span>
#include <string>

#include "base/channels.hpp"
#include "model/model.hpp"

namespace quolvent {

// read_cell_values
//   Given:   source, "VALUE " and a number, or a file name; label, the word
//            for messages ("weighting"); the active cells; model, sized
//            nactive; out, the run's log.
//   Returns: model filled in row order: every entry the constant, or the
//            file's value of each active cell (file order iy, ix, iz, one
//            value per line, cells above the ground present but dropped).
//            Writes one line to the log saying where the values came from.
//   Fails:   model not of length nactive -> "size(model) /= ncell" on the
//            error stream; a constant that can't be read, a missing file, a
//            file that ends early, a value that can't be read, one value too
//            many -> their reports on screen and log. Each ends in a stop.
void read_cell_values(const std::string& source, const std::string& label,
                      const active_cells& cells, std::span<double> model, const run_log& out);

}  // namespace quolvent
