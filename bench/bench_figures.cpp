// The four speed figures of the row phase, in memory (no files), on the
// surveys that make_survey writes for whole runs: cells of 10 m by 10 m by
// 5 m under flat ground, data on a grid two cells apart 5 m above, centred.
//
//   bench_figures                      all four, 2 threads
//   QUOLVENT_VECTOR=avx2 bench_figures  the same on a narrower target
//
// Uncompressed100k   1,000 data over 50 x 50 x 40 cells, the general loop
// Uncompressed1M     100 data over 100 x 100 x 100 cells, the general loop
// Compressed100k     daub2, the threshold of the default accuracy, 1,000 data
//                    over 50 x 50 x 40 cells: rows, transforms and records
// Grid50k            the regular-grid loop, 2,500 data over 100 x 100 x 5
//                    cells, whole rows (500 MB of 32-bit values)
//
// cells*data/s is the figure of the first three, bytes_per_second (of stored
// 32-bit values) that of the last. The store's pages are touched before the
// clock starts: the figures are the loop's own; a whole run adds the first
// touch of the matrix (see bench/README.md).
#include <benchmark/benchmark.h>
#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "base/vector_target.hpp"
#include "model/mesh.hpp"
#include "model/model.hpp"
#include "run/row_store.hpp"
#include "sens/grid_check.hpp"
#include "sens/field_directions.hpp"
#include "sens/prism_row.hpp"
#include "sens/grid_row_loop.hpp"
#include "sens/general_row_loop.hpp"
#include "support/test_support.hpp"
#include "wavelet/compression.hpp"
#include "wavelet/threshold.hpp"

using namespace quolvent;

namespace {

const run_log quiet(nullptr);

// grid_survey_of: nx x ny x nz cells, ndx x ndy data as make_survey places
// them; idir 0 (a direction per datum) sends the rows through the general
// loop, as make_survey's IDIR 0 does.
survey grid_survey_of(int nx, int ny, int nz, int ndx, int ndy, int idir) {
  const mesh_model mesh = qt::uniform_mesh(nx, ny, nz, 10.0, 10.0, 5.0);
  obs_set obs = qt::field(65.0, 20.0, 65.0, 20.0, 50000.0, idir);
  const double x0 = 5.0 + 10.0 * ((nx - 2 * (ndx - 1)) / 2);
  const double y0 = 5.0 + 10.0 * ((ny - 2 * (ndy - 1)) / 2);
  for (int j = 0; j < ndy; ++j)
    for (int i = 0; i < ndx; ++i) qt::add_datum(obs, x0 + 20.0 * i, y0 + 20.0 * j, 5.0, 65.0, 20.0);
  return qt::make_survey(mesh, obs);
}

void label(benchmark::State& state, int64_t cells_data) {
  state.counters["cells*data/s"] = benchmark::Counter(
      static_cast<double>(cells_data), benchmark::Counter::kIsIterationInvariantRate);
  state.SetLabel(vector_target_name(run_vector_target()) + ", 2 threads");
}

// The general loop, whole rows, on 2 threads.
void uncompressed(benchmark::State& state, int nx, int ny, int nz, int ndx, int ndy) {
  const survey s = grid_survey_of(nx, ny, nz, ndx, ndy, 0);
  const compression none;
  matrix_store store = make_matrix_store(none, s.n, s.obs.ndata);
  std::fill(store.full_rows.begin(), store.full_rows.end(), 0.0f);
  std::vector<double> sq, avg;
  omp_set_num_threads(2);
  for (auto _ : state) {
    store_sink sink(s, none, store);
    general_row_loop(s, sink, sq, avg, quiet);
    benchmark::DoNotOptimize(store.full_rows.data());
  }
  label(state, int64_t{s.n} * s.obs.ndata);
}

void Uncompressed100k(benchmark::State& state) { uncompressed(state, 50, 50, 40, 40, 25); }
void Uncompressed1M(benchmark::State& state) { uncompressed(state, 100, 100, 100, 10, 10); }

// The general loop through the compressed store: every row transformed,
// thresholded and kept, the test model's data on the way.
void Compressed100k(benchmark::State& state) {
  const survey s = grid_survey_of(50, 50, 40, 40, 25, 0);
  row_workspace ws = make_row_workspace(survey_directions(s.obs), mesh_length_scale(s.mesh));
  const compression c = setup_compression(
      s, "daub2", "null",
      [&](int32_t idat, std::vector<double>& row) {
        const std::size_t d = static_cast<std::size_t>(idat - 1);
        prism_row(ws, s.obs.geomag, s.mesh.yn.data(), s.mesh.xn.data(), s.mesh.zn.data(), s.mesh.ny,
                  s.mesh.nx, s.mesh.nz, s.top_index.data(), idat, s.obs.northing[d],
                  s.obs.easting[d], s.mesh.z0 - s.obs.elevation[d], row.data(), row.size(), quiet);
      },
      quiet);
  std::vector<double> sq, avg;
  omp_set_num_threads(2);
  for (auto _ : state) {
    matrix_store store = make_matrix_store(c, s.n, s.obs.ndata);
    store_sink sink(s, c, store);
    general_row_loop(s, sink, sq, avg, quiet);
    benchmark::DoNotOptimize(store.compressed_rows.data());
  }
  label(state, int64_t{s.n} * s.obs.ndata);
}

// The regular-grid loop, whole rows.
void Grid50k(benchmark::State& state) {
  const survey s = grid_survey_of(100, 100, 5, 50, 50, 1);
  const grid_survey grid = grid_check(s.mesh, s.obs, s.survey_kind);
  if (!grid.regular) return state.SkipWithError("survey not regular");
  const compression none;
  matrix_store store = make_matrix_store(none, s.n, s.obs.ndata);
  std::fill(store.full_rows.begin(), store.full_rows.end(), 0.0f);
  std::vector<double> sq, avg;
  omp_set_num_threads(2);
  for (auto _ : state) {
    store_sink sink(s, none, store);
    grid_row_loop(s, grid, sink, sq, avg, quiet);
    benchmark::DoNotOptimize(store.full_rows.data());
  }
  state.SetBytesProcessed(state.iterations() * int64_t{s.n} * s.obs.ndata *
                          static_cast<int64_t>(sizeof(float)));
  state.SetLabel(vector_target_name(run_vector_target()) + ", 2 threads");
}

}  // namespace

BENCHMARK(Uncompressed100k)->Unit(benchmark::kSecond)->Iterations(3)->UseRealTime();
BENCHMARK(Uncompressed1M)->Unit(benchmark::kSecond)->Iterations(3)->UseRealTime();
BENCHMARK(Compressed100k)->Unit(benchmark::kSecond)->Iterations(3)->UseRealTime();
BENCHMARK(Grid50k)->Unit(benchmark::kSecond)->Iterations(3)->UseRealTime();

BENCHMARK_MAIN();
