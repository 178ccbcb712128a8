// The store of the matrix and the state of its compression, shared by the
// row loops, the matrix file and the uncompress stage.
#pragma once

#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <vector>

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

extern bool compressed;                        // a wavelet is in use
extern std::vector<compressed_row> g_compressed;  // one record per datum
extern float_matrix g_full;                        // n x ndata, row i at [(i-1)*n]
extern int32_t ncof;                           // filter length, 0 for none
extern std::vector<double> filter;             // ncof unit-norm coefficients
extern int32_t nyp, nxp, nzp;                  // padded extents (0 when none)
extern int64_t ncube;                          // nyp * nxp * nzp
extern double wctol_surface, wctol_borehole;   // relative thresholds

// setup_compression: checks the wavelet, sets the filters and the padded
// extents, estimates the thresholds, and allocates g_compressed (compressed)
// or g_full (uncompressed). Sets the main thread's direction products.
void setup_compression(int32_t n, const std::vector<double>& wtz,
                       const std::vector<int32_t>& top_index,
                       const std::vector<int32_t>& obs_type, const std::string& wavelet,
                       const std::string& eps_line);

// COMPRESS_ROW: compresses row[0..n-1] (already divided by wtz) into rec,
// adding its count to the thread's nnz; kind < 0 uses wctol_borehole.
void COMPRESS_ROW(const double* row, int32_t n, compressed_row& rec, int64_t& nnz, int32_t kind);
// ALLOC_WORK / DEALLOC_WORK: the calling thread's cube of ncube values.
void ALLOC_WORK();
void DEALLOC_WORK();
// transform_test_model: test_model_w = forward transform of a * b.
void transform_test_model(const std::vector<double>& a, const std::vector<double>& b);
// dot_compressed: sum of val(k) * test_model_w(idx(k)); 0 for an empty record.
double dot_compressed(const compressed_row& rec);
// report_compression: the log report after the row loop; data_full and
// data_comp (ndata each) are given together or both nullptr.
void report_compression(int32_t n, int32_t ndata, int64_t nnz, const double* data_full,
                        const double* data_comp);

// UNCOMPRESSG: sens_avg = mean over the data of |row| as the compressed rows
// give it, rows multiplied back by wtz.
void UNCOMPRESSG(int32_t n, const std::vector<double>& wtz, std::vector<double>& sens_avg);
