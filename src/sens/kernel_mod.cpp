// KERNEL_MOD: the general row loop.
#include "sens/kernel_mod.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <new>
#include <stdexcept>

#include "model/model.hpp"
#include "run/format.hpp"
#include "run/text_io.hpp"
#include "sens/gsus_mod.hpp"
#include "sens/gsus_no_atan_mod.hpp"
#include "wavelet/compression.hpp"

namespace {

// The last step shown by report_progress; never reset, so a later loop that
// starts at 0 shows its 0 again.
int32_t last_step = -1;

// alloc_row: a zeroed row of n values, or the allocation stop with name.
void alloc_row(std::vector<double>& v, int32_t n, const char* name) {
  try {
    v.assign(static_cast<std::size_t>(n > 0 ? n : 0), 0.0);
  } catch (const std::bad_alloc&) {
    alloc_failed(name);
  } catch (const std::length_error&) {
    alloc_failed(name);
  }
}

}  // namespace

void begin_rows(int32_t n, int32_t ndata, const std::vector<double>& wtz, const char* name,
                compression_check& check) {
  if (compressed) {
    alloc_row(check.model, n, name);
    alloc_row(check.data_full, ndata, name);
    alloc_row(check.data_comp, ndata, name);
    std::fill(check.model.begin(), check.model.end(), 0.01);
    transform_test_model(check.model, wtz);
  }
  std::fflush(log_out());
  say_screen(" Calculating sensitivity matrix ...");
  say_screen(" % done:");
}

void begin_thread_rows(int32_t n, const char* g_name, const char* name, thread_rows& t) {
  alloc_row(t.g, n, g_name);
  alloc_row(t.avg, n, name);
  alloc_row(t.sq, n, name);
  t.nnz = 0;
  if (compressed) ALLOC_WORK();
}

void end_thread_rows(thread_rows& t, std::vector<double>& sens_sq, std::vector<double>& sens_avg,
                     int64_t& nnz) {
#pragma omp barrier
  std::vector<double>().swap(t.g);
  if (compressed) DEALLOC_WORK();
#pragma omp critical(row_loop_sums)
  {
    for (std::size_t k = 0; k < t.sq.size(); ++k) sens_sq[k] += t.sq[k];
    for (std::size_t k = 0; k < t.avg.size(); ++k) sens_avg[k] += t.avg[k];
    nnz += t.nnz;
  }
}

void end_rows(int32_t n, int32_t ndata, int64_t nnz, std::vector<double>& sens_avg,
              compression_check& check) {
  if (ndata > 0) {
    for (double& v : sens_avg) v /= ndata;
  }
  if (compressed) {
    report_compression(n, ndata, nnz, check.data_full.data(), check.data_comp.data());
    std::vector<double>().swap(check.model);
    std::vector<double>().swap(check.data_full);
    std::vector<double>().swap(check.data_comp);
  }
}

// report_progress
// Given: rows done and the total. Returns: nothing; writes the next step of
// the progress line when it changed. Fails: never. Calls: fmt_int.
void report_progress(int32_t done, int32_t total) {
  if (total < 10) return;
  const int32_t step = static_cast<int32_t>(
      (static_cast<double>(done) / static_cast<double>(total)) * 20.0);
  if (step == last_step) return;
  std::FILE* s = screen_out();
  if (done < total) {
    std::fputs(fmt_int(static_cast<long long>(step) * 5, 3).c_str(), s);
  } else {
    std::fputs(" 100.\n", s);
  }
  std::fflush(s);
  last_step = step;
}

