// The regular-grid row loop.
#include "sens/grid_row_loop.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <omp.h>
#include <stdexcept>

#include "base/stop.hpp"
#include "base/vector_target.hpp"
#include "model/mesh.hpp"
#include "sens/grid_copy.hpp"
#include "sens/field_directions.hpp"
#include "sens/prism_row.hpp"
#include "sens/general_row_loop.hpp"

namespace quolvent {

namespace {

// The cube's positions are 32-bit signed integers.
constexpr int64_t cube_limit = int64_t{1} << 31;

// A shift beyond this many cells can't fit the cube anyway; checking it
// before the conversion keeps the conversion defined.
constexpr double shift_limit = 1073741824.0;  // 2^30

// half_extension: ny / 2 rounded up, computed in 32-bit floats.
int32_t half_extension(int32_t m) {
  return static_cast<int32_t>(static_cast<float>(m) * 0.5f + 0.5f);
}

// plan_shifts: unusable when the arguments give no shift to work with,
// too_large when the cube would need 2^31 positions or more; in both cases
// the general loop runs instead.
plan_status plan_shifts(const mesh_model& mesh, const obs_set& obs, int32_t ref_datum,
                        double cell_dy, double cell_dx, shift_plan& p) {
  const int32_t nd = obs.ndata;
  if (ref_datum < 1 || ref_datum > nd) return plan_status::unusable;
  if (mesh.ny < 1 || mesh.nx < 1 || mesh.nz < 0) return plan_status::unusable;
  if (!(cell_dy > 0.0) || !(cell_dx > 0.0) || !std::isfinite(cell_dy) || !std::isfinite(cell_dx))
    return plan_status::unusable;

  const double oy = obs.northing[static_cast<std::size_t>(ref_datum) - 1];
  const double ox = obs.easting[static_cast<std::size_t>(ref_datum) - 1];
  p.iy.resize(static_cast<std::size_t>(nd));
  p.ix.resize(static_cast<std::size_t>(nd));
  // Data reach the mesh edges and the reference may lie off the centre, so a
  // shift can pass ny / 2: the mesh grows by the largest shift where needed.
  int64_t hy = half_extension(mesh.ny);
  int64_t hx = half_extension(mesh.nx);
  for (int32_t i = 0; i < nd; ++i) {
    const double sy = (oy - obs.northing[static_cast<std::size_t>(i)]) / cell_dy;
    const double sx = (ox - obs.easting[static_cast<std::size_t>(i)]) / cell_dx;
    if (!(std::fabs(sy) < shift_limit) || !(std::fabs(sx) < shift_limit))
      return plan_status::too_large;
    const int32_t iy = grid_shift(sy);
    const int32_t ix = grid_shift(sx);
    p.iy[static_cast<std::size_t>(i)] = iy;
    p.ix[static_cast<std::size_t>(i)] = ix;
    hy = std::max<int64_t>(hy, std::abs(static_cast<int64_t>(iy)));
    hx = std::max<int64_t>(hx, std::abs(static_cast<int64_t>(ix)));
  }

  const int64_t ny2 = mesh.ny + 2 * hy;
  const int64_t nx2 = mesh.nx + 2 * hx;
  // Each test keeps the next product below 2^62.
  if (ny2 >= cube_limit || nx2 >= cube_limit || ny2 * nx2 >= cube_limit)
    return plan_status::too_large;
  if (static_cast<int64_t>(mesh.nz) * ny2 * nx2 >= cube_limit) return plan_status::too_large;
  p.hy = static_cast<int32_t>(hy);
  p.hx = static_cast<int32_t>(hx);
  p.ny2 = static_cast<int32_t>(ny2);
  p.nx2 = static_cast<int32_t>(nx2);
  p.cube = static_cast<std::size_t>(mesh.nz) * static_cast<std::size_t>(ny2) *
           static_cast<std::size_t>(nx2);
  return plan_status::ok;
}

// rows_fit: the column tops lie within 0..nz and leave exactly n cells, so
// the copy neither writes past g nor reads past a column of the cube.
bool rows_fit(const mesh_model& mesh, int32_t n, const std::vector<int32_t>& top) {
  const std::size_t ncol = static_cast<std::size_t>(mesh.ny) * static_cast<std::size_t>(mesh.nx);
  if (top.size() < ncol) return false;
  int64_t cells = 0;
  for (std::size_t c = 0; c < ncol; ++c) {
    if (top[c] < 0 || top[c] > mesh.nz) return false;
    cells += mesh.nz - top[c];
  }
  return cells == n;
}

}  // namespace

bool plan_grid(const survey& s, const grid_survey& grid, shift_plan& plan, const run_log& out) {
  const plan_status st = plan_shifts(s.mesh, s.obs, grid.ref_datum, grid.cell_dy, grid.cell_dx, plan);
  if (st != plan_status::ok) {
    if (st == plan_status::too_large)
      out.report_log({"", " Regular survey: the extended mesh would reach 2**31 cells,",
                      " so the rows are computed datum by datum.", ""});
    else
      out.report_log({"", " Regular survey without a usable reference datum or cell width,",
                      " so the rows are computed datum by datum.", ""});
    return false;
  }
  if (!rows_fit(s.mesh, s.n, s.top_index)) stop_text("indx /= size(g)");
  if (s.weights.size() != static_cast<std::size_t>(std::max(s.n, 0)))
    stop_text("size(weights) /= n");
  return true;
}

std::vector<double> reference_cube(const survey& s, const grid_survey& grid,
                                   const shift_plan& plan, const run_log& out) {
  const mesh_model& mesh = s.mesh;
  const int32_t hy = plan.hy, hx = plan.hx, ny2 = plan.ny2, nx2 = plan.nx2;
  std::vector<double> gbig, yn2, xn2;
  std::vector<int32_t> top2;
  try {
    gbig.resize(plan.cube);
    yn2.resize(static_cast<std::size_t>(ny2) + 1);
    xn2.resize(static_cast<std::size_t>(nx2) + 1);
    top2.resize(static_cast<std::size_t>(ny2) * static_cast<std::size_t>(nx2));
  } catch (const std::bad_alloc&) {
    alloc_failed("kernel2");
  } catch (const std::length_error&) {
    alloc_failed("kernel2");
  }

  // Extended nodes at the mean width throughout, accumulated like the
  // model's nodes.
  yn2[0] = mesh.yn[0] - hy * grid.cell_dy;
  for (std::size_t k = 1; k < yn2.size(); ++k) yn2[k] = yn2[k - 1] + grid.cell_dy;
  xn2[0] = mesh.xn[0] - hx * grid.cell_dx;
  for (std::size_t k = 1; k < xn2.size(); ++k) xn2[k] = xn2[k - 1] + grid.cell_dx;

  // Every column of the extended mesh is full. The reference row, on this
  // thread alone, with the tolerances of the model's mesh: the rows must be
  // those general_row_loop would give.
  std::fill(top2.begin(), top2.end(), 0);
  const std::size_t r = static_cast<std::size_t>(grid.ref_datum) - 1;
  const double oy = s.obs.northing[r];
  const double ox = s.obs.easting[r];
  const double oz = mesh.z0 - s.obs.elevation[r];
  row_workspace ws = make_row_workspace(survey_directions(s.obs), mesh_length_scale(mesh));
  prism_row(ws, s.obs.geomag, yn2.data(), xn2.data(), mesh.zn.data(), ny2, nx2, mesh.nz,
            top2.data(), grid.ref_datum, oy, ox, oz, gbig.data(), gbig.size(), out);
  return gbig;
}

int32_t grid_shift(double cells) {
  return static_cast<int32_t>(cells >= 0.0 ? cells + 0.5 : cells - 0.5);
}

void grid_row_loop(const survey& s, const grid_survey& grid, row_sink& sink,
                   std::vector<double>& squared_sensitivity, std::vector<double>& mean_sensitivity,
                   const run_log& out) {
  row_sums sums;
  grid_row_loop(s, grid, sink, all_rows(s.obs.ndata), sums, out);
  round_sums(sums, s.obs.ndata, squared_sensitivity, mean_sensitivity);
}

void grid_row_loop(const survey& s, const grid_survey& grid, row_sink& sink, row_range rows,
                   row_sums& sums, const run_log& out) {
  const mesh_model& mesh = s.mesh;
  const obs_set& obs = s.obs;
  const std::vector<int32_t>& top_index = s.top_index;
  const int32_t n = s.n;
  const int32_t ndata = obs.ndata;
  const int32_t ny = mesh.ny, nx = mesh.nx, nz = mesh.nz;
  const std::size_t nn = static_cast<std::size_t>(std::max(n, 0));

  shift_plan plan;
  if (!plan_grid(s, grid, plan, out)) {
    general_row_loop(s, sink, rows, sums, out);
    return;
  }
  if (rows.first < 0 || rows.last > ndata) stop_text("rows outside the data");
  begin_rows(sink, n, ndata, "kernel2", sums, out);
  const double test_model = sink.test_model();
  // A process without rows has no use for the cube.
  std::vector<double> gbig;
  if (rows.count() > 0) gbig = reference_cube(s, grid, plan, out);
  const int32_t hy = plan.hy, hx = plan.hx, nx2 = plan.nx2;

  // Every row a shifted, weighted sub-block of the cube.
  row_loop loop(out, ndata, sums);
  const int32_t group = sum_group_rows(ndata);
  const double* cube = gbig.data();
  const double* weights = s.weights.data();
  const std::size_t col_stride = static_cast<std::size_t>(nz);
  const std::size_t line_stride = static_cast<std::size_t>(nx2) * col_stride;
#pragma omp parallel default(shared)
  {
    thread_rows t;
    loop.latch.run([&] { begin_thread_rows(sink, n, "kernel2 g", "kernel2", t); });
    const int64_t target = run_vector_target();

    // Whole groups of rows to each thread, dealt in turn (as in the general
    // loop): a group's sums are made in datum order by one thread.
    const row_range groups = group_range(rows, group);
    for (int32_t grp = groups.first + omp_get_thread_num(); grp < groups.last;
         grp += omp_get_num_threads()) {
      const row_range mine = group_rows(rows, grp, group);
      loop.latch.run([&] { sink.claim_rows(mine); });
      for (int32_t i = mine.first; i < mine.last; ++i) {
        if (loop.latch.stopped()) continue;
        loop.latch.run([&] {
          out.check_interrupt();
          const std::size_t id = static_cast<std::size_t>(i);
          // The sub-block of this datum: a datum north of the reference
          // reads the cube further south.
          const std::size_t base =
              (static_cast<std::size_t>(plan.iy[id] + hy) * static_cast<std::size_t>(nx2) +
               static_cast<std::size_t>(plan.ix[id] + hx)) *
              col_stride;

          // Copy the active cells, weighted, with the sums on the way; a row
          // kept whole goes straight to its place in the store.
          float* column = sink.full_column(*t.part, i);
          double* g = t.g.data();
          const grid_copy_in in{cube + base, line_stride, col_stride, top_index.data(),
                                ny,          nx,          nz,         weights};
          grid_copy_row(target, in, t.avg.data(), t.sq.data(), column != nullptr ? nullptr : g,
                        column);

          // A row through the sink: the test datum is that of the unweighted row.
          if (column == nullptr) {
            double full = 0.0;
            if (test_model != 0.0) {
              for (std::size_t k = 0; k < nn; ++k) full += test_model * (g[k] * weights[k]);
            }
            sink.put(*t.part, i, g, full);
          } else {
            sink.full_done(*t.part, i);
          }
          loop.progress.row_done();
          if (ends_group(i, mine, group)) end_group(loop, t);
        });
      }
    }
    end_thread_rows(loop, sink, t);
  }
  loop.latch.rethrow();
  loop.progress.finish();

  std::vector<double>().swap(gbig);
}

}  // namespace quolvent
