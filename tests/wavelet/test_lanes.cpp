// The transform many lines at a time, on every vector target, against the
// filter of one line (PWT) applied line by line; the transform of a row plane
// by plane against the row laid into the cube and transformed; COMPRESS_ROW
// against the threshold and packing of one coefficient at a time.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "base/vector_target.hpp"
#include "model/active_cells.hpp"
#include "support/test_support.hpp"
#include "wavelet/compress_row_mod.hpp"
#include "wavelet/compression.hpp"
#include "wavelet/wavelet_filters.hpp"
#include "wavelet/wtn_mod.hpp"

using namespace quolvent;

namespace {

// line_by_line: the transform of a cube of extents nn (nn[0] fastest) one
// line at a time: each line copied out, filtered step by step by PWT, copied
// back; lines of zeros passed over.
void line_by_line(const wtn_filters& f, double* a, const int32_t nn[3], bool forward) {
  const int64_t ntot = int64_t{nn[0]} * nn[1] * nn[2];
  int64_t nprev = 1;
  for (int d = 0; d < 3; ++d) {
    const int64_t n = nn[d], nnew = n * nprev;
    if (n > 4) {
      std::vector<double> line(n), w(n);
      for (int64_t i2 = 0; i2 < ntot; i2 += nnew)
        for (int64_t i1 = 0; i1 < nprev; ++i1) {
          bool any = false;
          for (int64_t m = 0; m < n; ++m) any |= (line[m] = a[i2 + i1 + m * nprev]) != 0.0;
          if (!any) continue;
          if (forward)
            for (int64_t nt = n; nt >= 4; nt >>= 1) PWT(f, line.data(), nt, true, w.data());
          else
            for (int64_t nt = 4; nt <= n; nt <<= 1) PWT(f, line.data(), nt, false, w.data());
          for (int64_t m = 0; m < n; ++m) a[i2 + i1 + m * nprev] = line[m];
        }
    }
    nprev = nnew;
  }
}

// same: equal values (a zero of either sign equals a zero), NaN nowhere.
::testing::AssertionResult same(const std::vector<double>& a, const std::vector<double>& b) {
  if (a.size() != b.size()) return ::testing::AssertionFailure() << "sizes differ";
  for (std::size_t i = 0; i < a.size(); ++i)
    if (!(a[i] == b[i]))
      return ::testing::AssertionFailure() << "at " << i << ": " << a[i] << " against " << b[i];
  return ::testing::AssertionSuccess();
}

const char* const wavelets[] = {"daub1", "daub2", "daub3", "daub6", "symm5"};

}  // namespace

// Cubes of extents from 1 to 64 along each axis, some lines all zeros, every
// wavelet of a few lengths, forward and inverse, on every target: the same
// values as line by line, to the bit.
TEST(TransformLanes, SameBitsAsLineByLine) {
  const int32_t shapes[][3] = {{8, 8, 8},  {64, 2, 16}, {4, 32, 8}, {16, 16, 1},
                               {2, 8, 32}, {32, 4, 4},  {1, 1, 64}, {8, 64, 2}};
  for (const char* name : wavelets) {
    const compression c = qt::wavelet_of(name);
    for (const auto& nn : shapes) {
      std::vector<double> cube(static_cast<std::size_t>(nn[0]) * nn[1] * nn[2]);
      for (std::size_t i = 0; i < cube.size(); ++i)
        cube[i] = (i / nn[0]) % 3 == 1 ? 0.0 : std::sin(0.7 * i * i + 0.3);
      for (const bool forward : {true, false}) {
        std::vector<double> want = cube;
        line_by_line(c.flt, want.data(), nn, forward);
        for (int64_t t : vector_targets()) {
          std::vector<double> got = cube;
          line_buffers lb;
          lb.vector_target = t;
          WTN(c.flt, got.data(), nn, forward ? 1 : -1, lb);
          EXPECT_TRUE(same(got, want)) << name << " " << nn[0] << "x" << nn[1] << "x" << nn[2]
                                       << (forward ? " forward on " : " inverse on ")
                                       << vector_target_name(t);
        }
      }
    }
  }
}

