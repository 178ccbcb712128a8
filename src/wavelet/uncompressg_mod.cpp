// UNCOMPRESSG_MOD: one parallel region over the data, a cube and a row per
// thread; the matrix is never formed.
#include "wavelet/uncompressg_mod.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <new>
#include <mutex>
#include <stdexcept>

#include "base/progress.hpp"
#include "base/stop.hpp"
#include "base/stop_latch.hpp"
#include "wavelet/wtn_mod.hpp"

namespace quolvent {

void UNCOMPRESSG(const compression& c, const active_cells& cells, const matrix_store& store,
                 int32_t n, int32_t ndata_in, const std::vector<double>& wtz,
                 std::vector<double>& sens_avg, const run_log& out) {
  out.say_screen(" Uncompressing ...");
  out.say_screen(" % done:");
  std::fflush(out.screen());

  const std::vector<compressed_row>& g_compressed = store.g_compressed;
  const int64_t ncube = c.ncube;
  const std::size_t len = static_cast<std::size_t>(n > 0 ? n : 0);
  const std::size_t nc = static_cast<std::size_t>(ncube);
  const int32_t ndata = static_cast<int32_t>(
      std::min<std::size_t>(g_compressed.size(), static_cast<std::size_t>(std::max(ndata_in, 0))));
  sens_avg.assign(len, 0.0);
  progress_line progress(out.screen(), ndata);
  stop_latch latch;
  std::mutex sums_lock;

#pragma omp parallel shared(progress, latch, sums_lock, sens_avg)
  {
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

#pragma omp for schedule(static) nowait
    for (int32_t i = 1; i <= ndata; ++i) {
      if (latch.stopped()) continue;
      latch.run([&] {
        out.check_interrupt();
        const compressed_row& rec = g_compressed[static_cast<std::size_t>(i - 1)];
        std::fill(cube.begin(), cube.end(), 0.0);
        const std::size_t m = std::min(rec.idx.size(), rec.val.size());
        for (std::size_t k = 0; k < m; ++k) {
          const int64_t p = rec.idx[k];
          if (p < 1 || p > ncube) stop_text("idx outside the cube");
          cube[static_cast<std::size_t>(p - 1)] = static_cast<double>(rec.val[k]);
        }
        transform_cube(c, cube.data(), -1, lines);
        cube_to_row(c, cells, row.data(), static_cast<int64_t>(len), cube.data());
        for (std::size_t k = 0; k < len; ++k) my_avg[k] += std::fabs(row[k] * wtz[k]);
        progress.row_done();
      });
    }
#pragma omp barrier

    std::vector<double>().swap(cube);
    std::vector<double>().swap(row);
    if (!latch.stopped()) {
      std::lock_guard<std::mutex> hold(sums_lock);
      for (std::size_t k = 0; k < len; ++k) sens_avg[k] += my_avg[k];
    }
  }
  latch.rethrow();

  if (ndata > 0) {
    for (std::size_t k = 0; k < len; ++k) sens_avg[k] /= ndata;
  }
}

}  // namespace quolvent
