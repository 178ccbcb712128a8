// Threshold estimation: from a required relative accuracy to the relative
// threshold of each kind of datum, by way of one sample row per kind; and the
// set-up of the compression record and of the matrix store.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "base/channels.hpp"
#include "model/model.hpp"
#include "wavelet/compression.hpp"

namespace quolvent {

// sample_row_fn: fills row (n values, before the weighting) with the
// sensitivity row of the 1-based datum idat. The threshold estimate is handed
// one by the driver, so that it never computes a row itself.
using sample_row_fn = std::function<void(int32_t idat, std::vector<double>& row)>;

// setup_compression
// Given: the survey (its row length, weighting, active cells, data kinds),
//   the wavelet name and the tolerance field of the control file, the sample
//   rows, the run's log; whether to estimate the thresholds (a process of a
//   run shared by several takes them from the one that estimates them).
// Returns: the compression record: compressed, filters, padded extents and,
//   when compressed and estimated, the thresholds.
// Fails: the stops of check_wavelet, set_padded_extents and
//   estimate_thresholds.
compression setup_compression(const survey& s, const std::string& wavelet,
                              const std::string& eps_line, const sample_row_fn& sample_row,
                              const run_log& out, bool estimate = true);

// make_matrix_store
// Given: the compression record, the row length n, ndata.
// Returns: ndata empty records when compressed, else full_rows of n x ndata
//   (each element written by the row loops).
// Fails: no memory for the records: "setup_compression"; for full_rows: its own
//   message and a stop.
matrix_store make_matrix_store(const compression& c, int32_t n, int32_t ndata);

// estimate_thresholds
// Given: the compression record (filters and padded extents set), the survey,
//   eps_line ("null"/"NULL": itol 1, eps 0.05; or "itol eps"), the sample rows.
// Returns: the two relative thresholds; with itol 2 both are eps, with itol 1
//   each kind that has data gets the estimate of its sample row (the datum of
//   that kind nearest the mesh centre, divided by the weighting), and a kind
//   without data keeps its value. Writes a block to the log per estimate.
//   kept_surface / kept_borehole, when given, get the count of coefficients
//   each estimate's sample row keeps (left alone where none is made).
// Fails: an unreadable field (no eps included), an itol other than 1 or 2, an
//   eps of 0 or below with itol 1, and the stops of relative_threshold; each with its
//   message and a stop.
void estimate_thresholds(const compression& c, const survey& s, const std::string& eps_line,
                         const sample_row_fn& sample_row, const run_log& out,
                         double& threshold_surface, double& threshold_borehole,
                         int64_t* kept_surface = nullptr, int64_t* kept_borehole = nullptr);

// relative_threshold
// Given: the compression record (filters and padded extents set) and the
//   active cells; a row of n values (already divided by weights) and the relative
//   accuracy eps.
// Returns: the relative threshold (to the largest coefficient) that drops
//   just the share of the energy that eps allows, read off the energy curve
//   at 10 points by log-log interpolation; writes three lines to the log.
//   Where the interpolation has no slope (no energy below a point, or a flat
//   curve) the threshold is that of the largest point known to meet eps. The
//   threshold is at most 1, so the largest coefficient is always kept.
//   kept, when given, gets the count of the row's coefficients the threshold
//   keeps (the n over the predicted compression ratio).
// Fails: the accuracy is out of reach already at the first point, or eps is
//   not above 0: log message and stop. A row without any finite nonzero
//   value: message and stop. No memory: the allocation stop "wctol".
double relative_threshold(const compression& c, const active_cells& cells, const double* row,
                          int32_t n, double eps, const run_log& out, int64_t* kept = nullptr);

}  // namespace quolvent
