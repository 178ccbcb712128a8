// WTN_MOD: the separable, periodic, orthogonal wavelet transform of a row
// laid into a cube whose extents are powers of two.
//
// The cube holds ncube values, element (k, j, i) (z, x, y, from 1) at
// 0-based place (k-1) + (j-1) nzp + (i-1) nzp nxp: z fastest, then x, then y.
#pragma once

#include <cstdint>
#include <vector>

// padded_extent
// Given: an extent n of the mesh.
// Returns: the smallest power of two not below n (1 for n of 1 or less).
// Fails: never. Calls: nothing.
int64_t padded_extent(int32_t n);

// set_padded_extents
// Given: the mesh extents ny, nx, nz.
// Returns: sets nyp, nxp, nzp and ncube.
// Fails: a cube of more than 2147483647 elements can't be addressed by the
//   32-bit positions of a compressed row: reported on screen and log, stop.
// Calls: padded_extent, report, stop_plain.
void set_padded_extents();

// set_filters
// Given: c, ncof unit-norm coefficients (from check_wavelet).
// Returns: fills the low-pass and high-pass filters and their offset.
// Fails: never. Calls: nothing.
void set_filters(const std::vector<double>& c, int32_t ncof);

// row_to_cube
// Given: x, a row of len values; y, a cube of ncube values.
// Returns: y holds the row at its cells (through active_map when len is
//   nactive, a plain copy in cell order when len is ncell_total), 0 elsewhere.
// Fails: any other len stops with "size(x) /= # of cells".
// Calls: stop_text.
void row_to_cube(const double* x, int64_t len, double* y);

// cube_to_row
// Given: y, a cube; x, a row of len values.
// Returns: each cell's value of y in its place of x, the same mapping as
//   row_to_cube; padding is dropped and places no cell addresses are kept.
// Fails: a len that is neither count stops with "size(x) /= # of cells".
// Calls: stop_text.
void cube_to_row(double* x, int64_t len, const double* y);

// transform_cube
// Given: a, a cube of ncube values; isign +1 forward, -1 inverse.
// Returns: a transformed in place. Fails: never. Calls: WTN.
void transform_cube(double* a, int32_t isign);

// WTN
// Given: a, nn[0] * nn[1] * nn[2] values, nn[0] running fastest; isign >= 0
//   forward, < 0 inverse. Extents above 4 are transformed down to 4 elements;
//   extents of 4 or less are left alone.
// Returns: a transformed in place.
// Fails: never. Calls: PWT. Uses the calling thread's line buffers.
void WTN(double* a, const int32_t nn[3], int32_t isign);

// PWT
// Given: a line of n values, n a power of two, at least 4.
// Returns: one periodic filtering step in place: forward puts the smooth half
//   in front of the detail half; inverse undoes it.
// Fails: never. Calls: nothing. Uses the calling thread's line buffer.
void PWT(double* a, int32_t n, bool forward);
