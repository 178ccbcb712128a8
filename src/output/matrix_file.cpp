// The matrix file.
#include "output/matrix_file.hpp"

#include <algorithm>
#include <bit>
#include <cstring>
#include <cstdlib>
#include <string>

#include "base/resources.hpp"
#include "base/stop.hpp"
#include "output/output_file.hpp"

static_assert(std::endian::native == std::endian::little,
              "the matrix file is little-endian and is written straight from memory");

namespace quolvent {

namespace {

void put_marker(record_out& f, int64_t value) {
  const int32_t m = static_cast<int32_t>(value);
  f.write(&m, sizeof m);
}

// need: a record can't read past the end of its array.
template <typename T, typename A>
void need(const std::vector<T, A>& v, int64_t count, const char* text) {
  if (count < 0 || static_cast<uint64_t>(v.size()) < static_cast<uint64_t>(count)) stop_text(text);
}

std::size_t count_of(int64_t c) { return static_cast<std::size_t>(c > 0 ? c : 0); }

// positioned_out: records written at the file's places from `at` on.
class positioned_out : public record_out {
 public:
  positioned_out(const output_part& f, int64_t at) : f_(f), at_(at) {}
  void write(const void* p, std::size_t bytes) override {
    f_.write_at(at_, p, bytes);
    at_ += static_cast<int64_t>(bytes);
  }

 private:
  const output_part& f_;
  int64_t at_;
};

// buffered_out: records gathered in memory, to go to the file in one write.
class buffered_out : public record_out {
 public:
  void write(const void* p, std::size_t bytes) override {
    bytes_.insert(bytes_.end(), static_cast<const char*>(p), static_cast<const char*>(p) + bytes);
  }
  const std::vector<char>& bytes() const { return bytes_; }

