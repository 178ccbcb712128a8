// Speed of one row (node planes and prism formula) and of the whole general
// row loop on a generated survey, uncompressed, without file output.
//
//   bench_general_loop --benchmark_filter=Row             one row, on each vector target
//   bench_general_loop --benchmark_filter=GeneralRowLoop  2,000 data over ~100,000 cells
//
// Row and Fill take the index of the target in vector_targets() (0: the
// machine's widest); the label names it. GeneralRowLoop runs on the run's target
// (QUOLVENT_VECTOR may name another).
#include <benchmark/benchmark.h>
#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "model/mesh.hpp"
#include "model/model.hpp"
#include "run/row_store.hpp"
#include "sens/node_planes.hpp"
#include "sens/field_directions.hpp"
#include "sens/prism_row.hpp"
#include "sens/general_row_loop.hpp"
#include "sens/vector_math.hpp"
#include "support/test_support.hpp"
#include "wavelet/compression.hpp"
#include "wavelet/threshold.hpp"

using namespace quolvent;

namespace {

// The progress line and the edge messages are not what is measured.
const run_log quiet(nullptr);

// make_bench_survey: a 50 x 50 x 42 mesh of 10 m cells under a ground 0 to 2
// layers down, and ndata surface data on a grid 1.5 m above the mesh top.
survey make_bench_survey(int32_t ndata) {
  const mesh_model mesh = qt::uniform_mesh(50, 50, 42, 10.0, 10.0, 10.0, 0.0, 0.0, 500.0);
  std::vector<int32_t> tops(2500);
  for (int32_t c = 0; c < 2500; ++c) tops[c] = (c * 7 + c / 50) % 3;
  obs_set obs = qt::field(65, 12, 65, 12);
  for (int32_t i = 0; i < ndata; ++i)
    qt::add_datum(obs, 2.7 + 497.0 * ((i / 50) % 50) / 50.0, 3.3 + 497.0 * (i % 50) / 50.0,
                  mesh.z0 + 1.5);
  return qt::make_survey(mesh, obs, std::move(tops));
}

// target_at: the i-th target of the machine (the last one where there are
// fewer), and its label: its name and the doubles one vector holds.
int64_t target_at(int64_t i) {
  const std::vector<int64_t> t = vector_targets();
  return t[static_cast<std::size_t>(std::min<int64_t>(i, static_cast<int64_t>(t.size()) - 1))];
}
std::string target_label(int64_t target) {
  return vector_target_name(target) + " x" + std::to_string(vector_lanes(target));
}

// One row at a point over the middle of the survey, on one vector target.
void Row(benchmark::State& state) {
  const int64_t target = target_at(state.range(0));
  const survey s = make_bench_survey(1);
  const mesh_model& m = s.mesh;
  row_workspace ws = make_row_workspace(survey_directions(s.obs), mesh_length_scale(m));
  ws.vector_target = target;
  std::vector<double> g(static_cast<std::size_t>(s.n));
  for (auto _ : state) {
    prism_row(ws, s.obs.geomag, m.yn.data(), m.xn.data(), m.zn.data(), m.ny, m.nx, m.nz,
              s.top_index.data(), 1, 251.3, 248.9, -1.5, g.data(), g.size(), quiet);
    benchmark::DoNotOptimize(g.data());
  }
  state.SetItemsProcessed(state.iterations() * s.n);
  state.SetLabel(target_label(target));
}
BENCHMARK(Row)->DenseRange(0, 4)->Unit(benchmark::kMillisecond);

// The cache fill of one row alone, counted per cell of the row like Row, so
// that Row minus Fill is the prism formula.
void Fill(benchmark::State& state) {
  const int64_t target = target_at(state.range(0));
  const survey s = make_bench_survey(1);
  const mesh_model& m = s.mesh;
  arctangent_cache cache;
  for (auto _ : state) {
    for (int32_t j = 1; j <= m.ny + 1; ++j) {
      compute_node_plane(cache, target, zero_offset(mesh_length_scale(m)), m.yn.data(), m.xn.data(),
                         m.zn.data(), m.ny, m.nx, m.nz, s.top_index.data(), 251.3, 248.9, -1.5, j);
      benchmark::DoNotOptimize(cache.at_x.data());
    }
  }
  state.SetItemsProcessed(state.iterations() * s.n);
  state.SetLabel(target_label(target));
}
BENCHMARK(Fill)->DenseRange(0, 4)->Unit(benchmark::kMillisecond);

// The whole general row loop: 2,000 data over 102,500 cells, full rows kept
// in memory (full_rows: 820 MB), with the given number of threads.
void GeneralRowLoop(benchmark::State& state) {
  const int threads = static_cast<int>(state.range(0));
  const survey s = make_bench_survey(2000);
  const compression none;
  matrix_store store = make_matrix_store(none, s.n, s.obs.ndata);
  // Its pages touched before the clock starts, as when the store was made
  // zeroed: the loop's own cost, comparable with earlier measurements.
  std::fill(store.full_rows.begin(), store.full_rows.end(), 0.0f);
  store_sink sink(s, none, store);
  std::vector<double> squared_sensitivity, mean_sensitivity;
  omp_set_num_threads(threads);
  for (auto _ : state) {
    general_row_loop(s, sink, squared_sensitivity, mean_sensitivity, quiet);
    benchmark::DoNotOptimize(store.full_rows.data());
  }
  state.SetItemsProcessed(state.iterations() * int64_t{s.n} * s.obs.ndata);
  state.counters["threads"] = threads;
}
BENCHMARK(GeneralRowLoop)->Arg(1)->Arg(2)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
