// The row is compressed on the thread that computed it:
// the transform plane by plane, then one pass that keeps the coefficients
// into the thread's buffers, from which each record is made at its exact
// size.
#include "wavelet/compress_row.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <new>
#include <string>

#include "base/format.hpp"
#include "base/stop.hpp"
#include "wavelet/wavelet_lanes.hpp"

namespace quolvent {

namespace {

[[noreturn]] void store_full() {
  stop_report(
      {"", "ERROR: cannot allocate any more memory for the compressed sensitivity matrix.", ""});
}

// make_cube: work made a cube of c, or the allocation stop "alloc_work".
void make_cube(const compression& c, std::vector<double>& work) {
  assign_or_stop(work, static_cast<std::size_t>(c.cube_size), 0.0, "alloc_work");
}

}  // namespace

compress_workspace::compress_workspace(const compression& c) { make_cube(c, work); }

double compress_row(const compression& c, const active_cells& cells, const double* row, int32_t n,
                    compressed_row& rec, int64_t& nnz, datum_kind kind, compress_workspace& ws) {
  std::vector<float>().swap(rec.val);
  std::vector<int32_t>().swap(rec.idx);
  // A workspace made for another cube (or none) gets its own here rather
  // than writing past the end of the one it has.
  if (ws.work.size() != static_cast<std::size_t>(c.cube_size)) make_cube(c, ws.work);
  double* w = ws.work.data();
  const double m = row_coefficients(c, cells, row, n, w, ws.lines);
  const double t =
      m * ((kind == datum_kind::borehole) ? c.threshold_borehole : c.threshold_surface);

  // One pass keeps the coefficients and sums the energy of the row's error:
  // the transform is orthogonal, so what the record leaves out of the
  // coefficients is the error of the cube it gives back (of which the row's
  // own cells see at most all). Scaled by the largest coefficient so that no
  // square overflows or flushes to zero. The record is then made at its
  // exact size.
  const double scale = (m > 0.0) ? 1.0 / m : 0.0;
  kept_pack k;
  try {
    k = pack_kept(ws.lines.vector_target, w, static_cast<std::size_t>(c.cube_size), t, scale,
                  ws.kept_idx, ws.kept_val);
    rec.idx.assign(ws.kept_idx.begin(), ws.kept_idx.end());
    rec.val.assign(ws.kept_val.begin(), ws.kept_val.end());
  } catch (const std::bad_alloc&) {
    store_full();
  }
  nnz += k.count;
  // An all-zero row is stored exactly.
  return (k.energy == 0.0) ? 0.0 : std::sqrt(k.lost / k.energy);
}

double stored_row_error(const compression& c, const active_cells& cells, const double* row,
                        int32_t n, const compressed_row& rec, compress_workspace& ws) {
  if (ws.work.size() != static_cast<std::size_t>(c.cube_size)) make_cube(c, ws.work);
  std::fill(ws.work.begin(), ws.work.end(), 0.0);
  const std::size_t kept = std::min(rec.idx.size(), rec.val.size());
  for (std::size_t k = 0; k < kept; ++k) {
    const int64_t p = rec.idx[k];
    if (p < 1 || p > c.cube_size) stop_text("idx outside the cube");
    ws.work[static_cast<std::size_t>(p - 1)] = rec.val[k];
  }
  transform_cube(c, ws.work.data(), -1, ws.lines);
  const std::size_t len = static_cast<std::size_t>(n > 0 ? n : 0);
  if (ws.row.size() < len) ws.row.resize(len);
  cube_to_row(c, cells, ws.row.data(), n, ws.work.data());
  // Scaled by the row's largest value, so that no square overflows or
  // flushes to zero.
  double big = 0.0;
  for (std::size_t i = 0; i < len; ++i) big = std::fmax(big, std::fabs(row[i]));
  if (big == 0.0) return 0.0;
  double energy = 0.0, lost = 0.0;
  for (std::size_t i = 0; i < len; ++i) {
    const double r = row[i] / big, d = (row[i] - ws.row[i]) / big;
    energy += r * r;
    lost += d * d;
  }
  return std::sqrt(lost / energy);
}

std::vector<double> transform_test_model(const compression& c, const active_cells& cells,
                                         double value, const std::vector<double>& weights) {
  const std::size_t len = weights.size();
  std::vector<double> test_model_w;
  try {
    std::vector<double> prod(len);
    for (std::size_t i = 0; i < len; ++i) prod[i] = value * weights[i];
    test_model_w.assign(static_cast<std::size_t>(c.cube_size), 0.0);
    row_to_cube(c, cells, prod.data(), static_cast<int64_t>(len), test_model_w.data());
  } catch (const std::bad_alloc&) {
    alloc_failed("transform_test_model");
  }
  line_buffers lines;
  transform_cube(c, test_model_w.data(), +1, lines);
  return test_model_w;
}

double dot_compressed(const std::vector<double>& test_model_w, const compressed_row& rec) {
  const std::size_t m = std::min(rec.val.size(), rec.idx.size());
  const std::size_t size = test_model_w.size();
  double s = 0.0;
  for (std::size_t k = 0; k < m; ++k) {
    const int64_t p = rec.idx[k];
    // Positions come from compress_row; one outside the cube means the test
    // model was never transformed.
    if (p < 1 || static_cast<std::size_t>(p) > size) stop_text("idx outside the test model");
    s += static_cast<double>(rec.val[k]) * test_model_w[static_cast<std::size_t>(p - 1)];
  }
  return s;
}

compression_figures report_compression(int32_t n, int32_t ndata, int64_t nnz,
                                       const double* data_full, const double* data_comp,
                                       const double* row_bound, const double* row_exact,
                                       const run_log& out) {
  compression_figures fig;
  out.say_log("");
  out.say_log("");
  out.say_log(fmt_right("Number of non-zeros:", 30) + fmt_int(nnz, 10));
  if (nnz > 0) {
    const double ratio =
        static_cast<double>(n) * static_cast<double>(ndata) / static_cast<double>(nnz);
    out.say_log(fmt_right("Compression   ratio:", 30) + fmt_sci(ratio, 12, 4));
    fig.ratio = ratio;
  } else {
    // Every coefficient dropped: the ratio has no value to show.
    out.say_log(fmt_right("Compression   ratio:", 30) + "   no coefficient kept");
  }
  out.say_log("");
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
    out.say_log(fmt_right("achieved relative error:", 30) + fmt_sci(mean, 12, 4));
    fig.achieved_error = mean;
    if (used < ndata)
      out.say_log(fmt_right("zero-response data left out:", 30) + fmt_int(ndata - used, 10));
  }
  if (row_bound != nullptr && row_exact != nullptr) {
    // Every row counts, one of zeros with its error of 0. Summed in datum
    // order, so that the thread count changes nothing; a NaN shows.
    const auto mean_max = [&](const double* err, bool measured_only, double& mean, double& worst) {
      double sum = 0.0;
      int32_t count = 0;
      worst = 0.0;
      for (int32_t i = 0; i < ndata; ++i) {
        if (measured_only && !exact_error_row(i)) continue;
        sum += err[i];
        ++count;
        if (!(err[i] <= worst)) worst = err[i];
      }
      mean = (count > 0) ? sum / count : 0.0;
      return count;
    };
    fig.rows_measured = mean_max(row_exact, true, fig.row_error_mean, fig.row_error_max);
    mean_max(row_bound, false, fig.row_bound_mean, fig.row_bound_max);
    const std::string measured = "  exact, " + std::to_string(fig.rows_measured) + " of " +
                                 std::to_string(ndata) + " rows";
    const std::string every = "  all " + std::to_string(ndata) + " rows";
    out.say_log(fmt_right("mean relative row error:", 30) + fmt_sci(fig.row_error_mean, 12, 4) +
                measured);
    out.say_log(fmt_right("max relative row error:", 30) + fmt_sci(fig.row_error_max, 12, 4) +
                measured);
    out.say_log(fmt_right("mean bound on row error:", 30) + fmt_sci(fig.row_bound_mean, 12, 4) +
                every);
    out.say_log(fmt_right("max bound on row error:", 30) + fmt_sci(fig.row_bound_max, 12, 4) +
                every);
  }
  out.say_log("");
  if (out.log() != nullptr) std::fflush(out.log());
  return fig;
}

}  // namespace quolvent
