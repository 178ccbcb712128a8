// The compressed matrix file written while its rows are made.
#include "output/ordered_matrix.hpp"

#include "base/stop.hpp"

namespace quolvent {

namespace {

// The device is started on what was written each time this much has gone in,
// so that the sync at the end has only the last of it to wait for.
constexpr int64_t writeback_bytes = int64_t{8} << 20;

}  // namespace

ordered_matrix::ordered_matrix(output_file& whole, const survey& s, const compression& c,
                               matrix_store& store, int32_t flag, bool release,
                               int64_t record_limit)
    : whole_(whole), s_(s), store_(store), release_(release), limit_(record_limit), to_(whole) {
  const int32_t ndata = s.obs.ndata > 0 ? s.obs.ndata : 0;
  if (!c.compressed) stop_text("a record stream for rows kept whole");
  check_matrix_arrays(s, c, store, row_range{0, ndata}, nullptr);
  ready_ = std::make_unique<std::atomic<bool>[]>(static_cast<std::size_t>(ndata));
  for (int32_t i = 0; i < ndata; ++i) ready_[static_cast<std::size_t>(i)].store(false);
  write_matrix_head(to_, s, c, flag, limit_);
}

void ordered_matrix::row_done(int32_t datum) {
  if (datum < 0 || datum >= s_.obs.ndata) stop_text("rows outside the data");
  ready_[static_cast<std::size_t>(datum)].store(true);
  for (;;) {
    std::unique_lock<std::mutex> hold(writer_, std::try_to_lock);
    if (!hold.owns_lock()) return;  // the holder, or the next row, writes it
    if (broken_) return;
    write_ready();
    hold.unlock();
    // A record finished while this thread held the writer, by a thread that
    // could not get it, would otherwise wait for the next row to be done.
    const int32_t next = next_.load();
    if (next >= s_.obs.ndata || !ready_[static_cast<std::size_t>(next)].load()) return;
  }
}

void ordered_matrix::write_ready() {
  int32_t i = next_.load();
  try {
    while (i < s_.obs.ndata && ready_[static_cast<std::size_t>(i)].load()) {
      write_row(i);
      next_.store(++i);
    }
    if (unstarted_ >= writeback_bytes) {
      whole_.start_writeback();
      unstarted_ = 0;
    }
  } catch (...) {
    broken_ = true;
    throw;
  }
}

void ordered_matrix::write_row(int32_t i) {
  compressed_row& rec = store_.compressed_rows[static_cast<std::size_t>(i)];
  write_compressed_record(to_, rec, limit_);
  unstarted_ += framed_bytes(compressed_row_payload(static_cast<int64_t>(rec.idx.size())), limit_);
  if (release_) rec = compressed_row();
}

void ordered_matrix::finish(const std::vector<double>& squared_sensitivity, const run_log& out) {
  const std::lock_guard<std::mutex> hold(writer_);
  if (broken_) stop_text("the matrix file was not written");
  for (int32_t i = next_.load(); i < s_.obs.ndata; next_.store(++i)) {
    out.check_interrupt();
    if (!ready_[static_cast<std::size_t>(i)].load())
      stop_text("a row missing from the matrix file");
    write_row(i);
  }
  if (squared_sensitivity.size() < static_cast<std::size_t>(s_.n > 0 ? s_.n : 0))
    stop_text("size(squared_sensitivity) /= n");
  write_matrix_tail(to_, s_, squared_sensitivity, limit_);
  // A checkpoint after the sync, which can take a while for a large file.
  whole_.finish();
  out.check_interrupt();
}

}  // namespace quolvent
