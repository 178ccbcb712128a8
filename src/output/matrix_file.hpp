// The matrix file "dulmarok.mtx": framed binary records, little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/channels.hpp"
#include "base/row_range.hpp"
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

// record_out: where the records of a matrix file go, byte after byte in
// file order (an output_file, or a process's part of a file written by
// several processes).
class record_out {
 public:
  virtual ~record_out() = default;
  // write: bytes from p. Fails: a write that fails: its stop.
  virtual void write(const void* p, std::size_t bytes) = 0;
};

// file_out: the records straight into an output_file.
class file_out : public record_out {
 public:
  explicit file_out(output_file& f) : f_(f) {}
  void write(const void* p, std::size_t bytes) override { f_.write(p, bytes); }

 private:
  output_file& f_;
};

// write_record: one record made of the blocks in order, framed as
// [i32 length][payload][i32 length]; above `limit` payload bytes it is split
// into frames of exactly `limit` bytes and a last one of the rest, the signs
// of the markers telling first, middle and last apart.
// Fails: a write that fails: cannot_write (or the record_out's stop).
void write_record(record_out& f, const std::vector<record_block>& blocks,
                  int64_t limit = subrecord_limit);
void write_record(output_file& f, const std::vector<record_block>& blocks,
                  int64_t limit = subrecord_limit);

// write_matrix
// Given: the file (opened, empty); the survey (its mesh, column tops, row length,
//   weighting, ndata); the compression record; the store of the rows; the
//   flag of record 6; squared_sensitivity (n); the run's log; the frame limit (tests
//   lower it).
// Returns: the file written and closed: the sizes, the nodes, the column
//   tops, the filter, the padded extents, flag and weights, one record per row
//   (compressed records or the rows of full_rows, which is then freed), and
//   squared_sensitivity. "Writing out the matrix." on the screen. The file is
//   finished, waiting to be put in place (output_file, output_set).
// Fails: a file that can't be written: cannot_write; an interrupt (a
//   checkpoint at each row record and after the file is on the device);
//   arrays shorter than their counts stop the run with a text. An earlier
//   file of its name stays as it was.
void write_matrix(output_file& f, const survey& s, const compression& c,
                  matrix_store& store, int32_t flag, const std::vector<double>& squared_sensitivity,
                  const run_log& out, int64_t record_limit = subrecord_limit);

// say_writing_matrix: "Writing out the matrix." between empty lines on the
// screen, as the file's last records are written.
void say_writing_matrix(const run_log& out);

// The three parts of the matrix file, for a file that several processes
// write, each its rows. Fails: as write_matrix.
//   check_matrix_arrays: the arrays hold what their counts say, for a store
//     that holds the rows of `rows`; squared_sensitivity is checked where check_tail.
//   write_matrix_head: records 1 to 6 (sizes, nodes, column tops, filter,
//     padded extents, flag and weights).
//   write_matrix_rows: the row records of the store, the data of `rows` in
//     order, a checkpoint before each (out.check_interrupt).
//   write_compressed_record: one row's record: its count, indices, values.
//   write_matrix_tail: the last record, squared_sensitivity.
void check_matrix_arrays(const survey& s, const compression& c, const matrix_store& store,
                         row_range rows, const std::vector<double>* squared_sensitivity);
void write_matrix_head(record_out& f, const survey& s, const compression& c, int32_t flag,
                       int64_t record_limit = subrecord_limit);
void write_matrix_rows(record_out& f, const survey& s, const compression& c,
                       const matrix_store& store, row_range rows, const run_log& out,
                       int64_t record_limit = subrecord_limit);
void write_compressed_record(record_out& f, const compressed_row& rec,
                             int64_t record_limit = subrecord_limit);
void write_matrix_tail(record_out& f, const survey& s,
                       const std::vector<double>& squared_sensitivity,
                       int64_t record_limit = subrecord_limit);

// streamed_matrix: an uncompressed matrix file whose row records are put in
// place while the rows are made. Every record's place is known before the
// first row (the head, then framed rows of n values), so the threads of each
// process write their rows at their places in the temporary file, and the
// matrix is never held whole. The first process (or the only one) has the
// file (an output_file) and writes records 1 to 6 and the last; the others
// join it by its temporary name.
class streamed_matrix {
 public:
  // Over whole, the matrix file's output (opened, empty), whose temporary
  // file it writes. Fails: cannot_write.
  streamed_matrix(output_file& whole, const survey& s, const compression& c,
                  int64_t record_limit = subrecord_limit);
  // Joins the temporary file `temporary` another process made for path.
  // Fails: cannot_write.
  streamed_matrix(const std::string& path, const std::string& temporary, const survey& s,
                  const compression& c, int64_t record_limit = subrecord_limit);
  streamed_matrix(const streamed_matrix&) = delete;
  streamed_matrix& operator=(const streamed_matrix&) = delete;

  const std::string& temporary() const { return temporary_; }

  // row_buffer: a buffer for one row, with room for its frame's markers;
  // row_values: where the row's n values go in it.
  std::vector<float> row_buffer() const;
  static float* row_values(std::vector<float>& buffer) { return buffer.data() + 1; }
  // Each: the record at its place. write_row from any thread at once.
  // Fails: a write that fails: cannot_write.
  void write_head(int32_t flag) const;
  void write_row(std::vector<float>& buffer, int32_t datum) const;
  void write_tail(const std::vector<double>& squared_sensitivity) const;
  // finish_part: this process's writes on the device, its handle closed.
  void finish_part();
  // close: on the process that made the file, after every process's
  // finish_part: the file finished, then an interrupt checkpoint; the run's
  // output set puts it in place.
  void close(const run_log& out);

 private:
  const survey& s_;
  const compression& c_;
  int64_t limit_, head_bytes_, row_bytes_;
  output_file* whole_ = nullptr;
  std::string temporary_;
  std::optional<output_part> part_;
};

// matrix_head_bytes: the bytes of records 1 to 6 in the file.
int64_t matrix_head_bytes(const survey& s, const compression& c, int64_t limit = subrecord_limit);
// stored_rows_bytes: the bytes of the row records of the store (the data of
// `rows`) in the file.
int64_t stored_rows_bytes(const survey& s, const compression& c, const matrix_store& store,
                          row_range rows, int64_t limit = subrecord_limit);

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
