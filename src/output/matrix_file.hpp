// The matrix file "dulmarok.mtx": framed binary records, little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
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
// Fails: a write that fails: cannot_write.
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
//   sens_sq. "Writing out the matrix." on the screen. The file appears
//   whole under path or not at all (output_file).
// Fails: a file that can't be written: cannot_write; an interrupt (a
//   checkpoint at each row record and before the file is put in place);
//   arrays shorter than their counts stop the run with a text. An earlier
//   file at path stays as it was.
void write_matrix(const std::string& path, const survey& s, const compression& c,
                  matrix_store& store, int32_t flag, const std::vector<double>& sens_sq,
                  const run_log& out, int64_t record_limit = subrecord_limit);

// framed_bytes: what a record of payload bytes takes in the file: the
// payload and 8 bytes of markers per frame (one frame for an empty record).
int64_t framed_bytes(int64_t payload, int64_t limit = subrecord_limit);

// row_payload_fn: the payload bytes of the row record of datum i (0-based).
using row_payload_fn = std::function<int64_t(int32_t i)>;

// matrix_file_bytes
// Given: the survey and the compression record write_matrix gets, the
//   payload of each row record, the frame limit.
// Returns: the size of the file write_matrix writes, by the same records
//   and frames; INT64_MAX for a size beyond it.
int64_t matrix_file_bytes(const survey& s, const compression& c, const row_payload_fn& row_payload,
                          int64_t limit = subrecord_limit);

// uncompressed_row_payload: the payload of an uncompressed row record.
inline int64_t uncompressed_row_payload(int32_t n) { return 4 * int64_t{n > 0 ? n : 0}; }
// compressed_row_payload: the payload of a compressed row record of nnz values.
inline int64_t compressed_row_payload(int64_t nnz) { return 4 + 8 * nnz; }

}  // namespace quolvent
