// Many lines are filtered at once (wavelet_lanes): along the
// strided axes the lines lie side by side already, a block of them at a time
// so that the block stays in cache; the contiguous lines (z) are turned into
// such a block first. Nothing is allocated per row.
#include "wavelet/transform.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>

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

void row_to_cube(const compression& c, const active_cells& cells, const double* x, int64_t len,
                 double* y) {
  const int use_map = row_map(cells, len);
  const int32_t ny = c.ny, nx = c.nx, nz = c.nz;
  const int32_t padded_ny = c.padded_ny, padded_nx = c.padded_nx, padded_nz = c.padded_nz;
  const std::size_t zp = static_cast<std::size_t>(padded_nz);
  const std::size_t plane = zp * static_cast<std::size_t>(padded_nx);
  std::size_t next = 0;  // plain copy: the next value of x
  for (int32_t i = 1; i <= padded_ny; ++i) {
    for (int32_t j = 1; j <= padded_nx; ++j) {
      double* col =
          y + static_cast<std::size_t>(j - 1) * zp + static_cast<std::size_t>(i - 1) * plane;
      std::size_t k0 = 0;
      if (i <= ny && j <= nx) {
        if (use_map) {
          const int32_t* map = cells.active_map.data() +
                               static_cast<std::size_t>(nz) *
                                   (static_cast<std::size_t>(j - 1) +
                                    static_cast<std::size_t>(nx) * static_cast<std::size_t>(i - 1));
          for (int32_t k = 0; k < nz; ++k) col[k] = (map[k] > 0) ? x[map[k] - 1] : 0.0;
        } else {
          for (int32_t k = 0; k < nz; ++k) col[k] = x[next++];
        }
        k0 = static_cast<std::size_t>(nz);
      }
      std::fill(col + k0, col + zp, 0.0);
    }
  }
}

