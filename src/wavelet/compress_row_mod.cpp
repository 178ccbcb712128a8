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

void ALLOC_WORK() {
  try {
    work.assign(static_cast<std::size_t>(ncube), 0.0);
  } catch (const std::bad_alloc&) {
    alloc_failed("alloc_work");
  }
}

void DEALLOC_WORK() {
  // Giving memory back can't fail here; the vector is simply emptied.
  std::vector<double>().swap(work);
}

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
