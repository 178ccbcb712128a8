// The topography surface on random point clouds: sorting and triangulating
// 10^5 and 10^6 points, and sampling the surface over the node and mid lines
// of a 200 x 200 mesh (401 x 401 samples) with the search start carried from
// sample to sample, as the reader does. One iteration each: the machine is
// shared, and the work is deterministic.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <vector>

#include "topo/surface.hpp"
#include "topo/triangulation.hpp"

using quolvent::eval_surface;
using quolvent::order_nodes;
using quolvent::triangulate;

namespace {

struct cloud {
  std::vector<double> x, y, z;
  std::vector<int32_t> adj, adj_end;
  int32_t n = 0;
};

// random_cloud: n uniform points over [0, 1000)^2 with a smooth elevation.
cloud random_cloud(int32_t n) {
  cloud c;
  c.n = n;
  std::mt19937_64 gen(12345);
  std::uniform_real_distribution<double> u(0.0, 1000.0);
  for (int32_t i = 0; i < n; ++i) {
    const double x = u(gen), y = u(gen);
    c.x.push_back(x);
    c.y.push_back(y);
    c.z.push_back(80.0 + 0.01 * x - 0.02 * y);
  }
  c.adj.assign(static_cast<std::size_t>(6 * n - 9), 0);
  c.adj_end.assign(static_cast<std::size_t>(n), 0);
  return c;
}

void triangulate_cloud(cloud& c) {
  order_nodes(c.n, 3, c.x, c.y, c.z, c.adj_end);
  quolvent::tri_status status = quolvent::tri_status::ok;
  triangulate(c.n, c.x, c.y, c.adj, c.adj_end, status);
  if (status != quolvent::tri_status::ok) std::abort();
}

void BM_triangulate(benchmark::State& state) {
  const int32_t n = static_cast<int32_t>(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    cloud c = random_cloud(n);
    state.ResumeTiming();
    triangulate_cloud(c);
    benchmark::DoNotOptimize(c.adj.data());
    // Fill level 6n - 6 - h: h, the hull nodes, follows from it.
    state.counters["fill"] = c.adj_end.back();
    state.counters["hull"] = 6.0 * n - 6 - c.adj_end.back();
  }
}

void BM_sample(benchmark::State& state) {
  const int32_t n = static_cast<int32_t>(state.range(0));
  cloud c = random_cloud(n);
  triangulate_cloud(c);
  const int m = 2 * 200 + 1;
  std::vector<double> surf(static_cast<std::size_t>(m) * m);
  for (auto _ : state) {
    int32_t ist = 1;
    for (int i = 0; i < m; ++i) {
      for (int j = 0; j < m; ++j) {
        double pz = 0.0;
        quolvent::surface_status st = quolvent::surface_status::inside;
        eval_surface(c.n, 2.5 * j, 2.5 * i, c.x, c.y, c.z, c.adj, c.adj_end, ist, pz, st);
        surf[static_cast<std::size_t>(j + i * m)] = pz;
      }
    }
    benchmark::DoNotOptimize(surf.data());
  }
  state.counters["samples"] = static_cast<double>(m) * m;
}

}  // namespace

BENCHMARK(BM_triangulate)->Arg(100000)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_sample)->Arg(100000)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