void cube_to_row(const compression& c, const active_cells& cells, double* x, int64_t len,
                 const double* y) {
  const int use_map = row_map(cells, len);
  const int32_t ny = c.ny, nx = c.nx, nz = c.nz;
  const int32_t padded_nx = c.padded_nx, padded_nz = c.padded_nz;
  const std::size_t zp = static_cast<std::size_t>(padded_nz);
  const std::size_t plane = zp * static_cast<std::size_t>(padded_nx);
  std::size_t next = 0;
  const int32_t* map = cells.active_map.data();
  for (int32_t i = 1; i <= ny; ++i) {
    for (int32_t j = 1; j <= nx; ++j) {
      const double* col =
          y + static_cast<std::size_t>(j - 1) * zp + static_cast<std::size_t>(i - 1) * plane;
      for (int32_t k = 0; k < nz; ++k) {
        if (use_map) {
          if (*map > 0) x[*map - 1] = col[k];
          ++map;
        } else {
          x[next++] = col[k];
        }
      }
    }
  }
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

// axis_pass: the pass of transform_3d along one axis of a cube of extents
// nn: lines of n values, `stride` apart within a line (1: the contiguous
// lines, z), cut into `blocks` blocks of lines that are filtered each on its
// own, so that any thread may take any block.
struct axis_pass {
  int64_t n = 0, stride = 1;
  int64_t lines = 0;  // contiguous lines: how many
  int64_t span = 0;   // strided lines: the values of one slab of them
  std::size_t width = 0, block = 0, per_slab = 0;
  int64_t blocks = 0;
};

axis_pass pass_along(const int32_t nn[3], int d) {
  axis_pass p;
  p.n = nn[d];
  for (int e = 0; e < d; ++e) p.stride *= nn[e];
  const int64_t ntot = static_cast<int64_t>(nn[0]) * nn[1] * nn[2];
  if (p.n <= 4 || ntot == 0) return p;  // left alone
  if (p.stride == 1) {
    // Contiguous lines, z_block of them side by side at a time.
    p.block = z_block;
    p.lines = ntot / p.n;
    p.blocks = (p.lines + static_cast<int64_t>(z_block) - 1) / static_cast<int64_t>(z_block);
  } else {
    // Strided lines lie side by side, `stride` of them in each slab.
    p.width = static_cast<std::size_t>(p.stride);
    p.block = lane_block(p.n, p.width);
    p.span = p.n * p.stride;
    p.per_slab = (p.width + p.block - 1) / p.block;
    p.blocks = ntot / p.span * static_cast<int64_t>(p.per_slab);
  }
  return p;
}

// fit_buffers: lb long enough for every block of pass p.
void fit_buffers(const axis_pass& p, line_buffers& lb) {
  if (p.blocks == 0) return;
  const std::size_t size = static_cast<std::size_t>(p.n) * p.block;
  if (p.stride == 1) grow(lb.wk, size);
  grow(lb.wksp, size);
}

// run_blocks: blocks [b0, b1) of pass p over the cube a, on lb (fitted).
void run_blocks(const transform_filters& f, double* a, const axis_pass& p, bool forward,
                int64_t target, line_buffers& lb, int64_t b0, int64_t b1) {
  const int64_t n = p.n;
  const std::size_t ln = static_cast<std::size_t>(n);
  for (int64_t b = b0; b < b1; ++b) {
    if (p.stride == 1) {
      // A block of zeros (padding, mostly) stays zeros and is passed over.
      double* wk = lb.wk.data();
      const int64_t line = b * static_cast<int64_t>(z_block);
      const std::size_t nb = static_cast<std::size_t>(
          std::min<int64_t>(static_cast<int64_t>(z_block), p.lines - line));
      const double* src = a + line * n;
      bool any = false;
      for (std::size_t l = 0; l < z_block; ++l)
        for (std::size_t q = 0; q < ln; ++q) {
          const double v = l < nb ? src[l * ln + q] : 0.0;
          wk[q * z_block + l] = v;
          any |= v != 0.0;
        }
      if (!any) continue;
      lines_transform(target, f, wk, z_block, z_block, n, n, forward, lb.wksp.data());
      double* dst = a + line * n;
      for (std::size_t l = 0; l < nb; ++l)
        for (std::size_t q = 0; q < ln; ++q) dst[l * ln + q] = wk[q * z_block + l];
    } else {
      const int64_t slab = b / static_cast<int64_t>(p.per_slab);
      const std::size_t l0 =
          static_cast<std::size_t>(b % static_cast<int64_t>(p.per_slab)) * p.block;
      lines_transform(target, f, a + slab * p.span + static_cast<int64_t>(l0), p.width,
                      std::min(p.block, p.width - l0), n, n, forward, lb.wksp.data());
    }
  }
}

}  // namespace

void transform_3d(const transform_filters& f, double* a, const int32_t nn[3], int32_t isign,
                  line_buffers& lb) {
  const int64_t target = target_of(lb);
  for (int d = 0; d < 3; ++d) {
    const axis_pass p = pass_along(nn, d);
    fit_buffers(p, lb);
    run_blocks(f, a, p, isign >= 0, target, lb, 0, p.blocks);
  }
}

void transform_cube_parallel(const compression& c, double* a, int32_t isign) {
  const int32_t nn[3] = {c.padded_nz, c.padded_nx, c.padded_ny};
  const axis_pass passes[3] = {pass_along(nn, 0), pass_along(nn, 1), pass_along(nn, 2)};
  stop_latch latch;
#pragma omp parallel
  {
    line_buffers lb;
    latch.run([&] {
      for (const axis_pass& p : passes) fit_buffers(p, lb);
    });
    const int64_t target = target_of(lb);
    // Every thread knows whether all could start before any pass begins.
#pragma omp barrier
    if (!latch.stopped()) {
      for (const axis_pass& p : passes) {
        // Blocks handed out a few at a time: the blocks of padding cost
        // nothing, so even shares of blocks would not be even shares of work.
#pragma omp for schedule(dynamic, 4)
        for (int64_t b = 0; b < p.blocks; ++b)
          run_blocks(c.filters, a, p, isign >= 0, target, lb, b, b + 1);
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
