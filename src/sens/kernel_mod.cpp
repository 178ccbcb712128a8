// KERNEL_MOD: the general row loop.
#include "sens/kernel_mod.hpp"

#include <algorithm>
#include <cmath>
#include <new>
#include <stdexcept>

#include "base/stop.hpp"
#include "model/mesh.hpp"
#include "sens/gsus_mod.hpp"
#include "sens/gsus_no_atan_mod.hpp"

namespace quolvent {

namespace {

// alloc_row: a zeroed row of n values, or the allocation stop with name.
void alloc_row(std::vector<double>& v, int32_t n, const char* name) {
  assign_or_stop(v, static_cast<std::size_t>(n > 0 ? n : 0), 0.0, name);
}

}  // namespace

void begin_rows(row_sink& sink, int32_t n, int32_t ndata, const char* name, const run_log& out) {
  sink.begin(n, ndata, name);
  if (out.log() != nullptr) std::fflush(out.log());
  out.say_screen(" Calculating sensitivity matrix ...");
  out.say_screen(" % done:");
}

void begin_thread_rows(row_sink& sink, int32_t n, const char* g_name, const char* name,
                       thread_rows& t) {
  alloc_row(t.g, n, g_name);
  alloc_row(t.avg, n, name);
  alloc_row(t.sq, n, name);
  t.part = sink.open_thread();
}

void end_thread_rows(row_loop& loop, row_sink& sink, thread_rows& t,
                     std::vector<double>& sens_sq, std::vector<double>& sens_avg) {
#pragma omp barrier
  std::vector<double>().swap(t.g);
  loop.latch.run([&] {
    if (t.part) sink.close_thread(*t.part);
  });
  t.part.reset();
  if (loop.latch.stopped()) return;
  std::lock_guard<std::mutex> hold(loop.sums_lock);
  for (std::size_t k = 0; k < t.sq.size(); ++k) sens_sq[k] += t.sq[k];
  for (std::size_t k = 0; k < t.avg.size(); ++k) sens_avg[k] += t.avg[k];
}

void end_rows(int32_t ndata, std::vector<double>& sens_avg) {
  if (ndata > 0) {
    for (double& v : sens_avg) v /= ndata;
  }
}

void KERNEL(const survey& s, row_sink& sink, std::vector<double>& sens_sq,
            std::vector<double>& sens_avg, const run_log& out) {
  const mesh_model& mesh = s.mesh;
  const obs_set& obs = s.obs;
  const int32_t n = s.n;
  const int32_t ndata = obs.ndata;
  const std::size_t len = static_cast<std::size_t>(n > 0 ? n : 0);
  sens_avg.assign(len, 0.0);
  sens_sq.assign(len, 0.0);

  if (s.wtz.size() < len ||
      s.top_index.size() < static_cast<std::size_t>(mesh.ny) * static_cast<std::size_t>(mesh.nx)) {
    stop_text("size(wtz) /= n");
  }

  begin_rows(sink, n, ndata, "kernel", out);
  const double test_model = sink.test_model();

  row_loop loop(out, ndata);
  const dir_products master = survey_directions(obs);
  const double length_scale = mesh_length_scale(mesh);
  const double* yn = mesh.yn.data();
  const double* xn = mesh.xn.data();
  const double* zn = mesh.zn.data();
  const int32_t* top = s.top_index.data();
  const int32_t ny = mesh.ny, nx = mesh.nx, nz = mesh.nz;
  const double z0 = mesh.z0;
  const bool per_datum_dir = obs.idir == 0;
  const double* wtz = s.wtz.data();

#pragma omp parallel shared(loop, sens_avg, sens_sq)
  {
    row_workspace ws = make_row_workspace(master, length_scale);
    // The row and the private sums live on the heap, whatever the row length.
    thread_rows t;
    loop.latch.run([&] { begin_thread_rows(sink, n, "kernel g", "kernel", t); });

#pragma omp for schedule(static) nowait
    for (int32_t i = 1; i <= ndata; ++i) {
      if (loop.latch.stopped()) continue;
      loop.latch.run([&] {
        out.check_interrupt();
        const std::size_t d = static_cast<std::size_t>(i - 1);
        double* g = t.g.data();
        const double oy = obs.obs_y[d], ox = obs.obs_x[d], oz = z0 - obs.obs_z[d];
        if (per_datum_dir)
          SET_G_VALUES(obs.incl, obs.decl, obs.obs_aincl[d], obs.obs_adecl[d], ws.dir);
        sens_row(ws, obs.geomag, yn, xn, zn, ny, nx, nz, top, i, oy, ox, oz, g, len, out);

        for (std::size_t k = 0; k < len; ++k) t.avg[k] += std::fabs(g[k]);
        // The datum of the test model, from the row before the weighting.
        double full = 0.0;
        if (test_model != 0.0) {
          for (std::size_t k = 0; k < len; ++k) full += test_model * g[k];
        }
        for (std::size_t k = 0; k < len; ++k) g[k] /= wtz[k];
        if (float* col = sink.full_column(i - 1)) {
          for (std::size_t k = 0; k < len; ++k) col[k] = static_cast<float>(g[k]);
        } else {
          sink.put(*t.part, i - 1, g, full);
        }
        for (std::size_t k = 0; k < len; ++k) t.sq[k] += g[k] * g[k];
        loop.progress.row_done();
      });
    }
    end_thread_rows(loop, sink, t, sens_sq, sens_avg);
  }
  loop.latch.rethrow();
  end_rows(ndata, sens_avg);
}

}  // namespace quolvent
