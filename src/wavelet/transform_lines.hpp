// The forward wavelet transform one line at a time and the test of a kept
// coefficient, written once for the host and for a device (compiled by the
// device compiler with __host__ __device__). A line's filtering steps take
// the taps in the order filter_step takes them, so that a cube transformed
// line by line holds transform_3d's values to the last bit (without fused
// multiply-adds, as the host builds are).
#pragma once

#include <cstdint>

#include "base/host_device.hpp"


namespace quolvent {

// line_filters: the filters of transform_filters as plain values, small
// enough to be passed to a device by value.
constexpr int32_t max_filter_length = 12;  // daub6
struct line_filters {
  double low[max_filter_length];
  double high[max_filter_length];
  int32_t length;
  int32_t tap_offset;
};

// forward_step: one periodic forward filtering step on the first n values
// (n a power of two, at least 4) of the line a[0], a[stride], ...; w, a line
// of n values at wstride, is its work space.
QUOLVENT_HOST_DEVICE inline void forward_step(const line_filters& f, double* a, int64_t stride,
                                              int64_t n, double* w, int64_t wstride) {
  const int64_t h = n / 2, mask = n - 1;
  const int32_t nc = f.length;
  const int64_t base = static_cast<int64_t>(nc) * n + f.tap_offset;
  for (int64_t i = 0; i < h; ++i) {
    double lo = 0.0, hi = 0.0;
    for (int32_t k = 1; k <= nc; ++k) {
      const double v = a[((base + 2 * i + 1 + k) & mask) * stride];
      lo += f.low[k - 1] * v;
      hi += f.high[k - 1] * v;
    }
    w[i * wstride] = lo;
    w[(i + h) * wstride] = hi;
  }
  for (int64_t i = 0; i < n; ++i) a[i * stride] = w[i * wstride];
}

// forward_line: the whole pyramid of one line of n values: steps on n, n/2,
// ... down to 4 values; a line of 4 or fewer values is left alone.
QUOLVENT_HOST_DEVICE inline void forward_line(const line_filters& f, double* a, int64_t stride,
                                              int64_t n, double* w, int64_t wstride) {
  if (n <= 4) return;
  for (int64_t nt = n; nt >= 4; nt /= 2) forward_step(f, a, stride, nt, w, wstride);
}

// coefficient_kept: whether a coefficient reaches the threshold t (compared
// in 64 bits, before any rounding).
QUOLVENT_HOST_DEVICE inline bool coefficient_kept(double v, double t) {
  return (v < 0.0 ? -v : v) >= t;
}

// rounding_loss: the energy a coefficient adds to the error of its stored
// row, scaled: all of it when dropped, its rounding to 32 bits when kept.
QUOLVENT_HOST_DEVICE inline double rounding_loss(double v, bool kept, double scale) {
  const double r = (kept ? v - static_cast<double>(static_cast<float>(v)) : v) * scale;
  return r * r;
}

}  // namespace quolvent
