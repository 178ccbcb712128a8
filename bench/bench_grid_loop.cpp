// The regular-grid row loop against the general one on the same uncompressed
// regular survey: 50 x 50 data at the cell centres of a fully active
// 50 x 50 x 20 mesh (2,500 rows of 50,000 cells), and the one row over the
// extended mesh that the regular route evaluates.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <vector>

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

constexpr int side = 50, layers = 20;

// The progress line is not what is measured.
const run_log quiet(nullptr);

std::vector<double> nodes_from(double origin, int m, double d) {
  std::vector<double> v(static_cast<std::size_t>(m) + 1);
  v[0] = origin;
  for (int k = 0; k < m; ++k) v[k + 1] = v[k] + d;
  return v;
}

// bench_run: the in-memory set-up of one regular run, made once.
struct bench_run {
  survey s;
  grid_survey grid;
  compression none;
  matrix_store store;
  std::vector<double> squared_sensitivity, mean_sensitivity;
};

bench_run& setup() {
  static bench_run r = [] {
    bench_run b;
    obs_set obs = qt::field(70.0, 10.0, 70.0, 10.0);
    for (int j = 0; j < side; ++j)
      for (int i = 0; i < side; ++i) qt::add_datum(obs, 12.5 + 25.0 * i, 12.5 + 25.0 * j, 2.0);
    b.s = qt::make_survey(qt::uniform_mesh(side, side, layers, 25.0, 25.0, 12.5), obs);
    b.grid = grid_check(b.s.mesh, b.s.obs, b.s.survey_kind);
    b.store = make_matrix_store(b.none, b.s.n, b.s.obs.ndata);
    // Pages touched before any clock starts, so that the first loop measured
    // doesn't pay for them.
    std::fill(b.store.full_rows.begin(), b.store.full_rows.end(), 0.0f);
    return b;
  }();
  return r;
}

void BM_kernel(benchmark::State& state) {
  bench_run& r = setup();
  store_sink sink(r.s, r.none, r.store);
  for (auto _ : state)
    general_row_loop(r.s, sink, r.squared_sensitivity, r.mean_sensitivity, quiet);
  state.counters["rows"] = r.s.obs.ndata;
  state.counters["cells"] = r.s.n;
}

void BM_grid_row_loop(benchmark::State& state) {
  bench_run& r = setup();
  if (!r.grid.regular) return state.SkipWithError("survey not regular");
  store_sink sink(r.s, r.none, r.store);
  for (auto _ : state)
    grid_row_loop(r.s, r.grid, sink, r.squared_sensitivity, r.mean_sensitivity, quiet);
  state.counters["rows"] = r.s.obs.ndata;
  state.counters["cells"] = r.s.n;
}

// The one row over the extended mesh (100 x 100 columns of 20 layers).
void BM_extended_row(benchmark::State& state) {
  bench_run& r = setup();
  if (!r.grid.regular) return state.SkipWithError("survey not regular");
  const mesh_model& m = r.s.mesh;
  const obs_set& obs = r.s.obs;
  const int ny2 = side + 2 * (side / 2), nx2 = ny2;
  const std::vector<double> yn2 = nodes_from(-25.0 * (side / 2), ny2, 25.0);
  const std::vector<double> xn2 = nodes_from(-25.0 * (side / 2), nx2, 25.0);
  const std::vector<int32_t> top2(static_cast<std::size_t>(ny2) * nx2, 0);
  std::vector<double> gbig(static_cast<std::size_t>(ny2) * nx2 * layers);
  const int32_t ref = r.grid.ref_datum;
  const std::size_t d = static_cast<std::size_t>(ref) - 1;
  row_workspace ws = make_row_workspace(survey_directions(obs), mesh_length_scale(m));
  for (auto _ : state) {
    prism_row(ws, obs.geomag, yn2.data(), xn2.data(), m.zn.data(), ny2, nx2, layers, top2.data(),
              ref, obs.northing[d], obs.easting[d], m.z0 - obs.elevation[d], gbig.data(),
              gbig.size(), quiet);
    benchmark::DoNotOptimize(gbig.data());
  }
  state.counters["cells"] = static_cast<double>(gbig.size());
}

}  // namespace

BENCHMARK(BM_kernel)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_grid_row_loop)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_extended_row)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();
BENCHMARK_MAIN();
