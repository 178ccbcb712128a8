// The regular-grid row loop. On a regular survey over a uniform
// mesh every datum sees the same geometry up to a shift by whole cells, so the
// prism formula runs once, for the reference datum over a mesh extended on
// each side, and each row is read as a shifted sub-block of that cube.
#pragma once

#include <cstdint>
#include <vector>

#include "base/channels.hpp"
#include "model/model.hpp"
#include "sens/grid_check.hpp"
#include "sens/general_row_loop.hpp"
#include "sens/row_sink.hpp"

namespace quolvent {

// grid_row_loop
// Given: the survey s (its row length n, cell weights, column tops, mesh and
//   data); the grid of grid_check; the sink of the rows; the run's log.
// Returns: squared_sensitivity (n), the sum over the data of the weighted row squared;
//   mean_sensitivity (n), the mean over the data of the unweighted row's absolute
//   value; each datum's weighted row handed to the sink.
// Fails: "kernel2" allocation stop for the cube and the extended mesh,
//   "kernel2 g" for a thread's row; "indx /= size(g)" when top_index and n
//   disagree. An extended mesh of 2^31 cells or more, or arguments that give
//   no usable shift, send the run through general_row_loop, with a line in the log.
//   An interrupt at a row's checkpoint (out.check_interrupt) ends the loop.
void grid_row_loop(const survey& s, const grid_survey& grid, row_sink& sink,
                   std::vector<double>& squared_sensitivity, std::vector<double>& mean_sensitivity,
                   const run_log& out);

// grid_row_loop, the rows of one process: the data of `rows` handed to the sink,
// sums made n long holding the sums over them (as general_row_loop's range form). The
// cube is evaluated whole on every process that calls it.
void grid_row_loop(const survey& s, const grid_survey& grid, row_sink& sink, row_range rows,
                   row_sums& sums, const run_log& out);

// grid_shift
// Given: the offset of the reference point from a datum along one axis, in
//   cells.
// Returns: the nearest whole number of cells, halves away from 0.
// Fails: never; the caller keeps the value within the range of int32_t.
int32_t grid_shift(double cells);

}  // namespace quolvent
