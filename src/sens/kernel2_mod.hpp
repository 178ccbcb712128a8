// KERNEL2_MOD: the regular-grid row loop. On a regular survey over a uniform
// mesh every datum sees the same geometry up to a shift by whole cells, so the
// prism formula runs once, for the reference datum over a mesh extended on
// each side, and each row is read as a shifted sub-block of that cube.
#pragma once

#include <cstdint>
#include <vector>

// KERNEL2
// Given: n, the row length (cells below the ground); wtz (n), the cell
//   weighting; top_index (ny by nx, y fastest); obs_type (ndata); ref_datum,
//   cell_dy, cell_dx from grid_check. Reads the shared mesh and obs records
//   and the matrix store state; the calling thread's direction products must
//   be set (setup_compression does it).
// Returns: sens_sq (n), the sum over the data of the weighted row squared;
//   sens_avg (n), the mean over the data of the unweighted row's absolute
//   value; each datum's weighted row in g_compressed or as a column of g_full.
// Fails: "kernel2" allocation stop for the cube and the extended mesh,
//   "kernel2 g" for a thread's row; "indx /= size(g)" when top_index and n
//   disagree. An extended mesh of 2^31 cells or more, or arguments that give
//   no usable shift, send the run through KERNEL, with a line in the log.
// Calls: DEALLOC_AT, sens_row, report_progress, KERNEL (fallback),
//   begin_rows, begin_thread_rows, COMPRESS_ROW, dot_compressed,
//   end_thread_rows, end_rows.
void KERNEL2(int32_t n, const std::vector<double>& wtz, const std::vector<int32_t>& top_index,
             const std::vector<int32_t>& obs_type, int32_t ref_datum, double cell_dy,
             double cell_dx, std::vector<double>& sens_sq, std::vector<double>& sens_avg);

// grid_shift
// Given: the offset of the reference point from a datum along one axis, in
//   cells.
// Returns: the nearest whole number of cells, halves away from 0.
// Fails: never; the caller keeps the value within the range of int32_t.
// Calls: nothing.
int32_t grid_shift(double cells);
