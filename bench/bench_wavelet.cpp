// The cost of compressing one row: row to cube, forward transform, largest
// coefficient, threshold and the exact-size record, on meshes of 100,000 and
// 300,000 cells. The row is a real sensitivity row of a datum above the
// centre, weighted by depth, and the threshold is the one wctol estimates for
// a relative accuracy of 0.05.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "model/active_cells.hpp"
#include "model/model.hpp"
#include "run/text_io.hpp"
#include "sens/gsus_mod.hpp"
#include "sens/gsus_no_atan_mod.hpp"
#include "wavelet/compression.hpp"
#include "wavelet/threshold.hpp"
#include "wavelet/wavelet_filters.hpp"
#include "wavelet/wtn_mod.hpp"

namespace {

const char* const names[] = {"daub1", "daub2", "daub4", "daub6", "symm6"};

// one_row: the mesh, the filters and the weighted row of one datum.
struct one_row {
  std::vector<double> row;
  double threshold = 0.0;
};

one_row make_row(int32_t nx, int32_t ny, int32_t nz, const char* wavelet) {
  mesh = mesh_model{};
  mesh.nx = nx, mesh.ny = ny, mesh.nz = nz;
  mesh.dx.assign(nx, 10.0), mesh.dy.assign(ny, 10.0), mesh.dz.assign(nz, 10.0);
  for (int32_t i = 0; i <= nx; ++i) mesh.xn.push_back(10.0 * i);
  for (int32_t i = 0; i <= ny; ++i) mesh.yn.push_back(10.0 * i);
  for (int32_t i = 0; i <= nz; ++i) mesh.zn.push_back(10.0 * i);
  top_index.assign(static_cast<std::size_t>(nx) * ny, 0);
  get_active_cells("null", top_index);
  set_padded_extents();
  check_wavelet(wavelet, filter, ncof);
  set_filters(filter, ncof);
  obs = obs_set{};
  obs.geomag = 50000.0;
  SET_G_VALUES(70.0, 10.0, 70.0, 10.0);
  one_row r;
  const int32_t n = cells.nactive;
  r.row.assign(n, 0.0);
  sens_row(mesh.yn.data(), mesh.xn.data(), mesh.zn.data(), ny, nx, nz, top_index.data(), 1,
           5.0 * ny + 3.0, 5.0 * nx + 7.0, -2.0, r.row.data(), r.row.size());
  for (int32_t iy = 1; iy <= ny; ++iy)
    for (int32_t ix = 1; ix <= nx; ++ix)
      for (int32_t iz = 1; iz <= nz; ++iz)
        r.row[active_at(iz, ix, iy) - 1] *= std::pow(mesh.zn[iz - 1] + 5.0, 1.5);
  r.threshold = wctol(r.row.data(), n, 0.05);
  return r;
}

void compress_one_row(benchmark::State& state, int32_t nx, int32_t ny, int32_t nz) {
  const char* wavelet = names[state.range(0)];
  state.SetLabel(wavelet);
  const one_row r = make_row(nx, ny, nz, wavelet);
  wctol_surface = r.threshold;
  ALLOC_WORK();
  compressed_row rec;
  int64_t nnz = 0;
  for (auto _ : state) {
    nnz = 0;
    COMPRESS_ROW(r.row.data(), cells.nactive, rec, nnz, 1);
    benchmark::DoNotOptimize(rec.val.data());
  }
  DEALLOC_WORK();
  state.counters["cells"] = cells.nactive;
  state.counters["ncube"] = static_cast<double>(ncube);
  state.counters["kept"] = static_cast<double>(nnz);
  state.counters["threshold"] = r.threshold;
}

void transform_only(benchmark::State& state) {
  const char* wavelet = names[state.range(0)];
  state.SetLabel(wavelet);
  const one_row r = make_row(50, 50, 40, wavelet);
  std::vector<double> cube(static_cast<std::size_t>(ncube));
  for (auto _ : state) {
    row_to_cube(r.row.data(), cells.nactive, cube.data());
    transform_cube(cube.data(), +1);
    benchmark::DoNotOptimize(cube.data());
  }
}

// For scale: computing the same row, on the same machine and load.
void BM_sens_row_100k(benchmark::State& state) {
  const one_row r = make_row(50, 50, 40, "daub2");
  std::vector<double> g(r.row.size());
  for (auto _ : state) {
    sens_row(mesh.yn.data(), mesh.xn.data(), mesh.zn.data(), mesh.ny, mesh.nx, mesh.nz,
             top_index.data(), 1, 253.0, 257.0, -2.0, g.data(), g.size());
    benchmark::DoNotOptimize(g.data());
  }
}

void BM_compress_row_100k(benchmark::State& state) { compress_one_row(state, 50, 50, 40); }
void BM_compress_row_300k(benchmark::State& state) { compress_one_row(state, 100, 100, 30); }

}  // namespace

BENCHMARK(BM_compress_row_100k)->DenseRange(0, 4)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_compress_row_300k)->Arg(1)->Arg(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_sens_row_100k)->Unit(benchmark::kMillisecond);
BENCHMARK(transform_only)->Arg(1)->Arg(3)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
  // The estimate writes its lines to the log; the benchmark has none.
  set_log(nullptr);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
