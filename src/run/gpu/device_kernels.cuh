// The kernels of rows on a device and what they take. Every value is a
// 64-bit float; the formula and the transform are those of
// sens/prism_cell.hpp and wavelet/transform_lines.hpp, which the host tests
// check against the program's own.
#pragma once

#include <cuda_runtime.h>

#include <cstdint>

#include "run/device_rows.hpp"
#include "sens/prism_cell.hpp"
#include "wavelet/transform_lines.hpp"

namespace quolvent {

// device_mesh: the mesh on the device: nodes, the cells of a row (their
// lower corner nodes, cell_corner_nodes) and each cell's place in the cube.
struct device_mesh {
  const double* yn;
  const double* xn;
  const double* zn;
  const int32_t* corner;  // n
  const int64_t* cube_place;  // n (compressed runs)
  const double* weights;  // n
  int32_t ny, nx, nz;
  int64_t n;
};

// device_batch: the device arrays of one batch of `rows` rows.
struct device_batch {
  node_value* nodes;      // rows x (nz+1)(nx+1)(ny+1)
  double* g;              // rows x n: the row, unweighted, then weighted
  int32_t* flagged;       // rows: cells given 0 (no value)
  double* test_datum;     // rows
  double* group_avg;      // (rows/group + 1) x n
  double* group_sq;       // (rows/group + 1) x n
  double* cube;           // rows x cube
  double* lines;          // rows x max(cube, 2): work lines of the transform
  int32_t* kept_idx;      // rows x cube: kept positions in each row's own place
  float* kept_val;        // rows x cube
  int32_t* counts;        // rows
  int64_t* offsets;       // rows + 1: where each row's kept ones start when gathered
  double* energy;         // rows
  double* lost;           // rows
  int32_t* packed_idx;    // rows x cube: every row's kept ones, one row after another
  float* packed_val;
};

// launch_general_rows: rows [0, count) of the batch for data[0..count) by the
// prism formula; flagged counts the cells without a value (given 0).
void launch_general_rows(const device_mesh& m, const device_datum* data, int32_t count,
                         double shift, double edge_sq, double scale, const device_batch& b,
                         cudaStream_t stream);

// launch_grid_rows: rows [0, count) as sub-blocks of the cube gbig at
// base[0..count) (the first cell of each datum's block); nx2 the extended
// mesh's x count.
void launch_grid_rows(const device_mesh& m, const double* gbig, const int64_t* base,
                      int32_t nx2, int32_t count, const device_batch& b, cudaStream_t stream);

// launch_finish_rows: the datum of the test model (value 0: none) from each
// unweighted row, then the rows weighted and the sums of each group of
// `group` data (sum_group_rows: |row| before the weighting, the weighted row
// squared) in datum order; the batch's first datum is first_datum (0-based).
void launch_finish_rows(const device_mesh& m, int32_t count, int32_t first_datum, int32_t group,
                        double test_model, const device_batch& b, cudaStream_t stream);

// launch_compress_rows: each weighted row into its cube, transformed forward,
// its coefficients at or above threshold[r] times the row's largest packed,
// then every row's gathered one after another (offsets[count] their total).
void launch_compress_rows(const device_mesh& m, const line_filters& f, int32_t count,
                          int32_t nyp, int32_t nxp, int32_t nzp, const double* threshold,
                          const device_batch& b, cudaStream_t stream);

}  // namespace quolvent
