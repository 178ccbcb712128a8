// The matrix file "dulmarok.mtx": framed binary records, little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "base/channels.hpp"
#include "model/model.hpp"
#include "output/output_file.hpp"
#include "wavelet/compression.hpp"

namespace quolvent {

// The largest payload of one frame; a longer record is chained over several.
inline constexpr int64_t subrecord_limit = 2147483639;

// record_block: one piece of a record's payload.
struct record_block {
  const void* data;
  std::size_t bytes;
};

// write_record: one record made of the blocks in order, framed as
// [i32 length][payload][i32 length]; above `limit` payload bytes it is split
// into frames of exactly `limit` bytes and a last one of the rest, the signs
// of the markers telling first, middle and last apart.
// Fails: a write that fails is a platform failure.
void write_record(output_file& f, const std::vector<record_block>& blocks,
                  int64_t limit = subrecord_limit);

// write_matrix
// Given: the file's path; the survey (its mesh, column tops, row length,
//   weighting, ndata); the compression record; the store of the rows; the
//   flag of record 6; sens_sq (n); the run's log; the frame limit (tests
//   lower it).
// Returns: the file written and closed: the sizes, the nodes, the column
//   tops, the filter, the padded extents, flag and wtz, one record per row
//   (compressed records or the rows of g_full, which is then freed), and
//   sens_sq. "Writing out the matrix." on the screen.
// Fails: a file that can't be written is a platform failure; arrays shorter
//   than their counts stop the run with a text.
void write_matrix(const std::string& path, const survey& s, const compression& c,
                  matrix_store& store, int32_t flag, const std::vector<double>& sens_sq,
                  const run_log& out, int64_t record_limit = subrecord_limit);

}  // namespace quolvent
