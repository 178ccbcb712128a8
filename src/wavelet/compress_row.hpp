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
//   kept ones over the energy of the row (0 for a row of zeros).
//   The transform runs plane by plane (row_coefficients); the threshold, the
//   packing and the energies are one pass over the cube, the energies summed
//   in vector lanes (the last bits of the error, not the coefficients,
//   depend on the vector target).
// Fails: no memory for the record: message and stop.
double compress_row(const compression& c, const active_cells& cells, const double* row, int32_t n,
                    compressed_row& rec, int64_t& nnz, datum_kind kind, compress_workspace& ws);

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
//   data_comp (ndata each, or both nullptr); row_err, the relative error of
//   each stored row from compress_row (ndata, or nullptr); the run's log.
// Returns: the report in the log, and its numbers. A datum whose exact response is 0 is left
//   out of the mean error of the test model's data and counted on a line of
//   its own; the mean and the largest row error follow; with nothing kept
//   the ratio says so.
// Fails: never.
// compression_figures: the numbers of the report (0 where it has none).
struct compression_figures {
  double ratio = 0.0;           // n * ndata / nnz
  double achieved_error = 0.0;  // mean relative error of the test model's data
  double row_error_mean = 0.0, row_error_max = 0.0;
};
compression_figures report_compression(int32_t n, int32_t ndata, int64_t nnz,
                                       const double* data_full, const double* data_comp,
                                       const double* row_err, const run_log& out);

}  // namespace quolvent
