// WTN_MOD: lines are gathered into the thread's line buffer before filtering,
// so strides never matter, and nothing is allocated per row.
#include "wavelet/wtn_mod.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "base/format.hpp"
#include "base/stop.hpp"

namespace quolvent {

namespace {

constexpr int64_t max_position = 2147483647;

// Lines gathered together along the strided directions.
constexpr int64_t batch = 16;

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
            "       Use a smaller mesh, or NONE for no compression.",
            ""});
  }
  c.ny = mesh.ny;
  c.nx = mesh.nx;
  c.nz = mesh.nz;
  c.nyp = static_cast<int32_t>(py);
  c.nxp = static_cast<int32_t>(px);
  c.nzp = static_cast<int32_t>(pz);
  c.ncube = py * px * pz;
}

wtn_filters set_filters(const std::vector<double>& c, int32_t nc) {
  wtn_filters flt;
  flt.ncof = nc;
  flt.cc.assign(static_cast<std::size_t>(nc), 0.0);
  flt.cr.assign(static_cast<std::size_t>(nc), 0.0);
  for (int32_t k = 1; k <= nc; ++k) {
    flt.cc[k - 1] = c[k - 1];
    flt.cr[nc - k] = (k % 2 == 1) ? -c[k - 1] : c[k - 1];
  }
  flt.ioff = -(nc / 2);
  return flt;
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
  const int32_t nyp = c.nyp, nxp = c.nxp, nzp = c.nzp;
  const std::size_t zp = static_cast<std::size_t>(nzp);
  const std::size_t plane = zp * static_cast<std::size_t>(nxp);
  std::size_t next = 0;  // plain copy: the next value of x
  for (int32_t i = 1; i <= nyp; ++i) {
    for (int32_t j = 1; j <= nxp; ++j) {
      double* col = y + static_cast<std::size_t>(j - 1) * zp + static_cast<std::size_t>(i - 1) * plane;
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
  const int32_t nxp = c.nxp, nzp = c.nzp;
  const std::size_t zp = static_cast<std::size_t>(nzp);
  const std::size_t plane = zp * static_cast<std::size_t>(nxp);
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
  const int32_t nn[3] = {c.nzp, c.nxp, c.nyp};
  WTN(c.flt, a, nn, isign, lb);
}

namespace {

// pwt_step: one filtering step with NC taps (NC of 0: the run-time count),
// so that the usual filter lengths get loops of fixed length.
template <int NC>
void pwt_step(const wtn_filters& flt, double* a, int64_t n, bool forward, double* w) {
  const int32_t nc = NC > 0 ? NC : flt.ncof;
  const double* cc = flt.cc.data();
  const double* cr = flt.cr.data();
  const int64_t h = n / 2;
  const int64_t mask = n - 1;
  // ncof * n keeps the sum positive; the mask is the periodic wrap.
  const int64_t base = static_cast<int64_t>(nc) * n + flt.ioff;
  // Away from the ends of the line the taps don't wrap: there the positions
  // are plain offsets, taken in the same order, so the sums are the same.
  const int64_t off = flt.ioff + 1;  // unwrapped, tap k of pair i is at off + 2i + k
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
        for (int32_t k = 1; k <= nc; ++k) w[(base + 2 * i + 1 + k) & mask] += cc[k - 1] * p + cr[k - 1] * q;
      }
    }
  }
  std::copy(w, w + n, a);
}

bool all_zero(const double* v, int64_t n) {
  for (int64_t m = 0; m < n; ++m)
    if (v[m] != 0.0) return false;
  return true;
}

}  // namespace

void PWT(const wtn_filters& flt, double* a, int32_t n, bool forward, double* w) {
  if (n < 4) return;
  switch (flt.ncof) {
    case 2: pwt_step<2>(flt, a, n, forward, w); break;
    case 4: pwt_step<4>(flt, a, n, forward, w); break;
    case 6: pwt_step<6>(flt, a, n, forward, w); break;
    case 8: pwt_step<8>(flt, a, n, forward, w); break;
    case 10: pwt_step<10>(flt, a, n, forward, w); break;
    case 12: pwt_step<12>(flt, a, n, forward, w); break;
    default: pwt_step<0>(flt, a, n, forward, w); break;
  }
}

void WTN(const wtn_filters& f, double* a, const int32_t nn[3], int32_t isign, line_buffers& lb) {
  const int64_t ntot = static_cast<int64_t>(nn[0]) * nn[1] * nn[2];
  const std::size_t longest = static_cast<std::size_t>(std::max({nn[0], nn[1], nn[2], 4}));
  // All transforms of a run share the extents: the buffers are made on the
  // first transform and only grow for a longer line.
  if (lb.wk.size() < longest * batch) lb.wk.assign(longest * batch, 0.0);
  if (lb.wksp.size() < longest) lb.wksp.assign(longest, 0.0);
  double* const wkb = lb.wk.data();
  double* const w = lb.wksp.data();
  int64_t nprev = 1;
  for (int d = 0; d < 3; ++d) {
    const int64_t n = nn[d];
    const int64_t nnew = n * nprev;
    if (n > 4) {
      for (int64_t i2 = 0; i2 < ntot; i2 += nnew) {
        // Strided lines are gathered a batch of neighbours at a time, so each
        // read of the cube takes a run of adjacent values.
        if (nprev == 1) {
          // Contiguous lines need no gathering. A line of zeros (padding,
          // mostly) stays zeros and is passed over.
          double* line = a + i2;
          if (all_zero(line, n)) continue;
          if (isign >= 0) {
            for (int64_t nt = n; nt >= 4; nt >>= 1) PWT(f, line, static_cast<int32_t>(nt), true, w);
          } else {
            for (int64_t nt = 4; nt <= n; nt <<= 1) PWT(f, line, static_cast<int32_t>(nt), false, w);
          }
          continue;
        }
        for (int64_t i1 = 0; i1 < nprev; i1 += batch) {
          const int64_t nb = std::min<int64_t>(batch, nprev - i1);
          double* base = a + i1 + i2;
          for (int64_t m = 0; m < n; ++m)
            for (int64_t b = 0; b < nb; ++b) wkb[b * n + m] = base[m * nprev + b];
          for (int64_t b = 0; b < nb; ++b) {
            double* wk = wkb + b * n;
            if (all_zero(wk, n)) continue;
            if (isign >= 0) {
              for (int64_t nt = n; nt >= 4; nt >>= 1) PWT(f, wk, static_cast<int32_t>(nt), true, w);
            } else {
              for (int64_t nt = 4; nt <= n; nt <<= 1) PWT(f, wk, static_cast<int32_t>(nt), false, w);
            }
          }
          for (int64_t m = 0; m < n; ++m)
            for (int64_t b = 0; b < nb; ++b) base[m * nprev + b] = wkb[b * n + m];
        }
      }
    }
    nprev = nnew;
  }
}

}  // namespace quolvent
