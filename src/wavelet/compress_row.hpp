// One row at a time into the sparse wavelet store, and the
// test model that checks what the compression cost.
#pragma once

#include <cstdint>
#include <vector>

#include "base/channels.hpp"
#include "model/model.hpp"
#include "wavelet/compression.hpp"
#include "wavelet/transform.hpp"

namespace quolvent {

// compress_workspace: one thread's cube, line buffers and the kept
// coefficients of its current row, made inside the parallel region. The
// default one is empty (a sink of uncompressed rows needs none).
// Fails: no memory for the cube of c: the allocation stop "alloc_work".
struct compress_workspace {
  compress_workspace() = default;
  explicit compress_workspace(const compression& c);

  std::vector<double> work;  // the cube, cube_size values
  line_buffers lines;
  std::vector<int32_t> kept_idx;
  std::vector<float> kept_val;
  std::vector<double> row;  // a row given back (stored_row_error)
};

// compress_row
// Given: the compression record and the active cells; row[0..n-1], already
//   divided by weights; the record of its datum; the thread's nnz accumulator;
//   the datum's kind; the thread's workspace.
// Returns: rec holds, in ascending 1-based cube positions, every wavelet
//   coefficient whose magnitude reaches the relative threshold of its kind
//   (threshold_borehole for a borehole datum, else threshold_surface) times the row's
//   largest, rounded to 32 bits; its count is added to nnz. The row is not
//   changed. The result is the relative error of the stored row: the square
//   root of the energy of the dropped coefficients and of the rounding of the
//   kept ones over the energy of the row (0 for a row of zeros): a bound on
//   the error of the row's own cells (stored_row_error), which the padding
//   of the cube and the coefficients that only it sees don't reach.
//   The transform runs plane by plane (row_coefficients); the threshold, the
//   packing and the energies are one pass over the cube, the energies summed
//   in vector lanes (the last bits of the error, not the coefficients,
//   depend on the vector target).
// Fails: no memory for the record: message and stop.
double compress_row(const compression& c, const active_cells& cells, const double* row, int32_t n,
                    compressed_row& rec, int64_t& nnz, datum_kind kind, compress_workspace& ws);

// stored_row_error
// Given: the compression record and the active cells; row[0..n-1], the row
//   rec was made from (divided by the weights); the thread's workspace, whose
//   cube it overwrites.
// Returns: |row - R| / |row| over the row's cells (Euclidean norms), R the row
//   rec gives back: its 32-bit values through the inverse transform, the
//   padding dropped; 0 for a row of zeros. At most compress_row's bound.
// Fails: a position of rec outside the cube stops with a text.
double stored_row_error(const compression& c, const active_cells& cells, const double* row,
                        int32_t n, const compressed_row& rec, compress_workspace& ws);

// exact_error_row: whether the exact error of datum d's stored row (0-based)
// is measured: one datum in exact_error_stride, from the first. Its inverse
// transform costs some two thirds of a compressed row (the inverse fills the
// padding the forward transform skips), so measuring every row would cost
// that much of the row loop; one in 32 costs some 2 %.
constexpr int32_t exact_error_stride = 32;
inline bool exact_error_row(int32_t d) { return d % exact_error_stride == 0; }

// transform_test_model
// Given: the uniform value of the test model and weights (one row's length).
// Returns: the forward transform of the cube of value * weights, cube_size values.
// Fails: no memory: the allocation stop "transform_test_model".
std::vector<double> transform_test_model(const compression& c, const active_cells& cells,
                                         double value, const std::vector<double>& weights);

// dot_compressed
// Given: the transformed test model and a record filled by compress_row.
// Returns: the sum of val(k) * test_model_w(idx(k)); 0 for an empty record.
// Fails: a position outside the test model stops with a text.
double dot_compressed(const std::vector<double>& test_model_w, const compressed_row& rec);

// report_compression
// Given: the row length, ndata, the total kept count; data_full and
//   data_comp (ndata each, or both nullptr); row_bound and row_exact, the
//   relative error of each stored row by datum, compress_row's bound and
//   stored_row_error, the second read for the rows of exact_error_row only
//   (ndata each, or both nullptr); the run's log.
// Returns: the report in the log, and its numbers. A datum whose exact
//   response is 0 is left out of the mean error of the test model's data and
//   counted on a line of its own; the mean and the largest exact row error
//   of the rows measured follow, then those of the bound over every row,
//   each line saying which it is; with nothing kept the ratio says so.
// Fails: never.
// compression_figures: the numbers of the report (0 where it has none).
struct compression_figures {
  double ratio = 0.0;           // n * ndata / nnz
  double achieved_error = 0.0;  // mean relative error of the test model's data
  double row_error_mean = 0.0, row_error_max = 0.0;  // exact, over the rows measured
  int32_t rows_measured = 0;                          // the rows of exact_error_row
  double row_bound_mean = 0.0, row_bound_max = 0.0;  // the bound, over every row
};
compression_figures report_compression(int32_t n, int32_t ndata, int64_t nnz,
                                       const double* data_full, const double* data_comp,
                                       const double* row_bound, const double* row_exact,
                                       const run_log& out);

}  // namespace quolvent