// KERNEL
// Given: the row length n, the weighting wtz (n), the column tops, the kind
// of each datum, and sens_sq, sens_avg to fill (made n long). Uses the mesh,
// the data, the main thread's direction products and the matrix store.
// Returns: nothing; every row stored, the two sums final.
// Fails: "kernel g" / "kernel" when a thread's row, its sums or the arrays of
// the compression check can't be had; a store or an argument that doesn't fit
// the rows stops with a text; the stops of sens_row and of the row store.
// Calls: begin_rows, begin_thread_rows, SET_G_VALUES, sens_row,
// report_progress, end_thread_rows, end_rows, and when compressed
// COMPRESS_ROW, dot_compressed.
void KERNEL(int32_t n, const std::vector<double>& wtz, const std::vector<int32_t>& top_index,
            const std::vector<int32_t>& obs_type, std::vector<double>& sens_sq,
            std::vector<double>& sens_avg) {
  const int32_t ndata = obs.ndata;
  const std::size_t len = static_cast<std::size_t>(n > 0 ? n : 0);
  const std::size_t nd = static_cast<std::size_t>(ndata > 0 ? ndata : 0);
  sens_avg.assign(len, 0.0);
  sens_sq.assign(len, 0.0);

  // Every row lands in its own record or column of the store: it has to hold them all.
  if (compressed && g_compressed.size() != nd) stop_text("size(g_compressed) /= ndata");
  if (!compressed && g_full.size() != len * nd) stop_text("size(g_full) /= n * ndata");
  if (compressed && obs_type.size() < nd) stop_text("size(obs_type) /= ndata");
  if (wtz.size() < len || top_index.size() < static_cast<std::size_t>(mesh.ny) * mesh.nx) {
    stop_text("size(wtz) /= n");
  }

  // The compression check: a uniform test model of 0.01, its datum from each
  // full row and from each compressed one.
  compression_check check;
  begin_rows(n, ndata, wtz, "kernel", check);

  int32_t count = 0;
  int64_t nnz = 0;
  const dir_products master = g_dir();
  const double* yn = mesh.yn.data();
  const double* xn = mesh.xn.data();
  const double* zn = mesh.zn.data();
  const int32_t ny = mesh.ny, nx = mesh.nx, nz = mesh.nz;
  const double z0 = mesh.z0;
  const bool per_datum_dir = obs.idir == 0;

#pragma omp parallel shared(count, nnz, sens_avg, sens_sq)
  {
    // The directions set before the loop reach every thread; none starts its
    // rows before all have them.
    g_dir() = master;
#pragma omp barrier

    // The row and the private sums live on the heap, whatever the row length.
    thread_rows t;
    begin_thread_rows(n, "kernel g", "kernel", t);
    std::vector<double> &g = t.g, &my_avg = t.avg, &my_sq = t.sq;

#pragma omp for schedule(static) nowait
    for (int32_t i = 1; i <= ndata; ++i) {
      const std::size_t d = static_cast<std::size_t>(i - 1);
      const double oy = obs.obs_y[d], ox = obs.obs_x[d], oz = z0 - obs.obs_z[d];
      if (per_datum_dir) SET_G_VALUES(obs.incl, obs.decl, obs.obs_aincl[d], obs.obs_adecl[d]);
      sens_row(yn, xn, zn, ny, nx, nz, top_index.data(), i, oy, ox, oz, g.data(), len);

      for (std::size_t k = 0; k < len; ++k) my_avg[k] += std::fabs(g[k]);
      if (compressed) {
        // The datum of the test model, from the row before the weighting.
        double full = 0.0;
        for (std::size_t k = 0; k < len; ++k) full += check.model[k] * g[k];
        check.data_full[d] = full;
      }
      for (std::size_t k = 0; k < len; ++k) g[k] /= wtz[k];
      if (compressed) {
        COMPRESS_ROW(g.data(), n, g_compressed[d], t.nnz, obs_type[d]);
        check.data_comp[d] = dot_compressed(g_compressed[d]);
      } else {
        float* col = g_full.data() + d * len;
        for (std::size_t k = 0; k < len; ++k) col[k] = static_cast<float>(g[k]);
      }
      for (std::size_t k = 0; k < len; ++k) my_sq[k] += g[k] * g[k];

#pragma omp critical(kernel_progress)
      {
        ++count;
        report_progress(count, ndata);
      }
    }
    end_thread_rows(t, sens_sq, sens_avg, nnz);
  }
  end_rows(n, ndata, nnz, sens_avg, check);
}
