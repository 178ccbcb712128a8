// The separable, periodic, orthogonal wavelet transform of a row
// laid into a cube whose extents are powers of two.
//
// The cube holds cube_size values, element (k, j, i) (z, x, y, from 1) at
// 0-based place (k-1) + (j-1) padded_nz + (i-1) padded_nz padded_nx: z fastest, then x, then y.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "base/channels.hpp"
#include "model/model.hpp"
#include "wavelet/compression.hpp"

namespace quolvent {

// line_buffers: the work space of one thread's transforms, made on its
// first transform and grown when a longer line comes, and the vector target
// they run on (0: the run's, run_vector_target, taken at the first transform).
struct line_buffers {
  std::vector<double> wk;
  std::vector<double> wksp;
  int64_t vector_target = 0;
};

// padded_extent
// Given: an extent n of the mesh.
// Returns: the smallest power of two not below n (1 for n of 1 or less).
// Fails: never.
int64_t padded_extent(int32_t n);

// set_padded_extents
// Given: the mesh; c to complete.
// Returns: c's mesh extents, padded_ny, padded_nx, padded_nz and cube_size set.
// Fails: a cube of more than 2147483647 elements can't be addressed by the
//   32-bit positions of a compressed row: reported on screen and log, stop.
void set_padded_extents(const mesh_model& mesh, compression& c);

// set_filters
// Given: c, filter_length unit-norm coefficients (from check_wavelet).
// Returns: the low-pass and high-pass filters and their offset.
// Fails: never.
transform_filters set_filters(const std::vector<double>& c, int32_t filter_length);

// row_to_cube
// Given: the compression record and the active cells of the mesh; x, a row of
//   len values; y, a cube of cube_size values.
// Returns: y holds the row at its cells (through active_map when len is
//   nactive, a plain copy in cell order when len is ncell_total), 0 elsewhere.
// Fails: any other len stops with "size(x) /= # of cells".
void row_to_cube(const compression& c, const active_cells& cells, const double* x, int64_t len,
                 double* y);

// cube_to_row
// Given: y, a cube; x, a row of len values.
// Returns: each cell's value of y in its place of x, the same mapping as
//   row_to_cube; padding is dropped and places no cell addresses are kept.
// Fails: a len that is neither count stops with "size(x) /= # of cells".
void cube_to_row(const compression& c, const active_cells& cells, double* x, int64_t len,
                 const double* y);

// interleaved_cubes: `lanes` cubes of extent[0] x extent[1] x extent[2]
// values (extent[0] fastest, as transform_3d's nn), side by side: value p of
// cube l at values[p * lanes + l]. Only the first used[d] places along each
// axis d hold values: a forward transform reads nothing beyond them.
struct interleaved_cubes {
  double* values = nullptr;
  int32_t extent[3] = {0, 0, 0};
  int32_t used[3] = {0, 0, 0};
  std::size_t lanes = 1;
};

// lanes_of_compression: the interleaved cubes of c's padded cube, the mesh's
// extents used, over values.
interleaved_cubes lanes_of_compression(const compression& c, double* values, std::size_t lanes);

// share_range: the first and one past the last of count items in share part
// of parts (even shares in order, the larger ones last).
std::pair<int64_t, int64_t> share_range(int64_t count, std::size_t part, std::size_t parts);

// transform_axis
// Given: the filters; interleaved cubes; an axis (0, 1, 2); isign >= 0
//   forward, < 0 inverse; the share `part` of `parts` of the axis's lines
//   to transform; the calling thread's line buffers.
// Returns: the share's lines transformed in place by all the steps of
//   transform_3d along the axis. Axes 0, 1, 2 in turn, each done in every
//   share before the next starts, give each cube what transform_3d gives it,
//   bit for bit (but for the sign of a zero); forward, the places beyond the
//   used extents hold what zeros there would have given, whatever they held.
//   How the lines are shared doesn't change a value. Along axes 0 and 1 a
//   share is whole planes along axis 2 (of used[2] planes forward, extent[2]
//   inverse), the same for both axes: a thread can run both on its share
//   without waiting for the others, and plane by plane (parts: the count of
//   planes) while the plane is in cache.
// Fails: never.
void transform_axis(const transform_filters& f, const interleaved_cubes& cubes, int axis,
                    int32_t isign, std::size_t part, std::size_t parts, line_buffers& lb);

// block_layout: how a block of rows holds the lanes of interleaved cubes:
// lane l of cell c at x[c * stride + l] for l < columns (the cubes' other
// lanes are 0 going in, left out coming back), times scale[c] either way
// (scale nullptr: as they are).
struct block_layout {
  std::size_t stride = 1, columns = 1;
  const double* scale = nullptr;
};

// block_to_cubes
// Given: the compression record and the active cells; x, a block of rows of
//   len values (len as row_to_cube takes it) laid out as `layout` says; the
//   interleaved cubes of c (lanes_of_compression); the share part of parts
//   of the mesh's planes (y).
// Returns: each lane's row at its cells in the share's planes of its cube, 0
//   at cells no row value addresses; places beyond the mesh left as they are.
// Fails: a len that is neither count stops with "size(x) /= # of cells".
void block_to_cubes(const compression& c, const active_cells& cells, const double* x,
                    int64_t len, const block_layout& layout, const interleaved_cubes& cubes,
                    std::size_t part, std::size_t parts);

// cubes_to_block
// Given: as block_to_cubes, x to fill.
// Returns: the cells of the share's planes taken from the cubes into x
//   (the mapping of block_to_cubes, as cube_to_row's).
// Fails: as block_to_cubes.
void cubes_to_block(const compression& c, const active_cells& cells, double* x, int64_t len,
                    const block_layout& layout, const interleaved_cubes& cubes, std::size_t part,
                    std::size_t parts);

// transform_cube
// Given: a, a cube of cube_size values; isign +1 forward, -1 inverse; the
//   calling thread's line buffers.
// Returns: a transformed in place. Fails: never.
void transform_cube(const compression& c, double* a, int32_t isign, line_buffers& lb);

// transform_cube_parallel
// Given: as transform_cube, without line buffers; not called from inside a
//   parallel region (it would run on one thread there).
// Returns: a as transform_cube leaves it, bit for bit: the lines of each
//   axis's pass shared among the threads of a parallel region of its own,
//   each with line buffers of its own.
// Fails: no memory for the line buffers: std::bad_alloc, a left as it was.
void transform_cube_parallel(const compression& c, double* a, int32_t isign);

// row_coefficients
// Given: the compression record and the active cells; x, a row of len
//   values; y, a cube of cube_size values (its contents don't matter); the
//   calling thread's line buffers.
// Returns: y holds the forward transform of the cube row_to_cube makes of x,
//   the same values to the last bit (but for the sign of a zero), made plane
//   by plane without the padding ever being filled or read; the result is
//   the largest magnitude in y.
// Fails: a len that is neither count stops with "size(x) /= # of cells".
double row_coefficients(const compression& c, const active_cells& cells, const double* x,
                        int64_t len, double* y, line_buffers& lb);

// transform_3d
// Given: the filters; a, nn[0] * nn[1] * nn[2] values, nn[0] running fastest;
//   isign >= 0 forward, < 0 inverse. Extents above 4 are transformed down to
//   4 elements; extents of 4 or less are left alone.
// Returns: a transformed in place, several lines at a time on the vector
//   target of lb: each value as filter_step along each axis gives it, to the last
//   bit (but for the sign of a zero).
// Fails: never.
void transform_3d(const transform_filters& f, double* a, const int32_t nn[3], int32_t isign,
                  line_buffers& lb);

// filter_step
// Given: the filters; a line of n values, n a power of two, at least 4; a
//   work line w of at least n values.
// Returns: one periodic filtering step in place: forward puts the smooth half
//   in front of the detail half; inverse undoes it.
// Fails: never.
void filter_step(const transform_filters& f, double* a, int32_t n, bool forward, double* w);

}  // namespace quolvent
