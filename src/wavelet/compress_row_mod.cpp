// COMPRESS_ROW_MOD: the row is compressed on the thread that computed it,
// with two passes over the cube so that each record is allocated at its
// exact size.
#include "wavelet/compress_row_mod.hpp"

#include <cmath>
#include <cstddef>
#include <new>

#include "model/model.hpp"
#include "output/diagnostic_files.hpp"
#include "run/format.hpp"
#include "run/text_io.hpp"
#include "wavelet/wtn_mod.hpp"

std::vector<double> test_model_w;

namespace {

// work: the calling thread's cube.
thread_local std::vector<double> work;

[[noreturn]] void store_full() {
  report({"", "ERROR: cannot allocate any more memory for the compressed sensitivity matrix.", ""});
  stop_plain();
}

}  // namespace

int64_t kept_count(const double* cube, int64_t count, double t) {
  int64_t kept = 0;
  for (int64_t i = 0; i < count; ++i) kept += (std::fabs(cube[i]) >= t) ? 1 : 0;
  return kept;
}

// ALLOC_WORK
// Given: ncube. Returns: the calling thread's cube of ncube values.
// Fails: no memory: the allocation stop "alloc_work". Calls: alloc_failed.
void ALLOC_WORK() {
  try {
    work.assign(static_cast<std::size_t>(ncube), 0.0);
  } catch (const std::bad_alloc&) {
    alloc_failed("alloc_work");
  }
}

// DEALLOC_WORK
// Given: nothing. Returns: the calling thread's cube given back.
// Fails: never. Calls: nothing.
void DEALLOC_WORK() {
  // Giving memory back can't fail here; the vector is simply emptied.
  std::vector<double>().swap(work);
}

// COMPRESS_ROW
// Given: row[0..n-1], already divided by wtz; the record of its datum; the
//   thread's nnz accumulator; kind, the datum's obs_type.
// Returns: rec holds, in ascending 1-based cube positions, every wavelet
//   coefficient whose magnitude reaches the relative threshold of its kind
//   (wctol_borehole for kind < 0, else wctol_surface) times the row's largest,
//   rounded to 32 bits; its count is added to nnz. The row is not changed.
// Fails: no memory for the record: message and stop; the two passes
//   disagreeing: "i /= nnz". Calls: row_to_cube, transform_cube.
void COMPRESS_ROW(const double* row, int32_t n, compressed_row& rec, int64_t& nnz, int32_t kind) {
  std::vector<float>().swap(rec.val);
  std::vector<int32_t>().swap(rec.idx);
  // A thread that skipped ALLOC_WORK gets its cube here rather than writing
  // past an empty one.
  if (work.size() != static_cast<std::size_t>(ncube)) ALLOC_WORK();
  double* w = work.data();
  row_to_cube(row, n, w);
  transform_cube(w, +1);

  double m = 0.0;
  for (int64_t i = 0; i < ncube; ++i) m = std::fmax(m, std::fabs(w[i]));
  const double t = m * ((kind < 0) ? wctol_borehole : wctol_surface);
  const int64_t count = kept_count(w, ncube, t);

  try {
    rec.idx.resize(static_cast<std::size_t>(count));
    rec.val.resize(static_cast<std::size_t>(count));
  } catch (const std::bad_alloc&) {
    store_full();
  }
  int64_t i = 0;
  for (int64_t p = 0; p < ncube; ++p) {
    if (std::fabs(w[p]) >= t) {
      if (i >= count) break;
      rec.idx[i] = static_cast<int32_t>(p + 1);
      rec.val[i] = static_cast<float>(w[p]);
      ++i;
    }
  }
  if (i != count) stop_text("i /= nnz");
  nnz += count;
}

// transform_test_model
// Given: a and b of one row's length (the test model and wtz).
// Returns: test_model_w = forward transform of the cube of a * b.
// Fails: no memory: the allocation stop "transform_test_model".
// Calls: row_to_cube, transform_cube.
void transform_test_model(const std::vector<double>& a, const std::vector<double>& b) {
  const std::size_t len = std::min(a.size(), b.size());
  try {
    std::vector<double> prod(len);
    for (std::size_t i = 0; i < len; ++i) prod[i] = a[i] * b[i];
    test_model_w.assign(static_cast<std::size_t>(ncube), 0.0);
    row_to_cube(prod.data(), static_cast<int64_t>(len), test_model_w.data());
  } catch (const std::bad_alloc&) {
    alloc_failed("transform_test_model");
  }
  transform_cube(test_model_w.data(), +1);
}

// dot_compressed
// Given: a record filled by COMPRESS_ROW; test_model_w set.
// Returns: the sum of val(k) * test_model_w(idx(k)); 0 for an empty record.
// Fails: a position outside the test model stops with a text. Calls: nothing.
double dot_compressed(const compressed_row& rec) {
  const std::size_t m = std::min(rec.val.size(), rec.idx.size());
  const std::size_t size = test_model_w.size();
  double s = 0.0;
  for (std::size_t k = 0; k < m; ++k) {
    const int64_t p = rec.idx[k];
    // Positions come from COMPRESS_ROW; one outside the cube means the test
    // model was never transformed.
    if (p < 1 || static_cast<std::size_t>(p) > size) stop_text("idx outside the test model");
    s += static_cast<double>(rec.val[k]) * test_model_w[static_cast<std::size_t>(p - 1)];
  }
  return s;
}

// report_compression
// Given: the row length, ndata, the total kept count, and data_full and
//   data_comp (ndata each, or both nullptr).
// Returns: the report in the log; with diag_flag the two data files.
//   A datum whose exact response is 0 is left out of the mean error and
//   counted on a line of its own; with nothing kept the ratio says so.
// Fails: never. Calls: fmt_right, fmt_int, fmt_sci, write_data_file.
void report_compression(int32_t n, int32_t ndata, int64_t nnz, const double* data_full,
                        const double* data_comp) {
  say_log("");
  say_log("");
  say_log(fmt_right("Number of non-zeros:", 30) + fmt_int(nnz, 10));
  if (nnz > 0) {
    const double ratio = static_cast<double>(n) * static_cast<double>(ndata) / static_cast<double>(nnz);
    say_log(fmt_right("Compression   ratio:", 30) + fmt_sci(ratio, 12, 4));
  } else {
    // Every coefficient dropped: the ratio has no value to show.
    say_log(fmt_right("Compression   ratio:", 30) + "   no coefficient kept");
  }
  say_log("");
  if (data_full != nullptr && data_comp != nullptr) {
    // A datum whose exact response is 0 has no relative error; it is left
    // out of the mean and counted instead.
    double sum = 0.0;
    int64_t used = 0;
    for (int32_t i = 0; i < ndata; ++i) {
      if (data_full[i] == 0.0) continue;
      sum += std::fabs((data_full[i] - data_comp[i]) / data_full[i]);
      ++used;
    }
    const double mean = (used > 0) ? sum / static_cast<double>(used) : 0.0;
    say_log(fmt_right("achieved relative error:", 30) + fmt_sci(mean, 12, 4));
    if (used < ndata) say_log(fmt_right("zero-response data left out:", 30) + fmt_int(ndata - used, 10));
    if (params.diag_flag) {
      const std::size_t nd = static_cast<std::size_t>(ndata > 0 ? ndata : 0);
      write_data_file("data_notcompressed.txt", std::vector<double>(data_full, data_full + nd));
      write_data_file("data_compressed.txt", std::vector<double>(data_comp, data_comp + nd));
    }
  }
  say_log("");
  if (log_out() != nullptr) std::fflush(log_out());
}