 private:
  std::vector<char> bytes_;
};

}  // namespace

void write_record(record_out& f, const std::vector<record_block>& blocks, int64_t limit) {
  if (limit < 1) limit = subrecord_limit;
  int64_t total = 0;
  for (const auto& b : blocks) total += static_cast<int64_t>(b.bytes);

  std::size_t block = 0, offset = 0;  // position in the blocks
  int64_t left = total;
  bool first = true;
  do {
    const int64_t len = std::min(left, limit);
    const bool last = len == left;
    put_marker(f, last ? len : -len);
    int64_t todo = len;
    while (todo > 0) {
      const record_block& b = blocks[block];
      const std::size_t take =
          static_cast<std::size_t>(std::min<int64_t>(todo, static_cast<int64_t>(b.bytes - offset)));
      f.write(static_cast<const char*>(b.data) + offset, take);
      offset += take;
      todo -= static_cast<int64_t>(take);
      if (offset == b.bytes) {
        ++block;
        offset = 0;
      }
    }
    put_marker(f, first ? len : -len);
    left -= len;
    first = false;
  } while (left > 0);
}

void write_record(output_file& f, const std::vector<record_block>& blocks, int64_t limit) {
  file_out to(f);
  write_record(to, blocks, limit);
}

void check_matrix_arrays(const survey& s, const compression& c, const matrix_store& store,
                         row_range rows, const std::vector<double>* squared_sensitivity) {
  const mesh_model& mesh = s.mesh;
  const int32_t n = s.n;
  const int32_t ny = mesh.ny, nx = mesh.nx, nz = mesh.nz;
  need(s.weights, n, "size(weights) /= n");
  if (squared_sensitivity) need(*squared_sensitivity, n, "size(squared_sensitivity) /= n");
  need(mesh.yn, int64_t{ny} + 1, "size(yn) /= ny + 1");
  need(mesh.xn, int64_t{nx} + 1, "size(xn) /= nx + 1");
  need(mesh.zn, int64_t{nz} + 1, "size(zn) /= nz + 1");
  need(s.top_index, int64_t{ny} * nx, "size(top_index) /= ny * nx");
  need(c.filter, c.filter_length, "size(filter) /= filter_length");
  if (c.compressed) {
    need(store.compressed_rows, rows.count(), "size(compressed_rows) /= ndata");
  } else {
    need(store.full_rows, int64_t{n} * rows.count(), "size(full_rows) /= n * ndata");
  }
}

void write_matrix_head(record_out& f, const survey& s, const compression& c, int32_t flag,
                       int64_t record_limit) {
  const mesh_model& mesh = s.mesh;
  const int32_t ny = mesh.ny, nx = mesh.nx, nz = mesh.nz;
  const int32_t sizes[5] = {s.obs.ndata, s.n, ny, nx, nz};
  write_record(f, {{sizes, sizeof sizes}}, record_limit);

  write_record(f,
               {{mesh.yn.data(), 8 * count_of(int64_t{ny} + 1)},
                {mesh.xn.data(), 8 * count_of(int64_t{nx} + 1)},
                {mesh.zn.data(), 8 * count_of(int64_t{nz} + 1)},
                {&mesh.z0, 8}},
               record_limit);

  write_record(f, {{s.top_index.data(), 4 * count_of(int64_t{ny} * nx)}}, record_limit);

  write_record(f, {{&c.filter_length, 4}, {c.filter.data(), 8 * count_of(c.filter_length)}},
               record_limit);

  const int32_t padded[3] = {c.padded_ny, c.padded_nx, c.padded_nz};
  write_record(f, {{padded, sizeof padded}}, record_limit);

  write_record(f, {{&flag, 4}, {s.weights.data(), 8 * count_of(s.n)}}, record_limit);
}

void write_matrix_rows(record_out& f, const survey& s, const compression& c,
                       const matrix_store& store, row_range rows, const run_log& out,
                       int64_t record_limit) {
  const std::size_t len = count_of(s.n);
  const int32_t count = rows.count();
  for (int32_t i = 0; i < count; ++i) {
    out.check_interrupt();
    if (c.compressed) {
      write_compressed_record(f, store.compressed_rows[static_cast<std::size_t>(i)], record_limit);
    } else {
      write_record(f, {{store.full_rows.data() + static_cast<std::size_t>(i) * len, 4 * len}},
                   record_limit);
    }
  }
}

void write_compressed_record(record_out& f, const compressed_row& rec, int64_t record_limit) {
  const int32_t nnz = static_cast<int32_t>(rec.idx.size());
  if (rec.val.size() != rec.idx.size()) stop_text("size(val) /= size(idx)");
  write_record(f,
               {{&nnz, 4}, {rec.idx.data(), 4 * rec.idx.size()}, {rec.val.data(), 4 * rec.val.size()}},
               record_limit);
}

void write_matrix_tail(record_out& f, const survey& s,
                       const std::vector<double>& squared_sensitivity, int64_t record_limit) {
  write_record(f, {{squared_sensitivity.data(), 8 * count_of(s.n)}}, record_limit);
}

void say_writing_matrix(const run_log& out) {
  out.say_screen("");
  out.say_screen("Writing out the matrix.");
  out.say_screen("");
}

void write_matrix(output_file& f, const survey& s, const compression& c,
                  matrix_store& store, int32_t flag, const std::vector<double>& squared_sensitivity,
                  const run_log& out, int64_t record_limit) {
  say_writing_matrix(out);

  const row_range rows = all_rows(s.obs.ndata);
  check_matrix_arrays(s, c, store, rows, &squared_sensitivity);
  file_out to(f);
  write_matrix_head(to, s, c, flag, record_limit);
  write_matrix_rows(to, s, c, store, rows, out, record_limit);
  // Nothing reads the full matrix after this.
  if (!c.compressed) float_matrix().swap(store.full_rows);
  write_matrix_tail(to, s, squared_sensitivity, record_limit);

  // A checkpoint after the sync, which can take a while for a large file.
  f.finish();
  out.check_interrupt();
}

streamed_matrix::streamed_matrix(output_file& whole, const survey& s, const compression& c,
                                 int64_t record_limit)
    : streamed_matrix(whole.name(), whole.temporary(), s, c, record_limit) {
  whole_ = &whole;
}

streamed_matrix::streamed_matrix(const std::string& path, const std::string& temporary,
                                 const survey& s, const compression& c, int64_t record_limit)
    : s_(s), c_(c), limit_(record_limit), temporary_(temporary) {
  head_bytes_ = matrix_head_bytes(s, c, limit_);
  row_bytes_ = framed_bytes(uncompressed_row_payload(s.n), limit_);
  part_.emplace(path, temporary_);
}

std::vector<float> streamed_matrix::row_buffer() const {
  return std::vector<float>(count_of(s_.n) + 2);
}

void streamed_matrix::write_head(int32_t flag) const {
  check_matrix_arrays(s_, c_, matrix_store{}, row_range{}, nullptr);
  buffered_out head;
  write_matrix_head(head, s_, c_, flag, limit_);
  part_->write_at(0, head.bytes().data(), head.bytes().size());
}

void streamed_matrix::write_row(std::vector<float>& buffer, int32_t datum) const {
  const int64_t payload = uncompressed_row_payload(s_.n);
  const int64_t at = head_bytes_ + int64_t{datum} * row_bytes_;
  if (buffer.size() != count_of(s_.n) + 2) stop_text("size(row buffer) /= n + 2");
  if (payload <= limit_) {
    // One frame: the markers around the values, one write.
    const int32_t marker = static_cast<int32_t>(payload);
    std::memcpy(buffer.data(), &marker, 4);
    std::memcpy(buffer.data() + buffer.size() - 1, &marker, 4);
    part_->write_at(at, buffer.data(), static_cast<std::size_t>(row_bytes_));
  } else {
    positioned_out to(*part_, at);
    write_record(to, {{row_values(buffer), static_cast<std::size_t>(payload)}}, limit_);
  }
  part_->start_writeback(at, row_bytes_);
}

void streamed_matrix::write_tail(const std::vector<double>& squared_sensitivity) const {
  need(squared_sensitivity, s_.n, "size(squared_sensitivity) /= n");
  positioned_out to(*part_, head_bytes_ + int64_t{s_.obs.ndata > 0 ? s_.obs.ndata : 0} * row_bytes_);
  write_matrix_tail(to, s_, squared_sensitivity, limit_);
}

void streamed_matrix::finish_part() { part_->finish(); }

void streamed_matrix::close(const run_log& out) {
  // A checkpoint after the sync, which can take a while for a large file;
  // the run's set puts the file in place.
  whole_->finish();
  out.check_interrupt();
}

int64_t framed_bytes(int64_t payload, int64_t limit) {
  if (limit < 1) limit = subrecord_limit;
  const int64_t frames = payload <= 0 ? 1 : payload / limit + (payload % limit != 0 ? 1 : 0);
  return add_sizes(payload, mul_sizes(frames, 8));
}

int64_t matrix_head_bytes(const survey& s, const compression& c, int64_t limit) {
  const mesh_model& mesh = s.mesh;
  const auto count = [](int32_t v) { return static_cast<int64_t>(count_of(v)); };
  const int64_t n = count(s.n);
  const int64_t ny = count(mesh.ny), nx = count(mesh.nx), nz = count(mesh.nz);
  int64_t total = framed_bytes(20, limit);
  total = add_sizes(total, framed_bytes(8 * (ny + nx + nz + 4), limit));
  total = add_sizes(total, framed_bytes(mul_sizes(4 * ny, nx), limit));
  total = add_sizes(total, framed_bytes(4 + 8 * count(c.filter_length), limit));
  total = add_sizes(total, framed_bytes(12, limit));
  return add_sizes(total, framed_bytes(4 + 8 * n, limit));
}

int64_t stored_rows_bytes(const survey& s, const compression& c, const matrix_store& store,
                          row_range rows, int64_t limit) {
  int64_t total = 0;
  const int32_t count = rows.count();
  for (int32_t i = 0; i < count; ++i) {
    const int64_t payload =
        c.compressed ? compressed_row_payload(static_cast<int64_t>(
                           store.compressed_rows[static_cast<std::size_t>(i)].idx.size()))
                     : uncompressed_row_payload(s.n);
    total = add_sizes(total, framed_bytes(payload, limit));
  }
  return total;
}

int64_t matrix_file_bytes(const survey& s, const compression& c, const row_payload_fn& row_payload,
                          int64_t limit) {
  const int64_t n = static_cast<int64_t>(count_of(s.n));
  int64_t total = matrix_head_bytes(s, c, limit);
  const int32_t ndata = s.obs.ndata;
  for (int32_t i = 0; i < ndata; ++i) total = add_sizes(total, framed_bytes(row_payload(i), limit));
  return add_sizes(total, framed_bytes(8 * n, limit));
}

}  // namespace quolvent
