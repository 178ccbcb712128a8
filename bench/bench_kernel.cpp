// Speed of the row kernel (cache fill and prism formula) and of the whole
// general row loop on a generated survey, uncompressed, without file output.
//
//   bench_kernel --benchmark_filter=Row     one row, by arctangent width
//   bench_kernel --benchmark_filter=Kernel  2,000 data over ~100,000 cells
#include <benchmark/benchmark.h>
#include <omp.h>

#include <cstdint>
#include <vector>

#include "model/model.hpp"
#include "sens/calc_arctangents_mod.hpp"
#include "sens/gsus_mod.hpp"
#include "sens/gsus_no_atan_mod.hpp"
#include "sens/kernel_mod.hpp"
#include "sens/vector_math.hpp"
#include "run/text_io.hpp"
#include "wavelet/compression.hpp"

#include "support/test_support.hpp"

namespace {

// survey: a 50 x 50 x 42 mesh of 10 m cells under a ground 0 to 2 layers down,
// and ndata surface data on a grid 1.5 m above the mesh top; returns n.
int32_t survey(int32_t ndata) {
  qt::set_uniform_mesh(50, 50, 42, 10.0, 10.0, 10.0, 0.0, 0.0, 500.0);
  int32_t n = 0;
  for (int32_t c = 0; c < 2500; ++c) {
    top_index[c] = (c * 7 + c / 50) % 3;
    n += 42 - top_index[c];
  }
  qt::set_field(65, 12, 65, 12);
  for (int32_t i = 0; i < ndata; ++i) {
    qt::add_datum(2.7 + 497.0 * ((i / 50) % 50) / 50.0, 3.3 + 497.0 * (i % 50) / 50.0,
                  mesh.z0 + 1.5);
  }
  SET_G_VALUES(obs.incl, obs.decl, obs.aincl, obs.adecl);
  return n;
}

// One row at a point over the middle of the survey, arctangents and
// logarithms evaluated `width` at a time.
void Row(benchmark::State& state) {
  force_vector_width(static_cast<int>(state.range(0)));
  const int32_t n = survey(1);
  std::vector<double> g(static_cast<std::size_t>(n));
  for (auto _ : state) {
    sens_row(mesh.yn.data(), mesh.xn.data(), mesh.zn.data(), 50, 50, 42, top_index.data(), 1,
             251.3, 248.9, -1.5, g.data(), g.size());
    benchmark::DoNotOptimize(g.data());
  }
  state.SetItemsProcessed(state.iterations() * n);
  state.SetLabel("width " + std::to_string(vector_width()));
  force_vector_width(0);
}
BENCHMARK(Row)->Arg(4)->Arg(2)->Arg(1)->Unit(benchmark::kMillisecond);

// The cache fill of one row alone, counted per cell of the row like Row, so
// that Row minus Fill is the prism formula.
void Fill(benchmark::State& state) {
  force_vector_width(static_cast<int>(state.range(0)));
  const int32_t n = survey(1);
  for (auto _ : state) {
    CALC_ARCTANGENTS(mesh.yn.data(), mesh.xn.data(), mesh.zn.data(), 50, 50, 42,
                     top_index.data(), 251.3, 248.9, -1.5);
    benchmark::DoNotOptimize(at_cache().at_x.data());
  }
  state.SetItemsProcessed(state.iterations() * n);
  state.SetLabel("width " + std::to_string(vector_width()));
  force_vector_width(0);
}
BENCHMARK(Fill)->Arg(4)->Arg(2)->Arg(1)->Unit(benchmark::kMillisecond);

// The whole general row loop: 2,000 data over 102,500 cells, full rows kept
// in memory (g_full: 820 MB), with the given number of threads.
void Kernel(benchmark::State& state) {
  const int threads = static_cast<int>(state.range(0));
  const int32_t n = survey(2000);
  const std::vector<double> wtz(static_cast<std::size_t>(n), 1.0);
  const std::vector<int32_t> kinds(2000, 1);
  std::vector<double> sens_sq, sens_avg;
  compressed = false;
  g_full.assign(static_cast<std::size_t>(n) * 2000, 0.0f);
  std::FILE* sink = std::fopen("/dev/null", "w");
  set_screen(sink);
  omp_set_num_threads(threads);
  for (auto _ : state) {
    KERNEL(n, wtz, top_index, kinds, sens_sq, sens_avg);
    benchmark::DoNotOptimize(g_full.data());
  }
  set_screen(nullptr);
  std::fclose(sink);
  float_matrix().swap(g_full);
  state.SetItemsProcessed(state.iterations() * int64_t{n} * 2000);
  state.counters["threads"] = threads;
}
BENCHMARK(Kernel)->Arg(1)->Arg(2)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
