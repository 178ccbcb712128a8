// One parallel region over the data, a cube and a row per
// thread; the matrix is never formed.
#include "wavelet/uncompress.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <new>
#include <omp.h>
#include <mutex>
#include <stdexcept>

#include "base/progress.hpp"
#include "base/stop.hpp"
#include "base/stop_latch.hpp"
#include "wavelet/transform.hpp"

namespace quolvent {

void uncompress_rows(const compression& c, const active_cells& cells, const matrix_store& store,
                     int32_t n, int32_t ndata_in, const std::vector<double>& weights,
                     std::vector<double>& mean_sensitivity, const run_log& out) {
  const int32_t ndata = static_cast<int32_t>(std::min<std::size_t>(
      store.compressed_rows.size(), static_cast<std::size_t>(std::max(ndata_in, 0))));
  exact_sums sums;
  uncompress_rows(c, cells, store, n, all_rows(ndata), ndata, weights, sums, out);
  sums.round(mean_sensitivity);
  if (ndata > 0) {
    for (double& v : mean_sensitivity) v /= ndata;
  }
}

void uncompress_rows(const compression& c, const active_cells& cells, const matrix_store& store,
                     int32_t n, row_range rows, int32_t ndata, const std::vector<double>& weights,
                     exact_sums& sums, const run_log& out) {
  out.say_screen(" Uncompressing ...");
  out.say_screen(" % done:");
  if (out.screen()) std::fflush(out.screen());

  const std::vector<compressed_row>& compressed_rows = store.compressed_rows;
  const int64_t cube_size = c.cube_size;
  const std::size_t len = static_cast<std::size_t>(n > 0 ? n : 0);
  const std::size_t nc = static_cast<std::size_t>(cube_size);
  if (compressed_rows.size() < static_cast<std::size_t>(rows.count()) || weights.size() < len)
    stop_text("size(compressed_rows) /= ndata");
  try {
    sums.assign(len);
  } catch (const std::bad_alloc&) {
    alloc_failed("uncompressG");
  } catch (const std::length_error&) {
    alloc_failed("uncompressG");
  }
  progress_line progress(out, ndata);
  stop_latch latch;
  exact_adder adder(sums);

#pragma omp parallel shared(progress, latch, adder)
  {
    // my_avg: the thread's sums over the rows of its current group.
    std::vector<double> cube, row, my_avg;
    line_buffers lines;
    latch.run([&] {
      try {
        cube.assign(nc, 0.0);
        row.assign(len, 0.0);
        my_avg.assign(len, 0.0);
      } catch (const std::bad_alloc&) {
        alloc_failed("uncompressG");
      } catch (const std::length_error&) {
        alloc_failed("uncompressG");
      }
    });

    // Whole groups of rows to each thread, in one block, as in the row loops;
    // the record of datum i is at i - rows.first.
    const row_range mine = split_rows(rows, omp_get_thread_num(), omp_get_num_threads(),
                                      sum_group_rows(ndata));
    for (int32_t i = mine.first; i < mine.last; ++i) {
      if (latch.stopped()) continue;
      latch.run([&] {
        out.check_interrupt();
        const compressed_row& rec = compressed_rows[static_cast<std::size_t>(i - rows.first)];
        std::fill(cube.begin(), cube.end(), 0.0);
        const std::size_t m = std::min(rec.idx.size(), rec.val.size());
        for (std::size_t k = 0; k < m; ++k) {
          const int64_t p = rec.idx[k];
          if (p < 1 || p > cube_size) stop_text("idx outside the cube");
          cube[static_cast<std::size_t>(p - 1)] = static_cast<double>(rec.val[k]);
        }
        transform_cube(c, cube.data(), -1, lines);
        cube_to_row(c, cells, row.data(), static_cast<int64_t>(len), cube.data());
        for (std::size_t k = 0; k < len; ++k) my_avg[k] += std::fabs(row[k] * weights[k]);
        progress.row_done();
        if (ends_group(i, mine, sum_group_rows(ndata))) adder.add_and_clear(my_avg.data(), omp_get_thread_num());
      });
    }
#pragma omp barrier

    std::vector<double>().swap(cube);
    std::vector<double>().swap(row);
    std::vector<double>().swap(my_avg);
  }
  latch.rethrow();
  progress.finish();
}

}  // namespace quolvent
