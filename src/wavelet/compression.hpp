// The compression record of a run (filters, padded cube, thresholds) and the
// store of the matrix the row loops fill.
#pragma once

#include <cstdint>
#include <memory>
#include <new>
#include <vector>

namespace quolvent {

// transform_filters: the low-pass and high-pass filters of the transform and the
// offset of their first tap.
struct transform_filters {
  std::vector<double> low_pass;
  std::vector<double> high_pass;
  int32_t filter_length = 0;
  int32_t tap_offset = 0;
};

// compression: what every compressed row shares, set once by
// setup_compression and read-only after.
struct compression {
  bool compressed = false;         // a wavelet is in use
  int32_t filter_length = 0;       // filter length, 0 for none
  std::vector<double> filter;      // filter_length unit-norm coefficients
  transform_filters filters;       // the filters the transform applies
  int32_t ny = 0, nx = 0, nz = 0;  // the mesh extents the cube holds
  int32_t padded_ny = 0, padded_nx = 0, padded_nz = 0;       // padded extents (0 when none)
  int64_t cube_size = 0;                                     // padded_ny * padded_nx * padded_nz
  double threshold_surface = 0.0, threshold_borehole = 0.0;  // relative thresholds
  // Coefficients the sample row of each kind keeps at its threshold (the
  // expected count per row of that kind); -1 where no estimate was made.
  int64_t kept_surface = -1, kept_borehole = -1;
};

// compressed_row: the kept wavelet coefficients of one row: val (rounded to
// 32 bits) and idx (1-based positions in the padded cube, strictly ascending).
struct compressed_row {
  std::vector<float> val;
  std::vector<int32_t> idx;
};

// uninit_allocator: vectors whose elements start unset. The uncompressed
// matrix is written whole by the row loops before anything reads it, so
// zeroing it first would only cost a pass over the largest array of the run.
template <typename T>
struct uninit_allocator : std::allocator<T> {
  template <typename U>
  struct rebind {
    using other = uninit_allocator<U>;
  };
  uninit_allocator() = default;
  template <typename U>
  uninit_allocator(const uninit_allocator<U>&) noexcept {}
  template <typename U>
  void construct(U* p) noexcept {
    ::new (static_cast<void*>(p)) U;
  }
  template <typename U, typename... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
};
using float_matrix = std::vector<float, uninit_allocator<float>>;

// matrix_store: the rows of the matrix, one of the two forms in use.
struct matrix_store {
  std::vector<compressed_row> compressed_rows;  // one record per datum
  float_matrix full_rows;                       // n x ndata, row i at [(i-1)*n]
};

}  // namespace quolvent