// A row of a mesh with tops (through the active map) and a row of a whole
// mesh (a plain copy) on meshes whose extents are and aren't powers of two:
// the coefficients of row_coefficients are those of the row laid into the
// cube and transformed line by line, to the bit, and its result their
// largest magnitude; the cube's earlier contents (NaN) are never read.
TEST(TransformLanes, RowCoefficientsAsTheCubeLineByLine) {
  const run_log quiet(nullptr);
  const int32_t meshes[][3] = {{5, 3, 9}, {16, 8, 4}, {12, 20, 33}, {3, 1, 2}, {9, 17, 8}};
  for (const char* name : wavelets) {
    for (const auto& m : meshes) {
      // Flat ground through the map; tops through the map; tops, every cell.
      for (const int mode : {0, 1, 2}) {
        const mesh_model mesh = qt::uniform_mesh(m[0], m[1], m[2], 1.0, 1.0, 1.0);
        std::vector<int32_t> top(static_cast<std::size_t>(m[0]) * m[1], 0);
        if (mode > 0)
          for (std::size_t c = 0; c < top.size(); ++c)
            top[c] = static_cast<int32_t>((c * 7) % 4 + 1) % (m[2] + 1);
        const active_cells cells = get_active_cells("null", mesh, top, quiet);
        compression c = qt::wavelet_of(name);
        set_padded_extents(mesh, c);
        const int64_t n = mode < 2 ? cells.nactive : cells.ncell_total;
        std::vector<double> row(static_cast<std::size_t>(n));
        for (int64_t i = 0; i < n; ++i) row[i] = (i % 5 == 2) ? 0.0 : std::cos(1.7 * i * i);
        std::vector<double> want(static_cast<std::size_t>(c.ncube));
        row_to_cube(c, cells, row.data(), n, want.data());
        const int32_t nn[3] = {c.nzp, c.nxp, c.nyp};
        line_by_line(c.flt, want.data(), nn, true);
        double largest = 0.0;
        for (double v : want) largest = std::fmax(largest, std::fabs(v));
        for (int64_t t : vector_targets()) {
          std::vector<double> got(want.size(), std::numeric_limits<double>::quiet_NaN());
          line_buffers lb;
          lb.vector_target = t;
          const double m_got = row_coefficients(c, cells, row.data(), n, got.data(), lb);
          EXPECT_TRUE(same(got, want)) << name << " " << m[0] << "x" << m[1] << "x" << m[2]
                                       << " mode " << mode << " on "
                                       << vector_target_name(t);
          EXPECT_EQ(m_got, largest);
        }
      }
    }
  }
}

// COMPRESS_ROW on every target keeps exactly the coefficients at or above
// the threshold, in order, rounded to 32 bits, and returns the row's error
// as the sums of one coefficient at a time give it, to 1e-12.
TEST(TransformLanes, CompressRowKeepsWhatOneAtATimeKeeps) {
  const run_log quiet(nullptr);
  const mesh_model mesh = qt::uniform_mesh(13, 7, 10, 1.0, 1.0, 1.0);
  const std::vector<int32_t> top(13 * 7, 0);
  const active_cells cells = get_active_cells("null", mesh, top, quiet);
  compression c = qt::wavelet_of("daub3");
  set_padded_extents(mesh, c);
  c.wctol_surface = 0.01;
  const int64_t n = cells.ncell_total;
  std::vector<double> row(static_cast<std::size_t>(n));
  for (int64_t i = 0; i < n; ++i) row[i] = 1.0 / (1.0 + 0.05 * i) + 0.01 * std::sin(3.1 * i);
  std::vector<double> w(static_cast<std::size_t>(c.ncube));
  row_to_cube(c, cells, row.data(), n, w.data());
  const int32_t nn[3] = {c.nzp, c.nxp, c.nyp};
  line_by_line(c.flt, w.data(), nn, true);
  double m = 0.0;
  for (double v : w) m = std::fmax(m, std::fabs(v));
  const double t = m * c.wctol_surface, scale = 1.0 / m;
  compressed_row want;
  double energy = 0.0, lost = 0.0;
  for (std::size_t p = 0; p < w.size(); ++p) {
    const double v = w[p] * scale;
    energy += v * v;
    if (std::fabs(w[p]) >= t) {
      want.idx.push_back(static_cast<int32_t>(p + 1));
      want.val.push_back(static_cast<float>(w[p]));
      const double r = (w[p] - static_cast<double>(want.val.back())) * scale;
      lost += r * r;
    } else {
      lost += v * v;
    }
  }
  ASSERT_GT(want.idx.size(), 10u);
  ASSERT_LT(want.idx.size(), w.size() / 2);
  for (int64_t target : vector_targets()) {
    compress_workspace ws;
    ws.lines.vector_target = target;
    compressed_row rec;
    int64_t nnz = 5;
    const double err = COMPRESS_ROW(c, cells, row.data(), static_cast<int32_t>(n), rec, nnz,
                                    datum_kind::surface, ws);
    EXPECT_EQ(rec.idx, want.idx) << vector_target_name(target);
    EXPECT_EQ(rec.val, want.val) << vector_target_name(target);
    EXPECT_EQ(rec.idx.capacity(), rec.idx.size());
    EXPECT_EQ(nnz, 5 + static_cast<int64_t>(want.idx.size()));
    EXPECT_NEAR(err, std::sqrt(lost / energy), 1e-12 * std::sqrt(lost / energy));
  }
}
