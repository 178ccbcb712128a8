// The general row loop.
#include "sens/general_row_loop.hpp"

#include <algorithm>
#include <cmath>
#include <new>
#include <omp.h>
#include <stdexcept>

#include "base/stop.hpp"
#include "model/mesh.hpp"
#include "sens/field_directions.hpp"
#include "sens/prism_row.hpp"

namespace quolvent {

namespace {

// alloc_row: a zeroed row of n values, or the allocation stop with name.
void alloc_row(std::vector<double>& v, int32_t n, const char* name) {
  assign_or_stop(v, static_cast<std::size_t>(n > 0 ? n : 0), 0.0, name);
}

// alloc_sums: empty sums of n cells, or the allocation stop with name.
void alloc_sums(row_sums& sums, int32_t n, const char* name) {
  const std::size_t len = static_cast<std::size_t>(n > 0 ? n : 0);
  try {
    sums.avg.assign(len);
    sums.sq.assign(len);
  } catch (const std::bad_alloc&) {
    alloc_failed(name);
  } catch (const std::length_error&) {
    alloc_failed(name);
  }
}

}  // namespace

void begin_rows(row_sink& sink, int32_t n, int32_t ndata, const char* name, row_sums& sums,
                const run_log& out) {
  sink.begin(n, ndata, name);
  alloc_sums(sums, n, name);
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

void end_group(row_loop& loop, thread_rows& t) {
  const int start = omp_get_thread_num();
  loop.avg.add_and_clear(t.avg.data(), start);
  loop.sq.add_and_clear(t.sq.data(), start);
}

void end_thread_rows(row_loop& loop, row_sink& sink, thread_rows& t) {
#pragma omp barrier
  std::vector<double>().swap(t.g);
  std::vector<double>().swap(t.avg);
  std::vector<double>().swap(t.sq);
  loop.latch.run([&] {
    if (t.part) sink.close_thread(*t.part);
  });
  t.part.reset();
}

void round_sums(const row_sums& sums, int32_t ndata, std::vector<double>& squared_sensitivity,
                std::vector<double>& mean_sensitivity) {
  sums.sq.round(squared_sensitivity);
  sums.avg.round(mean_sensitivity);
  if (ndata > 0) {
    for (double& v : mean_sensitivity) v /= ndata;
  }
}

void general_row_loop(const survey& s, row_sink& sink, std::vector<double>& squared_sensitivity,
                      std::vector<double>& mean_sensitivity, const run_log& out) {
  row_sums sums;
  general_row_loop(s, sink, all_rows(s.obs.ndata), sums, out);
  round_sums(sums, s.obs.ndata, squared_sensitivity, mean_sensitivity);
}

void general_row_loop(const survey& s, row_sink& sink, row_range rows, row_sums& sums,
                      const run_log& out) {
  const mesh_model& mesh = s.mesh;
  const obs_set& obs = s.obs;
  const int32_t n = s.n;
  const int32_t ndata = obs.ndata;
  const std::size_t len = static_cast<std::size_t>(n > 0 ? n : 0);

  if (s.weights.size() < len ||
      s.top_index.size() < static_cast<std::size_t>(mesh.ny) * static_cast<std::size_t>(mesh.nx)) {
    stop_text("size(weights) /= n");
  }
  if (rows.first < 0 || rows.last > ndata) stop_text("rows outside the data");

  begin_rows(sink, n, ndata, "kernel", sums, out);
  const double test_model = sink.test_model();

  row_loop loop(out, ndata, sums);
  const int32_t group = sum_group_rows(ndata);
  const direction_products master = survey_directions(obs);
  const double length_scale = mesh_length_scale(mesh);
  const double* yn = mesh.yn.data();
  const double* xn = mesh.xn.data();
  const double* zn = mesh.zn.data();
  const int32_t* top = s.top_index.data();
  const int32_t ny = mesh.ny, nx = mesh.nx, nz = mesh.nz;
  const double z0 = mesh.z0;
  const bool per_datum_dir = obs.idir == 0;
  const double* weights = s.weights.data();

#pragma omp parallel shared(loop)
  {
    row_workspace ws = make_row_workspace(master, length_scale);
    // The row and the private sums live on the heap, whatever the row length.
    thread_rows t;
    loop.latch.run([&] { begin_thread_rows(sink, n, "kernel g", "kernel", t); });

    // Whole groups of rows to each thread, dealt in turn, so that the rows
    // are made near datum order (the sink may write them out in that order
    // as they come): a group's sums are made in datum order by one thread.
    const row_range groups = group_range(rows, group);
    for (int32_t grp = groups.first + omp_get_thread_num(); grp < groups.last;
         grp += omp_get_num_threads()) {
      const row_range mine = group_rows(rows, grp, group);
      loop.latch.run([&] { sink.claim_rows(mine); });
      for (int32_t i = mine.first + 1; i <= mine.last; ++i) {
        if (loop.latch.stopped()) continue;
        loop.latch.run([&] {
          out.check_interrupt();
          const std::size_t d = static_cast<std::size_t>(i - 1);
          double* g = t.g.data();
          const double oy = obs.northing[d], ox = obs.easting[d], oz = z0 - obs.elevation[d];
          if (per_datum_dir)
            ws.dir = field_directions(obs.incl, obs.decl, obs.datum_aincl[d], obs.datum_adecl[d]);
          // Each finished row of columns, while in cache: the datum of the test
          // model from the row before the weighting (summed in cell order), the
          // group's sums of |row| before the weighting and of the weighted row
          // squared, and the weighted row into the store's column.
          double full = 0.0;
          double* avg = t.avg.data();
          double* sq = t.sq.data();
          float* col = sink.full_column(*t.part, i - 1);
          const auto finish = [&](std::size_t begin, std::size_t end) {
            if (test_model != 0.0) {
              for (std::size_t k = begin; k < end; ++k) full += test_model * g[k];
            }
            for (std::size_t k = begin; k < end; ++k) {
              avg[k] += std::fabs(g[k]);
              const double v = g[k] / weights[k];
              g[k] = v;
              sq[k] += v * v;
            }
            if (col != nullptr) {
              for (std::size_t k = begin; k < end; ++k) col[k] = static_cast<float>(g[k]);
            }
          };
          prism_row(ws, obs.geomag, yn, xn, zn, ny, nx, nz, top, i, oy, ox, oz, g, len, out,
                    finish);
          if (col == nullptr)
            sink.put(*t.part, i - 1, g, full);
          else
            sink.full_done(*t.part, i - 1);
          loop.progress.row_done();
          if (ends_group(i - 1, mine, group)) end_group(loop, t);
        });
      }
    }
    end_thread_rows(loop, sink, t);
  }
  loop.latch.rethrow();
  loop.progress.finish();
}

}  // namespace quolvent
