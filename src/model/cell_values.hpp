// Cell-value sources: a constant or a file of one value per mesh cell.
#pragma once

#include <string>
#include <vector>

// read_cell_values
//   Given:   source, "VALUE " and a number, or a file name; label, the word
//            for messages ("weighting"); model, sized nactive; the globals
//            `mesh` and `cells` (active_map).
//   Returns: model filled in row order: every entry the constant, or the
//            file's value of each active cell (file order iy, ix, iz, one
//            value per line, cells above the ground present but dropped).
//            Writes one line to the log saying where the values came from.
//   Fails:   model not of length nactive -> "size(model) /= ncell" on the
//            error stream; a constant that can't be read, a missing file, a
//            file that ends early, a value that can't be read, one value too
//            many -> their reports on screen and log. Each ends in a stop.
//   Calls:   ff_read_text, text_open, ff_read, report, report_log,
//            file_not_found, stop_text, fmt_*.
void read_cell_values(const std::string& source, const std::string& label,
                      std::vector<double>& model);
