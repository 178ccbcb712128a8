// The regular-grid row loop against the general one on the same uncompressed
// regular survey: 50 x 50 data at the cell centres of a fully active
// 50 x 50 x 20 mesh (2,500 rows of 50,000 cells), and the one row over the
// extended mesh that the regular route evaluates.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <vector>

#include "model/model.hpp"
#include "run/text_io.hpp"
#include "sens/calc_arctangents_mod.hpp"
#include "sens/grid_check.hpp"
#include "sens/gsus_mod.hpp"
#include "sens/gsus_no_atan_mod.hpp"
#include "sens/kernel2_mod.hpp"
#include "sens/kernel_mod.hpp"
#include "wavelet/compression.hpp"

#include "support/test_support.hpp"

namespace {

constexpr int side = 50, layers = 20;

std::vector<double> nodes_from(double origin, int m, double d) {
  std::vector<double> v(static_cast<std::size_t>(m) + 1);
  v[0] = origin;
  for (int k = 0; k < m; ++k) v[k + 1] = v[k] + d;
  return v;
}

// bench_run: the in-memory set-up of one regular run, made once.
struct bench_run {
  int32_t n = 0;
  std::vector<double> wtz, sens_sq, sens_avg;
  std::vector<int32_t> obs_type;
  bool regular = false;
  int32_t ref = 0;
  double cdy = 0, cdx = 0;
};

bench_run& setup() {
  static bench_run r;
  if (r.n > 0) return r;
  qt::set_uniform_mesh(side, side, layers, 25.0, 25.0, 12.5);
  r.n = side * side * layers;
  r.wtz.assign(static_cast<std::size_t>(r.n), 1.0);

  qt::set_field(70.0, 10.0, 70.0, 10.0);
  for (int j = 0; j < side; ++j)
    for (int i = 0; i < side; ++i) qt::add_datum(12.5 + 25.0 * i, 12.5 + 25.0 * j, 2.0);
  r.obs_type.assign(obs.ndata, 1);

  compressed = false;
  g_full.assign(static_cast<std::size_t>(r.n) * obs.ndata, 0.0f);
  SET_G_VALUES(obs.incl, obs.decl, obs.aincl, obs.adecl);
  grid_check(1, obs.idir, r.regular, r.ref, r.cdy, r.cdx);
  // The progress line is not what is measured.
  set_screen(std::fopen("/dev/null", "w"));
  return r;
}

void BM_kernel(benchmark::State& state) {
  bench_run& r = setup();
  for (auto _ : state) KERNEL(r.n, r.wtz, top_index, r.obs_type, r.sens_sq, r.sens_avg);
  state.counters["rows"] = obs.ndata;
  state.counters["cells"] = r.n;
}

void BM_kernel2(benchmark::State& state) {
  bench_run& r = setup();
  if (!r.regular) state.SkipWithError("survey not regular");
  for (auto _ : state)
    KERNEL2(r.n, r.wtz, top_index, r.obs_type, r.ref, r.cdy, r.cdx, r.sens_sq, r.sens_avg);
  state.counters["rows"] = obs.ndata;
  state.counters["cells"] = r.n;
}

// The one row over the extended mesh (100 x 100 columns of 20 layers).
void BM_extended_row(benchmark::State& state) {
  bench_run& r = setup();
  const int ny2 = side + 2 * (side / 2), nx2 = ny2;
  const std::vector<double> yn2 = nodes_from(-25.0 * (side / 2), ny2, 25.0);
  const std::vector<double> xn2 = nodes_from(-25.0 * (side / 2), nx2, 25.0);
  const std::vector<int32_t> top2(static_cast<std::size_t>(ny2) * nx2, 0);
  std::vector<double> gbig(static_cast<std::size_t>(ny2) * nx2 * layers);
  const std::size_t ref = static_cast<std::size_t>(r.ref) - 1;
  DEALLOC_AT();
  for (auto _ : state) {
    sens_row(yn2.data(), xn2.data(), mesh.zn.data(), ny2, nx2, layers, top2.data(), r.ref,
             obs.obs_y[ref], obs.obs_x[ref], mesh.z0 - obs.obs_z[ref], gbig.data(), gbig.size());
    benchmark::DoNotOptimize(gbig.data());
  }
  DEALLOC_AT();
  state.counters["cells"] = static_cast<double>(gbig.size());
}

}  // namespace

BENCHMARK(BM_kernel)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_kernel2)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_extended_row)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();
BENCHMARK_MAIN();
