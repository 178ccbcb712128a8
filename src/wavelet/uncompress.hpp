// The average absolute sensitivity as the compressed rows
// represent it.
#pragma once

#include <cstdint>
#include <vector>

#include "base/channels.hpp"
#include "base/exact_sum.hpp"
#include "base/row_range.hpp"
#include "model/model.hpp"
#include "wavelet/compression.hpp"

namespace quolvent {

// uncompress_rows
// Given: the compression record, the active cells, the store with its
//   compressed records, the row length n, ndata, weights (n), the run's log.
// Returns: mean_sensitivity (made n long) = mean over the data of |row| of each
//   record taken back through the inverse transform and multiplied by weights;
//   "Uncompressing ..." and the progress line on the screen.
// Fails: no memory for a thread's cube or row: the allocation stop
//   "uncompressG"; a position outside the cube stops with a text. A stop on
//   any thread ends the loop and leaves it once; so does an interrupt at a
//   row's checkpoint (out.check_interrupt).
void uncompress_rows(const compression& c, const active_cells& cells, const matrix_store& store,
                     int32_t n, int32_t ndata, const std::vector<double>& weights,
                     std::vector<double>& mean_sensitivity, const run_log& out);

// uncompress_rows, the rows of one process
// Given: as above, with the store holding the records of the data of `rows`
//   (the first at 0) and ndata the run's count (the progress line's total).
// Returns: sums made n long: the exact sums of |row * weights| over those
//   records; "Uncompressing ..." and the progress line on the screen.
// Fails: as above; a store with fewer records than rows stops with a text.
void uncompress_rows(const compression& c, const active_cells& cells, const matrix_store& store,
                     int32_t n, row_range rows, int32_t ndata, const std::vector<double>& weights,
                     exact_sums& sums, const run_log& out);

}  // namespace quolvent
