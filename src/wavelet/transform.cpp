// Many lines are filtered at once (wavelet_lanes): along the
// strided axes the lines lie side by side already, a block of them at a time
// so that the block stays in cache; the contiguous lines (z) are turned into
// such a block first. Nothing is allocated per row.
#include "wavelet/transform.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>

#include "base/format.hpp"
#include "base/stop.hpp"
#include "base/stop_latch.hpp"
#include "base/vector_target.hpp"
#include "wavelet/wavelet_lanes.hpp"

namespace quolvent {

namespace {

constexpr int64_t max_position = 2147483647;

// Contiguous lines (z) turned side by side this many at a time.
constexpr std::size_t z_block = 16;

// lane_block: how many side-by-side lines of n values to filter at a time:
// about 16 KB of them, so that the block and its work space stay in cache.
std::size_t lane_block(int64_t n, std::size_t width) {
  const std::size_t b = std::clamp<std::size_t>(2048 / static_cast<std::size_t>(n), 16, 512);
  return std::min(b, width);
}

// target_of: the vector target of lb, the run's when it has none yet.
int64_t target_of(line_buffers& lb) {
  if (lb.vector_target == 0) lb.vector_target = run_vector_target();
  return lb.vector_target;
}

// grow: v at least `size` values long.
void grow(std::vector<double>& v, std::size_t size) {
  if (v.size() < size) v.assign(size, 0.0);
}

}  // namespace

int64_t padded_extent(int32_t n) {
  if (n <= 1) return 1;
  const int p = static_cast<int>(std::log(static_cast<double>(n)) / 0.6931471805599453);
  const int64_t q = (p > 31) ? 0 : (int64_t{1} << p);
  int64_t ext = (q == n) ? n : 2 * q;
  // The logarithm can only miss by one step; make sure of the power of two.
  while (ext < n) ext *= 2;
  return ext;
}

void set_padded_extents(const mesh_model& mesh, compression& c) {
  const int64_t py = padded_extent(mesh.ny);
  const int64_t px = padded_extent(mesh.nx);
  const int64_t pz = padded_extent(mesh.nz);
  // Each factor is at most 2^32, so each partial product is tested before
  // the next multiplication can overflow.
  bool too_big = py > max_position || px > max_position || pz > max_position;
  if (!too_big) too_big = py * px > max_position;
  if (!too_big) too_big = py * px * pz > max_position;
  if (too_big) {
    stop_report({"", "ERROR: the mesh is too large for wavelet compression: the padded cube of",
                 "       " + fmt_int(py) + " x " + fmt_int(px) + " x " + fmt_int(pz) +
                     " elements has more places than the 2147483647",
                 "       that the positions of a compressed row can address.",
                 "       Use a smaller mesh, or NONE for no compression.", ""});
  }
  c.ny = mesh.ny;
  c.nx = mesh.nx;
  c.nz = mesh.nz;
  c.padded_ny = static_cast<int32_t>(py);
  c.padded_nx = static_cast<int32_t>(px);
  c.padded_nz = static_cast<int32_t>(pz);
  c.cube_size = py * px * pz;
}

transform_filters set_filters(const std::vector<double>& c, int32_t nc) {
  transform_filters filters;
  filters.filter_length = nc;
  filters.low_pass.assign(static_cast<std::size_t>(nc), 0.0);
  filters.high_pass.assign(static_cast<std::size_t>(nc), 0.0);
  for (int32_t k = 1; k <= nc; ++k) {
    filters.low_pass[k - 1] = c[k - 1];
    filters.high_pass[nc - k] = (k % 2 == 1) ? -c[k - 1] : c[k - 1];
  }
  filters.tap_offset = -(nc / 2);
  return filters;
}

namespace {

// row_map: 1 through active_map, 0 plain copy; stops on any other length.
int row_map(const active_cells& cells, int64_t len) {
  if (len == cells.nactive) return 1;
  if (len == cells.ncell_total) return 0;
  stop_text("size(x) /= # of cells");
}

}  // namespace

interleaved_cubes lanes_of_compression(const compression& c, double* values, std::size_t lanes) {
  interleaved_cubes cubes;
  cubes.values = values;
  cubes.lanes = lanes;
  const int32_t extent[3] = {c.padded_nz, c.padded_nx, c.padded_ny}, used[3] = {c.nz, c.nx, c.ny};
  for (int d = 0; d < 3; ++d) cubes.extent[d] = extent[d], cubes.used[d] = used[d];
  return cubes;
}

std::pair<int64_t, int64_t> share_range(int64_t count, std::size_t part, std::size_t parts) {
  const int64_t p = static_cast<int64_t>(part), q = static_cast<int64_t>(parts);
  return {count * p / q, count * (p + 1) / q};
}

namespace {

// copy_lanes: the values of one place, lanes of them (a call of the library's
// copy would cost more than the copy of the one value of a row's cube).
inline void copy_lanes(const double* in, double* out, std::size_t lanes) {
  if (lanes == 1)
    *out = *in;
  else
    std::copy(in, in + lanes, out);
}

// for_each_column: f(i, j, column, cell) for each column of the mesh in the
// share's planes: column, its first place in the cubes (lanes values a
// place); cell, the index in cell order of its first cell.
template <typename F>
void for_each_column(const compression& c, const interleaved_cubes& cubes, std::size_t part,
                     std::size_t parts, F f) {
  const std::size_t zp = static_cast<std::size_t>(c.padded_nz);
  const std::size_t plane = zp * static_cast<std::size_t>(c.padded_nx);
  const auto [first, last] = share_range(c.ny, part, parts);
  for (int64_t i = first; i < last; ++i)
    for (int32_t j = 0; j < c.nx; ++j) {
      const std::size_t y = static_cast<std::size_t>(i), x = static_cast<std::size_t>(j);
      f(cubes.values + (x * zp + y * plane) * cubes.lanes,
        static_cast<std::size_t>(c.nz) * (x + static_cast<std::size_t>(c.nx) * y));
    }
}

}  // namespace

void block_to_cubes(const compression& c, const active_cells& cells, const double* x,
                    int64_t len, const block_layout& layout, const interleaved_cubes& cubes,
                    std::size_t part, std::size_t parts) {
  const int use_map = row_map(cells, len);
  const std::size_t lanes = cubes.lanes, nz = static_cast<std::size_t>(c.nz);
  const std::size_t columns = std::min(layout.columns, lanes);
  const bool plain = !layout.scale && columns == lanes;
  for_each_column(c, cubes, part, parts, [&](double* col, std::size_t cell) {
    if (plain && lanes == 1) {  // one row as it is: the loop of every row's cube
      const int32_t* map = cells.active_map.data() + cell;
      for (std::size_t k = 0; k < nz; ++k)
        col[k] = use_map ? (map[k] > 0 ? x[map[k] - 1] : 0.0) : x[cell + k];
      return;
    }
    for (std::size_t k = 0; k < nz; ++k) {
      double* out = col + k * lanes;
      const int32_t at = use_map ? cells.active_map[cell + k] : 1;
      if (at <= 0) {
        std::fill(out, out + lanes, 0.0);
        continue;
      }
      const std::size_t from = use_map ? static_cast<std::size_t>(at - 1) : cell + k;
      const double* in = x + from * layout.stride;
      if (plain) {
        copy_lanes(in, out, lanes);
        continue;
      }
      const double scale = layout.scale ? layout.scale[from] : 1.0;
      for (std::size_t l = 0; l < columns; ++l) out[l] = scale * in[l];
      std::fill(out + columns, out + lanes, 0.0);
    }
  });
}

void cubes_to_block(const compression& c, const active_cells& cells, double* x, int64_t len,
                    const block_layout& layout, const interleaved_cubes& cubes, std::size_t part,
                    std::size_t parts) {
  const int use_map = row_map(cells, len);
  const std::size_t lanes = cubes.lanes, nz = static_cast<std::size_t>(c.nz);
  const std::size_t columns = std::min(layout.columns, lanes);
  const bool plain = !layout.scale && columns == lanes;
  for_each_column(c, cubes, part, parts, [&](const double* col, std::size_t cell) {
    for (std::size_t k = 0; k < nz; ++k) {
      const int32_t at = use_map ? cells.active_map[cell + k] : 1;
      if (at <= 0) continue;
      const std::size_t to = use_map ? static_cast<std::size_t>(at - 1) : cell + k;
      const double* in = col + k * lanes;
      double* out = x + to * layout.stride;
      if (plain) {
        copy_lanes(in, out, lanes);
        continue;
      }
      const double scale = layout.scale ? layout.scale[to] : 1.0;
      for (std::size_t l = 0; l < columns; ++l) out[l] = in[l] * scale;
    }
  });
}

void row_to_cube(const compression& c, const active_cells& cells, const double* x, int64_t len,
                 double* y) {
  block_to_cubes(c, cells, x, len, {}, lanes_of_compression(c, y, 1), 0, 1);
  // The padding: past nz in the mesh's columns, whole columns beyond it.
  const std::size_t zp = static_cast<std::size_t>(c.padded_nz);
  for (int32_t i = 0; i < c.padded_ny; ++i)
    for (int32_t j = 0; j < c.padded_nx; ++j) {
      double* col = y + (static_cast<std::size_t>(j) + static_cast<std::size_t>(i) *
                                                           static_cast<std::size_t>(c.padded_nx)) *
                            zp;
      std::fill(col + (i < c.ny && j < c.nx ? static_cast<std::size_t>(c.nz) : 0), col + zp, 0.0);
    }
}

void cube_to_row(const compression& c, const active_cells& cells, double* x, int64_t len,
                 const double* y) {
  // Only read: the cubes' values are written by block_to_cubes alone.
  cubes_to_block(c, cells, x, len, {}, lanes_of_compression(c, const_cast<double*>(y), 1), 0,
                 1);
}

void transform_cube(const compression& c, double* a, int32_t isign, line_buffers& lb) {
  const int32_t nn[3] = {c.padded_nz, c.padded_nx, c.padded_ny};
  transform_3d(c.filters, a, nn, isign, lb);
}

namespace {

// pwt_step: one filtering step with NC taps (NC of 0: the run-time count),
// so that the usual filter lengths get loops of fixed length.
template <int NC>
void pwt_step(const transform_filters& filters, double* a, int64_t n, bool forward, double* w) {
  const int32_t nc = NC > 0 ? NC : filters.filter_length;
  const double* cc = filters.low_pass.data();
  const double* cr = filters.high_pass.data();
  const int64_t h = n / 2;
  const int64_t mask = n - 1;
  // filter_length * n keeps the sum positive; the mask is the periodic wrap.
  const int64_t base = static_cast<int64_t>(nc) * n + filters.tap_offset;
  // Away from the ends of the line the taps don't wrap: there the positions
  // are plain offsets, taken in the same order, so the sums are the same.
  const int64_t off = filters.tap_offset + 1;  // unwrapped, tap k of pair i is at off + 2i + k
  auto no_wrap = [&](int64_t i) { return off + 2 * i + 1 >= 0 && off + 2 * i + nc < n; };
  if (forward) {
    for (int64_t i = 0; i < h; ++i) {
      double lo = 0.0, hi = 0.0;
      if (no_wrap(i)) {
        const double* v = a + (off + 2 * i);
        for (int32_t k = 1; k <= nc; ++k) {
          lo += cc[k - 1] * v[k];
          hi += cr[k - 1] * v[k];
        }
      } else {
        for (int32_t k = 1; k <= nc; ++k) {
          const double v = a[(base + 2 * i + 1 + k) & mask];
          lo += cc[k - 1] * v;
          hi += cr[k - 1] * v;
        }
      }
      w[i] = lo;
      w[i + h] = hi;
    }
  } else {
    std::fill(w, w + n, 0.0);
    for (int64_t i = 0; i < h; ++i) {
      const double p = a[i];
      const double q = a[i + h];
      if (no_wrap(i)) {
        double* v = w + (off + 2 * i);
        for (int32_t k = 1; k <= nc; ++k) v[k] += cc[k - 1] * p + cr[k - 1] * q;
      } else {
        for (int32_t k = 1; k <= nc; ++k)
          w[(base + 2 * i + 1 + k) & mask] += cc[k - 1] * p + cr[k - 1] * q;
      }
    }
  }
  std::copy(w, w + n, a);
}

}  // namespace

void filter_step(const transform_filters& filters, double* a, int32_t n, bool forward, double* w) {
  if (n < 4) return;
  switch (filters.filter_length) {
    case 2:
      pwt_step<2>(filters, a, n, forward, w);
      break;
    case 4:
      pwt_step<4>(filters, a, n, forward, w);
      break;
    case 6:
      pwt_step<6>(filters, a, n, forward, w);
      break;
    case 8:
      pwt_step<8>(filters, a, n, forward, w);
      break;
    case 10:
      pwt_step<10>(filters, a, n, forward, w);
      break;
    case 12:
      pwt_step<12>(filters, a, n, forward, w);
      break;
    default:
      pwt_step<0>(filters, a, n, forward, w);
      break;
  }
}

namespace {

// lines_per_block: along axis 0, how many lines of `lanes` values are put
// side by side, z_block values wide; eight or more cubes' lines are side by
// side already (1: in place).
std::size_t lines_per_block(std::size_t lanes) {
  return lanes >= 8 ? 1 : std::max<std::size_t>(1, z_block / lanes);
}

// side_by_side: per_block lines of ln places (the first nb of them from
// src, lanes values a place, L of them, or `lanes` when L is 0, so that the
// usual single cube gets loops of fixed length) into wk, place after place,
// the lines' lanes side by side; the first `used` places. Returns whether
// any value is not 0.
template <std::size_t L>
bool side_by_side(const double* src, std::size_t ln, std::size_t used, std::size_t lanes,
                  std::size_t per_block, std::size_t nb, double* wk) {
  const std::size_t nl = L ? L : lanes, bw = per_block * nl;
  bool any = false;
  for (std::size_t b = 0; b < per_block; ++b)
    for (std::size_t p = 0; p < used; ++p)
      for (std::size_t l = 0; l < nl; ++l) {
        const double v = b < nb ? src[(b * ln + p) * nl + l] : 0.0;
        wk[p * bw + b * nl + l] = v;
        any |= v != 0.0;
      }
  return any;
}

// back_in_line: the first nb lines of wk back into src, as side_by_side took them.
template <std::size_t L>
void back_in_line(const double* wk, std::size_t ln, std::size_t lanes, std::size_t per_block,
                  std::size_t nb, double* src) {
  const std::size_t nl = L ? L : lanes, bw = per_block * nl;
  for (std::size_t b = 0; b < nb; ++b)
    for (std::size_t p = 0; p < ln; ++p)
      for (std::size_t l = 0; l < nl; ++l) src[(b * ln + p) * nl + l] = wk[p * bw + b * nl + l];
}

// width_across: the lines side by side along axis 1 or 2.
std::size_t width_across(const interleaved_cubes& cubes, int axis) {
  std::size_t width = cubes.lanes;
  for (int d = 0; d < axis; ++d) width *= static_cast<std::size_t>(cubes.extent[d]);
  return width;
}

// fit_buffers: lb long enough for every block of transform_axis along axis.
void fit_buffers(const interleaved_cubes& cubes, int axis, line_buffers& lb) {
  const std::size_t ln = static_cast<std::size_t>(cubes.extent[axis]);
  if (ln <= 4) return;
  if (axis == 0) {
    const std::size_t per_block = lines_per_block(cubes.lanes), bw = per_block * cubes.lanes;
    if (per_block > 1) grow(lb.wk, ln * bw);
    grow(lb.wksp, ln * bw);
  } else {
    grow(lb.wksp, ln * lane_block(cubes.extent[axis], width_across(cubes, axis)));
  }
}

// axis_pieces: the count of the smallest shares of transform_axis along
// axis: planes along axes 0 and 1, blocks of lines along axis 2.
int64_t axis_pieces(const interleaved_cubes& cubes, int axis, bool forward) {
  if (axis < 2) return forward ? cubes.used[2] : cubes.extent[2];
  const int64_t n = cubes.extent[2];
  if (n <= 4) return 1;
  const std::size_t width = width_across(cubes, 2), bw = lane_block(n, width);
  return static_cast<int64_t>((width + bw - 1) / bw);
}

}  // namespace

void transform_axis(const transform_filters& f, const interleaved_cubes& cubes, int axis,
                    int32_t isign, std::size_t part, std::size_t parts, line_buffers& lb) {
  const int64_t n = cubes.extent[axis];
  const bool forward = isign >= 0;
  const std::size_t ln = static_cast<std::size_t>(n), lanes = cubes.lanes;
  // Forward, only the used places along the axis are read, in the used
  // lines: the others are padding that no later axis reads.
  const int64_t m = forward ? std::min<int64_t>(cubes.used[axis], n) : n;
  const auto lines_of = [&](int d) { return forward ? cubes.used[d] : cubes.extent[d]; };
  if (n <= 4) {
    // Left alone; forward, the padding along the axis becomes the zeros it stands for.
    if (!forward || m == n) return;
    // Lines of `below` values a place, `row` of them after one another
    // (those of one plane along z), `rows` such runs a plane apart.
    std::size_t below = lanes;
    for (int d = 0; d < axis; ++d) below *= static_cast<std::size_t>(cubes.extent[d]);
    const int64_t row = axis == 0 ? lines_of(1) : 1, rows = axis == 2 ? 1 : lines_of(2);
    const std::size_t apart = axis == 0 ? ln * below * static_cast<std::size_t>(cubes.extent[1])
                                        : ln * below;
    const auto [first, last] = share_range(rows, part, parts);
    for (int64_t o = first; o < last; ++o)
      for (int64_t r = 0; r < row; ++r) {
        double* line = cubes.values + static_cast<std::size_t>(o) * apart +
                       static_cast<std::size_t>(r) * ln * below;
        std::fill(line + static_cast<std::size_t>(m) * below, line + ln * below, 0.0);
      }
    return;
  }
  const int64_t target = target_of(lb);
  if (axis == 0) {
    // Lines along memory: blocks of them put side by side in wk. A block of
    // zeros (padding, mostly) stays zeros.
    const std::size_t per_block = lines_per_block(lanes), bw = per_block * lanes;
    const bool in_place = per_block == 1;
    fit_buffers(cubes, axis, lb);
    double* wk = lb.wk.data();
    // The lines of a plane (y) in a row, a share being whole planes; done
    // at once, whole planes make one run.
    int64_t row = lines_of(1), rows = lines_of(2);
    if (parts == 1 && row == cubes.extent[1]) row *= rows, rows = 1;
    const int64_t blocks = (row + static_cast<int64_t>(per_block) - 1) / static_cast<int64_t>(per_block);
    const auto [plane0, plane1] = share_range(rows, part, parts);
    const int64_t first = plane0 * blocks, last = plane1 * blocks;
    const std::size_t used = static_cast<std::size_t>(m);
    for (int64_t job = first; job < last; ++job) {
      const int64_t b0 = (job % blocks) * static_cast<int64_t>(per_block);
      const std::size_t nb = static_cast<std::size_t>(std::min<int64_t>(per_block, row - b0));
      double* src = cubes.values + static_cast<std::size_t>((job / blocks) * cubes.extent[1] + b0) * ln * lanes;
      if (in_place) {
        if (std::any_of(src, src + used * lanes, [](double v) { return v != 0.0; }))
          lines_transform(target, f, src, lanes, lanes, n, m, forward, lb.wksp.data());
        else
          std::fill(src + used * lanes, src + ln * lanes, 0.0);
        continue;
      }
      const bool any = lanes == 1 ? side_by_side<1>(src, ln, used, lanes, per_block, nb, wk)
                                  : side_by_side<0>(src, ln, used, lanes, per_block, nb, wk);
      if (!any) {
        for (std::size_t b = 0; b < nb; ++b)
          std::fill(src + (b * ln + used) * lanes, src + (b + 1) * ln * lanes, 0.0);
        continue;
      }
      lines_transform(target, f, wk, bw, bw, n, m, forward, lb.wksp.data());
      if (lanes == 1)
        back_in_line<1>(wk, ln, lanes, per_block, nb, src);
      else
        back_in_line<0>(wk, ln, lanes, per_block, nb, src);
    }
    return;
  }
  // Lines across memory lie side by side already, `width` of them: a block
  // at a time.
  const std::size_t width = width_across(cubes, axis), bw = lane_block(n, width);
  const int64_t planes = axis == 1 ? lines_of(2) : 1;
  fit_buffers(cubes, axis, lb);
  const int64_t blocks = static_cast<int64_t>((width + bw - 1) / bw);
  // Along x a share is whole planes, those of axis 0's share; along y, blocks.
  const auto [plane0, plane1] = share_range(planes, part, parts);
  const auto [first, last] =
      axis == 1 ? std::pair{plane0 * blocks, plane1 * blocks} : share_range(blocks, part, parts);
  for (int64_t job = first; job < last; ++job) {
    const std::size_t l0 = static_cast<std::size_t>(job % blocks) * bw;
    lines_transform(target, f, cubes.values + static_cast<std::size_t>(job / blocks) * width * ln + l0,
                    width, std::min(bw, width - l0), n, m, forward, lb.wksp.data());
  }
}

void transform_3d(const transform_filters& f, double* a, const int32_t nn[3], int32_t isign,
                  line_buffers& lb) {
  interleaved_cubes cube;
  cube.values = a;
  for (int d = 0; d < 3; ++d) cube.extent[d] = cube.used[d] = nn[d];
  for (int axis = 0; axis < 3; ++axis) transform_axis(f, cube, axis, isign, 0, 1, lb);
}

void transform_cube_parallel(const compression& c, double* a, int32_t isign) {
  interleaved_cubes cube = lanes_of_compression(c, a, 1);
  for (int d = 0; d < 3; ++d) cube.used[d] = cube.extent[d];
  stop_latch latch;
#pragma omp parallel
  {
    line_buffers lb;
    latch.run([&] {
      for (int axis = 0; axis < 3; ++axis) fit_buffers(cube, axis, lb);
    });
    // Every thread knows whether all could start before any axis begins.
#pragma omp barrier
    if (!latch.stopped()) {
      for (int axis = 0; axis < 3; ++axis) {
        // Pieces handed out a few at a time: the blocks of padding cost
        // nothing, so even shares of pieces would not be even shares of work.
        const int64_t pieces = axis_pieces(cube, axis, isign >= 0);
#pragma omp for schedule(dynamic, 4)
        for (int64_t b = 0; b < pieces; ++b)
          transform_axis(c.filters, cube, axis, isign, static_cast<std::size_t>(b),
                         static_cast<std::size_t>(pieces), lb);
      }
    }
  }
  latch.rethrow();
}

double row_coefficients(const compression& c, const active_cells& cells, const double* x,
                        int64_t len, double* y, line_buffers& lb) {
  const int use_map = row_map(cells, len);
  const int64_t target = target_of(lb);
  const transform_filters& f = c.filters;
  const int32_t ny = c.ny, nx = c.nx, nz = c.nz;
  const std::size_t zp = static_cast<std::size_t>(c.padded_nz),
                    xp = static_cast<std::size_t>(c.padded_nx),
                    yp = static_cast<std::size_t>(c.padded_ny);
  const std::size_t plane = zp * xp;
  const std::size_t bx = lane_block(c.padded_nx, zp), by = lane_block(c.padded_ny, plane);
  grow(lb.wk, std::max(2 * zp + 320, yp * by));
  grow(lb.wksp, std::max(xp * bx, yp * by));
  double* wk = lb.wk.data();
  double* tmp = lb.wksp.data();
  const std::size_t cz = static_cast<std::size_t>(nz);

  // Plane by plane (y) of the mesh: the columns through z, then the plane
  // through x, while it is in cache. The padding beyond nx and ny is never
  // written before it is a coefficient: the first step along x and y reads
  // only the positions that hold the row.
  const int32_t* map = use_map ? cells.active_map.data() : nullptr;
  for (int32_t i = 0; i < ny; ++i) {
    double* pl = y + static_cast<std::size_t>(i) * plane;
    const std::size_t first = cz * static_cast<std::size_t>(nx) * static_cast<std::size_t>(i);
    columns_forward(target, f, x, map ? map + first : nullptr, map ? nullptr : x + first, nx, nz,
                    c.padded_nz, pl, wk);
    if (xp > 4) {
      for (std::size_t l0 = 0; l0 < zp; l0 += bx)
        lines_transform(target, f, pl + l0, zp, std::min(bx, zp - l0), c.padded_nx, nx, true, tmp);
    } else {
      std::fill(pl + static_cast<std::size_t>(nx) * zp, pl + plane, 0.0);
    }
  }
  if (yp <= 4) {
    std::fill(y + static_cast<std::size_t>(ny) * plane, y + yp * plane, 0.0);
    return max_abs(target, y, static_cast<std::size_t>(c.cube_size));
  }
  // Through y a block of lines at a time, copied out of the cube and back:
  // in place, the lines' values a plane apart would crowd the same few
  // places of the cache. The largest magnitude is taken on the way back.
  double m = 0.0;
  double* blk = lb.wk.data();
  for (std::size_t l0 = 0; l0 < plane; l0 += by) {
    const std::size_t w = std::min(by, plane - l0);
    copy_rows_max(target, y + l0, plane, blk, w, w, ny);
    lines_transform(target, f, blk, w, w, c.padded_ny, ny, true, tmp);
    m = std::fmax(m, copy_rows_max(target, blk, w, y + l0, plane, w, c.padded_ny));
  }
  return m;
}

}  // namespace quolvent
