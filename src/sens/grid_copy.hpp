// The copy of one row of the regular-grid loop out of the cube
// of the extended mesh, several cells at a time on a vector target
// (base/vector_target.hpp).
#pragma once

#include <cstddef>
#include <cstdint>

namespace quolvent {

// grid_copy_in: the datum's sub-block of the cube (cube points at its first
// column; lines of y and columns of x at their strides, nz values a column),
// the column tops top[j + i*ny], and the cell weights (one per row cell).
struct grid_copy_in {
  const double* cube;
  std::size_t line_stride, col_stride;
  const int32_t* top;
  int32_t ny, nx, nz;
  const double* weights;
};

// grid_copy_row
//   Given:   the target; in; avg and sq, the thread's sums (one per row
//            cell); g, a row, or full, the row's place in the store (the
//            other nullptr).
//   Returns: for each cell below the tops in row order (y, x, z), v = its
//            value / its weight to g, or rounded to 32 bits to full; avg
//            plus the value's magnitude, sq plus v v: the arithmetic of one
//            cell at a time, to the bit. Runs of columns that follow each
//            other in the cube are copied as one.
//   Fails:   never.
void grid_copy_row(int64_t target, const grid_copy_in& in, double* avg, double* sq, double* g,
                   float* full);

}  // namespace quolvent
