// ordered_matrix: a compressed matrix file written while its rows are made.
// Its row records are of variable length, so they go into the file in datum
// order: records 1 to 6 before the first row (everything they hold is known
// then), each row's record as soon as it and every earlier datum's record are
// in the store, the last record after the rows. The thread that finds records
// ready writes them while the others go on with their rows, so that after the
// rows only the last record and the sync are left.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "base/channels.hpp"
#include "model/model.hpp"
#include "output/matrix_file.hpp"
#include "output/output_file.hpp"
#include "wavelet/compression.hpp"

namespace quolvent {

class ordered_matrix {
 public:
  // Over whole, the matrix file's output (opened, empty), for the store of a
  // run of one process (ndata records, every datum's). Writes records 1 to 6
  // with flag. With `release`, each record is freed from the store once it
  // is in the file (nothing reads the store after the rows).
  // Fails: arrays shorter than their counts: a text; cannot_write.
  ordered_matrix(output_file& whole, const survey& s, const compression& c, matrix_store& store,
                 int32_t flag, bool release, int64_t record_limit = subrecord_limit);
  ordered_matrix(const ordered_matrix&) = delete;
  ordered_matrix& operator=(const ordered_matrix&) = delete;

  // row_done: datum's record (0-based) is complete in the store; from any
  // thread, once per datum. Writes the records that are ready, unless
  // another thread is writing them: it then goes on with them.
  // Fails: a write that fails: cannot_write (the file is removed, and later
  // calls write nothing).
  void row_done(int32_t datum);

  // finish: after the rows, on one thread: the records not yet written (a
  // checkpoint before each), the last record, squared_sensitivity, then the
  // file synced and an interrupt checkpoint; the run's output set puts it in
  // place. Fails: a datum whose row never came: a text; cannot_write; an
  // interrupt.
  void finish(const std::vector<double>& squared_sensitivity, const run_log& out);

 private:
  // write_ready: with the writer held, the ready records from next_ on.
  void write_ready();
  void write_row(int32_t i);

  output_file& whole_;
  const survey& s_;
  matrix_store& store_;
  bool release_;
  int64_t limit_;
  file_out to_;
  std::unique_ptr<std::atomic<bool>[]> ready_;
  std::atomic<int32_t> next_{0};
  std::mutex writer_;
  bool broken_ = false;        // a write failed: the file is gone (under writer_)
  int64_t unstarted_ = 0;      // bytes written since the device was last started on them
};

}  // namespace quolvent
