// UNCOMPRESSG_MOD: one parallel region over the data, a cube and a row per
// thread; the matrix is never formed.
#include "wavelet/uncompressg_mod.hpp"

#include <cmath>
#include <cstdio>
#include <new>
#include <stdexcept>

#include "model/model.hpp"
#include "run/text_io.hpp"
#include "sens/kernel_mod.hpp"
#include "wavelet/wtn_mod.hpp"

// UNCOMPRESSG: see wavelet/uncompressg_mod.hpp.
void UNCOMPRESSG(int32_t n, const std::vector<double>& wtz, std::vector<double>& sens_avg) {
  say_screen(" Uncompressing ...");
  say_screen(" % done:");
  std::fflush(screen_out());

  const std::size_t len = static_cast<std::size_t>(n > 0 ? n : 0);
  const std::size_t nc = static_cast<std::size_t>(ncube);
  const int32_t ndata = static_cast<int32_t>(
      std::min<std::size_t>(g_compressed.size(), static_cast<std::size_t>(std::max(obs.ndata, 0))));
  sens_avg.assign(len, 0.0);
  int32_t count = 0;

#pragma omp parallel shared(count, sens_avg)
  {
    std::vector<double> cube, row, my_avg;
    bool have = true;
    try {
      cube.assign(nc, 0.0);
      row.assign(len, 0.0);
      my_avg.assign(len, 0.0);
    } catch (const std::bad_alloc&) {
      have = false;
    } catch (const std::length_error&) {
      have = false;
    }
    if (!have) {
#pragma omp critical(uncompress_stop)
      alloc_failed("uncompressG");
    }

#pragma omp for schedule(static) nowait
    for (int32_t i = 1; i <= ndata; ++i) {
      const compressed_row& rec = g_compressed[static_cast<std::size_t>(i - 1)];
      std::fill(cube.begin(), cube.end(), 0.0);
      const std::size_t m = std::min(rec.idx.size(), rec.val.size());
      for (std::size_t k = 0; k < m; ++k) {
        const int64_t p = rec.idx[k];
        if (p < 1 || p > ncube) stop_text("idx outside the cube");
        cube[static_cast<std::size_t>(p - 1)] = static_cast<double>(rec.val[k]);
      }
      transform_cube(cube.data(), -1);
      cube_to_row(row.data(), static_cast<int64_t>(len), cube.data());
      for (std::size_t k = 0; k < len; ++k) my_avg[k] += std::fabs(row[k] * wtz[k]);
#pragma omp critical(uncompress_progress)
      {
        ++count;
        report_progress(count, ndata);
      }
    }
#pragma omp barrier

    std::vector<double>().swap(cube);
    std::vector<double>().swap(row);
#pragma omp critical(uncompress_sums)
    for (std::size_t k = 0; k < len; ++k) sens_avg[k] += my_avg[k];
  }

  if (ndata > 0) {
    for (std::size_t k = 0; k < len; ++k) sens_avg[k] /= ndata;
  }
}
