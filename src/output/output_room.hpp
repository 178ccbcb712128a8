// The room a run's outputs need, checked before the first row: a run that
// can't finish is refused at once rather than after hours of rows.
#pragma once

#include <cstdint>
#include <string>

#include "base/channels.hpp"
#include "model/model.hpp"
#include "wavelet/compression.hpp"

namespace quolvent {

// predicted_matrix_bytes
// Given: the survey and the compression record after the threshold estimate.
// Returns: the size of the matrix file: exact for an uncompressed run; for a
//   compressed one, with each row keeping as many coefficients as the sample
//   row of its kind; -1 when a kind in use has no estimate (a threshold
//   given by itol 2).
int64_t predicted_matrix_bytes(const survey& s, const compression& c);

// check_output_room
// Given: the survey, the compression record after the threshold estimate,
//   the matrix file's name, the run's log; the rows this process holds in
//   memory (-1: every row). Before the row loop.
// Returns: when the run can finish. A compressed run with an estimate gets
//   the predicted size of the matrix file in the log, and a warning on screen
//   and log where that file would not fit in the free space of its file
//   system or its rows in the memory the system has available.
// Fails: no file can be made in the matrix file's directory: cannot_write.
//   An uncompressed run whose matrix file does not fit in the free space (its
//   rows go to the file as they are made and need no memory of their own):
//   a report of what it needs and what there is, then a stop with exit
//   status 1 (an output that can't be written).
void check_output_room(const survey& s, const compression& c, const std::string& matrix_name,
                       const run_log& out, int32_t rows_held = -1);

}  // namespace quolvent
