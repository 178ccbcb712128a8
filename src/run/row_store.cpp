// The row loops' sink over the matrix store.
#include "run/row_store.hpp"

#include <utility>

#include "base/resources.hpp"
#include "base/stop.hpp"
#include "wavelet/compress_row.hpp"

namespace quolvent {

namespace {

// The uniform susceptibility of the test model of the compression check.
constexpr double test_model_value = 0.01;

// compress_part: one thread's cube, line buffers and count of kept
// coefficients; or its buffer of a row on its way to the file.
struct compress_part : row_sink::thread_part {
  compress_workspace ws;
  int64_t nnz = 0;
  std::vector<float> row;
};

}  // namespace

void store_sink::begin(int32_t n, int32_t ndata, const char* alloc_name) {
  const std::size_t len = static_cast<std::size_t>(n > 0 ? n : 0);
  const std::size_t nd = static_cast<std::size_t>(ndata > 0 ? ndata : 0);
  // Every row lands in its own record or column of the store: it has to hold
  // them all.
  const std::size_t held = static_cast<std::size_t>(rows_.count());
  if (rows_.first < 0 || rows_.last > ndata) stop_text("rows outside the data");
  if (c_.compressed && store_.compressed_rows.size() != held)
    stop_text("size(compressed_rows) /= ndata");
  if (!c_.compressed && !file_ && store_.full_rows.size() != len * held)
    stop_text("size(full_rows) /= n * ndata");
  if (c_.compressed && s_.datum_kinds.size() < nd) stop_text("size(datum_kinds) /= ndata");
  nnz_ = 0;
  if (!c_.compressed) return;
  assign_or_stop(data_full_, nd, 0.0, alloc_name);
  assign_or_stop(data_comp_, nd, 0.0, alloc_name);
  assign_or_stop(row_bound_, nd, 0.0, alloc_name);
  assign_or_stop(row_exact_, nd, 0.0, alloc_name);
  test_model_w_ = transform_test_model(c_, s_.cells, test_model_value, s_.weights);
}

double store_sink::test_model() const { return c_.compressed ? test_model_value : 0.0; }

float* store_sink::full_column(thread_part& t, int32_t datum) {
  if (c_.compressed) return nullptr;
  if (file_) return streamed_matrix::row_values(static_cast<compress_part&>(t).row);
  return store_.full_rows.data() +
         static_cast<std::size_t>(datum - rows_.first) * static_cast<std::size_t>(s_.n);
}

void store_sink::full_done(thread_part& t, int32_t datum) {
  if (file_) file_->write_row(static_cast<compress_part&>(t).row, datum);
}

void store_sink::claim_rows(row_range mine) {
  if (c_.compressed || file_ || mine.count() == 0) return;
  back_with_pages(store_.full_rows.data() +
                      static_cast<std::size_t>(mine.first - rows_.first) *
                          static_cast<std::size_t>(s_.n),
                  static_cast<std::size_t>(mine.count()) * static_cast<std::size_t>(s_.n) *
                      sizeof(float));
}

std::unique_ptr<row_sink::thread_part> store_sink::open_thread() {
  auto part = std::make_unique<compress_part>();
  if (c_.compressed) part->ws = compress_workspace(c_);
  if (!c_.compressed && file_) {
    try {
      part->row = file_->row_buffer();
    } catch (const std::bad_alloc&) {
      alloc_failed("kernel g");
    }
  }
  return part;
}

void store_sink::put(thread_part& t, int32_t datum, const double* row, double test_datum) {
  auto& part = static_cast<compress_part&>(t);
  const std::size_t d = static_cast<std::size_t>(datum);
  compressed_row& rec = store_.compressed_rows[static_cast<std::size_t>(datum - rows_.first)];
  data_full_[d] = test_datum;
  row_bound_[d] =
      compress_row(c_, s_.cells, row, s_.n, rec, part.nnz, s_.datum_kinds[d], part.ws);
  if (exact_error_row(datum)) row_exact_[d] = stored_row_error(c_, s_.cells, row, s_.n, rec, part.ws);
  data_comp_[d] = dot_compressed(test_model_w_, rec);
  if (ordered_) ordered_->row_done(datum);
}

void store_sink::put_record(thread_part& t, int32_t datum, compressed_row&& rec, double bound,
                            double test_datum, const double* row) {
  if (!c_.compressed) stop_text("a record for rows kept whole");
  auto& part = static_cast<compress_part&>(t);
  const std::size_t d = static_cast<std::size_t>(datum);
  compressed_row& stored = store_.compressed_rows[static_cast<std::size_t>(datum - rows_.first)];
  stored = std::move(rec);
  part.nnz += static_cast<int64_t>(stored.idx.size());
  data_full_[d] = test_datum;
  row_bound_[d] = bound;
  if (exact_error_row(datum))
    row_exact_[d] = stored_row_error(c_, s_.cells, row, s_.n, stored, part.ws);
  data_comp_[d] = dot_compressed(test_model_w_, stored);
  if (ordered_) ordered_->row_done(datum);
}

void store_sink::close_thread(thread_part& t) {
  auto& part = static_cast<compress_part&>(t);
  part.ws = compress_workspace();
  std::vector<float>().swap(part.row);
  std::lock_guard<std::mutex> hold(lock_);
  nnz_ += part.nnz;
}

void store_sink::release_check() {
  std::vector<double>().swap(test_model_w_);
  std::vector<double>().swap(data_full_);
  std::vector<double>().swap(data_comp_);
  std::vector<double>().swap(row_bound_);
  std::vector<double>().swap(row_exact_);
}

}  // namespace quolvent
