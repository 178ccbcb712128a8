// The inner loops of the block products. Compiled once per vector target
// (Highway's foreach_target).
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "output/product_lanes.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/cache_control.h>
#include <hwy/highway.h>

#include <algorithm>

#include "output/product_lanes.hpp"

// No multiply-add is fused behind the code's back: every target gives the
// bits of the portable one.
#pragma clang fp contract(off)

HWY_BEFORE_NAMESPACE();
namespace quolvent {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// Partial sums of a compressed row's coefficients.
constexpr std::size_t partial_sums = 4;
// How many coefficients ahead of the sums their places are fetched: a row's
// places lie too far apart in the cubes for the processor to foresee them.
constexpr std::size_t ahead = 32;

template <std::size_t W>
HWY_INLINE void SparseSums(const compressed_row* rows, std::size_t first, std::size_t last,
                           const double* cubes, double* out) {
  const hn::CappedTag<double, W> d;
  using V = hn::Vec<decltype(d)>;
  constexpr std::size_t lanes = hn::MaxLanes(d), nv = W / lanes;
  for (std::size_t i = first; i < last; ++i) {
    const int32_t* idx = rows[i].idx.data();
    const float* val = rows[i].val.data();
    const std::size_t count = rows[i].idx.size();
    V s[partial_sums][nv];
    for (auto& part : s)
      for (V& v : part) v = hn::Zero(d);
    const auto add = [&](std::size_t q, std::size_t p) {
      const V value = hn::Set(d, static_cast<double>(val[p]));
      const double* at = cubes + static_cast<std::size_t>(idx[p] - 1) * W;
      for (std::size_t j = 0; j < nv; ++j)
        s[q][j] = hn::Add(s[q][j], hn::Mul(value, hn::LoadU(d, at + j * lanes)));
    };
    std::size_t p = 0;
    for (; p + partial_sums + ahead <= count; p += partial_sums) {
      for (std::size_t q = 0; q < partial_sums; ++q) {
        hwy::Prefetch(cubes + static_cast<std::size_t>(idx[p + q + ahead] - 1) * W);
        add(q, p + q);
      }
    }
    for (; p + partial_sums <= count; p += partial_sums)
      for (std::size_t q = 0; q < partial_sums; ++q) add(q, p + q);
    for (std::size_t q = 0; p < count; ++p, ++q) add(q, p);
    for (std::size_t j = 0; j < nv; ++j)
      hn::StoreU(hn::Add(hn::Add(s[0][j], s[1][j]), hn::Add(s[2][j], s[3][j])), d,
                 out + (i - first) * W + j * lanes);
  }
}

void SparseRowSums(const compressed_row* rows, std::size_t first, std::size_t last,
                   const double* cubes, std::size_t lanes, double* out) {
  switch (lanes) {
    case 1: SparseSums<1>(rows, first, last, cubes, out); break;
    case 2: SparseSums<2>(rows, first, last, cubes, out); break;
    case 4: SparseSums<4>(rows, first, last, cubes, out); break;
    default: SparseSums<8>(rows, first, last, cubes, out); break;
  }
}

template <std::size_t W>
HWY_INLINE void SparseAdd(const compressed_row* rows, std::size_t nrows, const double* v,
                          std::size_t* cursor, int32_t end, double* cubes) {
  const hn::CappedTag<double, W> d;
  using V = hn::Vec<decltype(d)>;
  constexpr std::size_t lanes = hn::MaxLanes(d), nv = W / lanes;
  for (std::size_t i = 0; i < nrows; ++i) {
    const int32_t* idx = rows[i].idx.data();
    const float* val = rows[i].val.data();
    const std::size_t count = rows[i].idx.size();
    V weight[nv];
    for (std::size_t j = 0; j < nv; ++j) weight[j] = hn::LoadU(d, v + i * W + j * lanes);
    std::size_t p = cursor[i];
    for (; p < count && idx[p] <= end; ++p) {
      const V value = hn::Set(d, static_cast<double>(val[p]));
      double* at = cubes + static_cast<std::size_t>(idx[p] - 1) * W;
      for (std::size_t j = 0; j < nv; ++j)
        hn::StoreU(hn::Add(hn::LoadU(d, at + j * lanes), hn::Mul(value, weight[j])), d,
                   at + j * lanes);
    }
    cursor[i] = p;
  }
}

void SparseRowsAdd(const compressed_row* rows, std::size_t nrows, const double* v,
                   std::size_t lanes, std::size_t* cursor, int32_t end, double* cubes) {
  switch (lanes) {
    case 1: SparseAdd<1>(rows, nrows, v, cursor, end, cubes); break;
    case 2: SparseAdd<2>(rows, nrows, v, cursor, end, cubes); break;
    case 4: SparseAdd<4>(rows, nrows, v, cursor, end, cubes); break;
    default: SparseAdd<8>(rows, nrows, v, cursor, end, cubes); break;
  }
}

// The uncompressed rows' values are made doubles this many cells at a
// time, so that the inner loops read each as one broadcast from memory.
constexpr std::size_t converted_cells = 256;
constexpr std::size_t group = 8;
using group_tag = hn::CappedTag<double, group>;
using group_vector = hn::Vec<group_tag>;
// A group's values in vectors of `lanes`, nv of them.
constexpr std::size_t lanes = hn::MaxLanes(group_tag()), nv = group / lanes;

// Convert: cells [c, c + count) of each row as doubles, row r at [r * converted_cells].
HWY_INLINE void Convert(const float* const* rows, std::size_t c, std::size_t count, double* out) {
  for (std::size_t r = 0; r < rows_per_pass; ++r)
    for (std::size_t k = 0; k < count; ++k)
      out[r * converted_cells + k] = static_cast<double>(rows[r][c + k]);
}

// LoadPass: the group's vectors of rows_per_pass rows of p, rows width apart.
HWY_INLINE void LoadPass(const double* p, std::size_t width, group_vector (&out)[rows_per_pass][nv]) {
  const group_tag d;
  for (std::size_t r = 0; r < rows_per_pass; ++r)
    for (std::size_t j = 0; j < nv; ++j) out[r][j] = hn::LoadU(d, p + r * width + j * lanes);
}

void DensePassSums(const float* const* rows, const double* x, std::size_t width, std::size_t c0,
                   std::size_t c1, double* sums) {
  const group_tag d;
  using V = group_vector;
  HWY_ALIGN double values[rows_per_pass * converted_cells];
  for (std::size_t g0 = 0; g0 < width; g0 += group) {
    V s[rows_per_pass][nv];
    LoadPass(sums + g0, width, s);
    for (std::size_t b = c0; b < c1; b += converted_cells) {
      const std::size_t count = std::min(converted_cells, c1 - b);
      Convert(rows, b, count, values);
      for (std::size_t k = 0; k < count; ++k) {
        const double* xc = x + (b + k) * width + g0;
        V xv[nv];
        for (std::size_t j = 0; j < nv; ++j) xv[j] = hn::LoadU(d, xc + j * lanes);
        for (std::size_t r = 0; r < rows_per_pass; ++r) {
          const V value = hn::Set(d, values[r * converted_cells + k]);
          for (std::size_t j = 0; j < nv; ++j) s[r][j] = hn::Add(s[r][j], hn::Mul(value, xv[j]));
        }
      }
    }
    for (std::size_t r = 0; r < rows_per_pass; ++r)
      for (std::size_t j = 0; j < nv; ++j) hn::StoreU(s[r][j], d, sums + r * width + g0 + j * lanes);
  }
}

void DensePassAdd(const float* const* rows, const double* w, std::size_t width, std::size_t c0,
                  std::size_t c1, double* g) {
  const group_tag d;
  using V = group_vector;
  HWY_ALIGN double values[rows_per_pass * converted_cells];
  for (std::size_t b = c0; b < c1; b += converted_cells) {
    const std::size_t count = std::min(converted_cells, c1 - b);
    Convert(rows, b, count, values);
    for (std::size_t g0 = 0; g0 < width; g0 += group) {
      V wv[rows_per_pass][nv];
      LoadPass(w + g0, width, wv);
      for (std::size_t k = 0; k < count; ++k) {
        double* gc = g + (b + k) * width + g0;
        V acc[nv];
        for (std::size_t j = 0; j < nv; ++j) acc[j] = hn::LoadU(d, gc + j * lanes);
        for (std::size_t r = 0; r < rows_per_pass; ++r) {
          const V value = hn::Set(d, values[r * converted_cells + k]);
          for (std::size_t j = 0; j < nv; ++j) acc[j] = hn::Add(acc[j], hn::Mul(value, wv[r][j]));
        }
        for (std::size_t j = 0; j < nv; ++j) hn::StoreU(acc[j], d, gc + j * lanes);
      }
    }
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace quolvent
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
#include "base/vector_dispatch.hpp"

namespace quolvent {

QUOLVENT_EXPORT(SparseRowSums)
QUOLVENT_EXPORT(SparseRowsAdd)
QUOLVENT_EXPORT(DensePassSums)
QUOLVENT_EXPORT(DensePassAdd)

void sparse_row_sums(int64_t target, const compressed_row* rows, std::size_t first,
                     std::size_t last, const double* cubes, std::size_t lanes, double* out) {
  SparseRowSums_for(dispatch_index(target))(rows, first, last, cubes, lanes, out);
}

void sparse_rows_add(int64_t target, const compressed_row* rows, std::size_t nrows,
                     const double* v, std::size_t lanes, std::size_t* cursor, int32_t end,
                     double* cubes) {
  SparseRowsAdd_for(dispatch_index(target))(rows, nrows, v, lanes, cursor, end, cubes);
}

void dense_pass_sums(int64_t target, const float* const* rows, const double* x, std::size_t width,
                     std::size_t c0, std::size_t c1, double* sums) {
  DensePassSums_for(dispatch_index(target))(rows, x, width, c0, c1, sums);
}

void dense_pass_add(int64_t target, const float* const* rows, const double* w, std::size_t width,
                    std::size_t c0, std::size_t c1, double* g) {
  DensePassAdd_for(dispatch_index(target))(rows, w, width, c0, c1, g);
}

}  // namespace quolvent
#endif  // HWY_ONCE
