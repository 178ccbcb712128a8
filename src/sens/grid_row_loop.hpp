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

// shift_plan: the shift of every datum's sub-block, in cells, and the growth
// of the mesh on each side that keeps every sub-block inside the cube.
struct shift_plan {
  std::vector<int32_t> iy, ix;
  int32_t hy = 0, hx = 0;
  int32_t ny2 = 0, nx2 = 0;
  std::size_t cube = 0;  // nz * ny2 * nx2
};

enum class plan_status { ok, unusable, too_large };

// plan_grid
// Given: the survey s and the grid of grid_check; the run's log.
// Returns: true with the shifts of every datum; false, with a line in the
//   log, when the extended mesh would reach 2^31 cells or the grid gives no
//   usable shift: the rows are then the general loop's.
// Fails: "indx /= size(g)" when top_index and n disagree, "size(weights) /= n".
bool plan_grid(const survey& s, const grid_survey& grid, shift_plan& plan, const run_log& out);

// reference_cube
// Given: the survey, the grid and its plan; the run's log.
// Returns: the reference datum's row over the extended mesh of the plan,
//   every column full: the cube every row is a sub-block of, cell (j', i', k)
//   at ((j'-1) nx2 + i'-1) nz + k-1.
// Fails: "kernel2" allocation stop; the stops of prism_row.
std::vector<double> reference_cube(const survey& s, const grid_survey& grid,
                                   const shift_plan& plan, const run_log& out);

// grid_shift
// Given: the offset of the reference point from a datum along one axis, in
//   cells.
// Returns: the nearest whole number of cells, halves away from 0.
// Fails: never; the caller keeps the value within the range of int32_t.
int32_t grid_shift(double cells);

}  // namespace quolvent
