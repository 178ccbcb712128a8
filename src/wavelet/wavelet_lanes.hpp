// The loops of the transform and of row compression, several
// values at a time on a vector target (base/vector_target.hpp).
//
// The filtering does, for every value, the multiplications and additions of
// filter_step in filter_step's order, without fused multiply-adds: the coefficients are the
// same to the last bit on every target.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "wavelet/compression.hpp"

namespace quolvent {

// lines_transform
//   Given:   the target; the filters; `width` lines side by side, position p
//            of line l at a[p * stride + l] (p < n, n a power of two, at least
//            4); m: on a forward transform's first step only positions p < m
//            are read, the others count as 0 and may hold anything; forward
//            or inverse; tmp, n * width values of work space.
//   Returns: every line transformed in place by all the steps of transform_3d along
//            one axis (forward n down to 4, inverse 4 up to n): each value
//            the one filter_step gives, bit for bit.
//   Fails:   never.
void lines_transform(int64_t target, const transform_filters& f, double* a, std::size_t stride,
                     std::size_t width, int64_t n, int64_t m, bool forward, double* tmp);

// columns_forward
//   Given:   the target; the filters; ncols columns of nz cells, column c's
//            cells either through map (map[c nz + k] > 0: row[map - 1], else
//            0) or, with map nullptr, plain[c nz + k]; zp >= nz, the padded
//            extent; out, ncols * zp values; work, 2 zp + 320 values.
//   Returns: out[c zp ...] holds column c padded with zeros to zp and
//            transformed forward along its length (zp > 4), the values filter_step
//            gives; a column of zeros is left as it is, as transform_3d leaves it.
//   Fails:   never.
void columns_forward(int64_t target, const transform_filters& f, const double* row,
                     const int32_t* map, const double* plain, int32_t ncols, int32_t nz, int64_t zp,
                     double* out, double* work);

// copy_rows_max: n rows of width values from src to dst (rows at their own
// strides); returns the largest magnitude copied (NaN passed over).
double copy_rows_max(int64_t target, const double* src, std::size_t src_stride, double* dst,
                     std::size_t dst_stride, std::size_t width, int64_t n);

// max_abs: the largest magnitude of v[0..count) (0 for none; NaN ignored as
// fmax does).
double max_abs(int64_t target, const double* v, std::size_t count);

// kept_pack: what pack_kept found: the kept count and the two energies.
struct kept_pack {
  int64_t count = 0;
  double energy = 0.0;  // sum of (v scale)^2 over all values
  double lost = 0.0;    // the same over the dropped values, plus the rounding of the kept
};

// pack_kept
//   Given:   the target; the coefficients w[0..count); the threshold t; the
//            scale of the energies (1 / the largest magnitude, or 0); idx and
//            val, emptied first.
//   Returns: in idx the 1-based positions of the values with |v| >= t,
//            ascending, and in val those values rounded to 32 bits; the
//            energies summed in lanes (their order, not the values, depends
//            on the target).
//   Fails:   no memory for idx or val: std::bad_alloc.
kept_pack pack_kept(int64_t target, const double* w, std::size_t count, double t, double scale,
                    std::vector<int32_t>& idx, std::vector<float>& val);

}  // namespace quolvent
