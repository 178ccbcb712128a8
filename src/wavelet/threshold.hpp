// Threshold estimation: from a required relative accuracy to the relative
// threshold of each kind of datum, by way of one sample row per kind.
// setup_compression itself is declared in wavelet/compression.hpp.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// estimate_thresholds
// Given: the row length n, wtz (n), the column tops, the kind of each datum,
//   and eps_line: "null"/"NULL" (itol 1, eps 0.05) or "itol eps".
// Returns: the two relative thresholds; with itol 2 both are eps, with itol 1
//   each kind that has data gets the estimate of its sample row, and a kind
//   without data keeps its value. Writes a block to the log per estimate.
// Fails: an unreadable field (no eps included), an itol other than 1 or 2, an
//   eps of 0 or below with itol 1, and the stops of wctol; each with its
//   message and a stop.
// Calls: ff_read_text, sens_row, wctol, report, report_log, stop_plain.
void estimate_thresholds(int32_t n, const std::vector<double>& wtz,
                         const std::vector<int32_t>& top_index,
                         const std::vector<int32_t>& obs_type, const std::string& eps_line,
                         double& wctol_surface, double& wctol_borehole);

// wctol
// Given: a row of n values (already divided by wtz) and the relative
//   accuracy eps; the filters and the padded extents are set.
// Returns: the relative threshold (to the largest coefficient) that drops
//   just the share of the energy that eps allows, read off the energy curve
//   at 10 points by log-log interpolation; writes three lines to the log.
//   Where the interpolation has no slope (no energy below a point, or a flat
//   curve) the threshold is that of the largest point known to meet eps. The
//   threshold is at most 1, so the largest coefficient is always kept.
// Fails: the accuracy is out of reach already at the first point, or eps is
//   not above 0: log message and stop. A row without any finite nonzero
//   value: message and stop. No memory: the allocation stop "wctol".
// Calls: row_to_cube, transform_cube, hpsort, report, report_log, stop_plain.
double wctol(const double* row, int32_t n, double eps);
