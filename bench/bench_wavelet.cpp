// The cost of compressing one row: row to cube, forward transform, largest
// coefficient, threshold and the exact-size record, on meshes of 100,000 and
// 300,000 cells. The row is a real sensitivity row of a datum above the
// centre, weighted by depth, and the threshold is the one relative_threshold estimates for
// a relative accuracy of 0.05.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <omp.h>
#include <cstdio>
#include <string>
#include <vector>

#include "base/vector_target.hpp"
#include "model/mesh.hpp"
#include "model/model.hpp"
#include "sens/field_directions.hpp"
#include "sens/prism_row.hpp"
#include "support/test_support.hpp"
#include "wavelet/compress_row.hpp"
#include "wavelet/compression.hpp"
#include "wavelet/threshold.hpp"
#include "wavelet/wavelet_filters.hpp"
#include "wavelet/transform.hpp"

using namespace quolvent;

namespace {

const char* const names[] = {"daub1", "daub2", "daub4", "daub6", "symm6"};

// The estimate writes its lines to the log; the benchmark has none.
const run_log quiet(nullptr);

// one_row: the survey of one datum, the compression record of a wavelet
// with its surface threshold, the workspace that computes the datum's row,
// and that row divided by the weighting.
struct one_row {
  survey s;
  compression c;
  row_workspace ws;
  std::vector<double> row;
};

// compute_row: the sensitivity row of the survey's one datum into g.
void compute_row(one_row& r, std::vector<double>& g) {
  const mesh_model& m = r.s.mesh;
  const obs_set& obs = r.s.obs;
  prism_row(r.ws, obs.geomag, m.yn.data(), m.xn.data(), m.zn.data(), m.ny, m.nx, m.nz,
            r.s.top_index.data(), 1, obs.northing[0], obs.easting[0], m.z0 - obs.elevation[0],
            g.data(), g.size(), quiet);
}

one_row make_row(int32_t nx, int32_t ny, int32_t nz, const char* wavelet) {
  // Cells of 10 m, flat ground, one datum 2 m above a point near the centre.
  obs_set obs = qt::field(70.0, 10.0, 70.0, 10.0);
  qt::add_datum(obs, 5.0 * nx + 7.0, 5.0 * ny + 3.0, 2.0);
  const mesh_model mesh = qt::uniform_mesh(nx, ny, nz, 10.0, 10.0, 10.0);
  // Weighted by depth, a row of cells in cell order (z fastest).
  std::vector<double> weights;
  for (int32_t col = 0; col < nx * ny; ++col)
    for (int32_t iz = 1; iz <= nz; ++iz) weights.push_back(std::pow(mesh.zn[iz - 1] + 5.0, -1.5));
  one_row r{qt::make_survey(mesh, obs, {}, weights),
            {},
            make_row_workspace(survey_directions(obs), mesh_length_scale(mesh)),
            {}};
  r.c = setup_compression(r.s, wavelet, "1 0.05",
                          [&r](int32_t, std::vector<double>& g) { compute_row(r, g); }, quiet);
  r.row.assign(static_cast<std::size_t>(r.s.n), 0.0);
  compute_row(r, r.row);
  for (std::size_t k = 0; k < r.row.size(); ++k) r.row[k] /= r.s.weights[k];
  return r;
}

void compress_one_row(benchmark::State& state, int32_t nx, int32_t ny, int32_t nz) {
  const char* wavelet = names[state.range(0)];
  state.SetLabel(wavelet);
  const one_row r = make_row(nx, ny, nz, wavelet);
  compress_workspace ws(r.c);
  compressed_row rec;
  int64_t nnz = 0;
  for (auto _ : state) {
    nnz = 0;
    compress_row(r.c, r.s.cells, r.row.data(), r.s.n, rec, nnz, datum_kind::surface, ws);
    benchmark::DoNotOptimize(rec.val.data());
  }
  state.counters["cells"] = r.s.n;
  state.counters["cube_size"] = static_cast<double>(r.c.cube_size);
  state.counters["kept"] = static_cast<double>(nnz);
  state.counters["threshold"] = r.c.threshold_surface;
}

void transform_only(benchmark::State& state) {
  const char* wavelet = names[state.range(0)];
  state.SetLabel(wavelet);
  const one_row r = make_row(50, 50, 40, wavelet);
  std::vector<double> cube(static_cast<std::size_t>(r.c.cube_size));
  line_buffers lb;
  for (auto _ : state) {
    row_to_cube(r.c, r.s.cells, r.row.data(), r.s.n, cube.data());
    transform_cube(r.c, cube.data(), +1, lb);
    benchmark::DoNotOptimize(cube.data());
  }
}

// For scale: computing the same row, on the same machine and load.
void BM_sens_row_100k(benchmark::State& state) {
  one_row r = make_row(50, 50, 40, "daub2");
  std::vector<double> g(r.row.size());
  for (auto _ : state) {
    compute_row(r, g);
    benchmark::DoNotOptimize(g.data());
  }
}

void BM_compress_row_100k(benchmark::State& state) { compress_one_row(state, 50, 50, 40); }

// daub2 on 100,000 cells on each vector target (the index in vector_targets()).
void BM_compress_row_target(benchmark::State& state) {
  const std::vector<int64_t> all = vector_targets();
  const int64_t target = all[static_cast<std::size_t>(
      std::min<int64_t>(state.range(0), static_cast<int64_t>(all.size()) - 1))];
  const one_row r = make_row(50, 50, 40, "daub2");
  compress_workspace ws(r.c);
  ws.lines.vector_target = target;
  compressed_row rec;
  int64_t nnz = 0;
  for (auto _ : state) {
    compress_row(r.c, r.s.cells, r.row.data(), r.s.n, rec, nnz, datum_kind::surface, ws);
    benchmark::DoNotOptimize(rec.val.data());
  }
  state.SetLabel("daub2 " + vector_target_name(target));
}
void BM_compress_row_300k(benchmark::State& state) { compress_one_row(state, 100, 100, 30); }

// The exact error of a stored row (the record back through the inverse
// transform), against compress_row above: what measuring every row would cost.
void BM_stored_row_error_100k(benchmark::State& state) {
  const one_row r = make_row(50, 50, 40, names[state.range(0)]);
  state.SetLabel(names[state.range(0)]);
  compress_workspace ws(r.c);
  compressed_row rec;
  int64_t nnz = 0;
  compress_row(r.c, r.s.cells, r.row.data(), r.s.n, rec, nnz, datum_kind::surface, ws);
  for (auto _ : state)
    benchmark::DoNotOptimize(stored_row_error(r.c, r.s.cells, r.row.data(), r.s.n, rec, ws));
}

// The threshold estimate of a compressed run with the given number of
// threads: the sample row of 1,000,000 cells, its transform and the sort of
// its energies (setup_compression, with the sample row the run driver gives).
void threshold_estimate(benchmark::State& state) {
  const int threads = static_cast<int>(state.range(0));
  one_row r = make_row(100, 100, 100, "daub2");
  const int saved = omp_get_max_threads();
  omp_set_num_threads(threads);
  const mesh_model& m = r.s.mesh;
  const obs_set& obs = r.s.obs;
  const sample_row_fn sample = [&](int32_t, std::vector<double>& g) {
    prism_row_parallel(r.ws, obs.geomag, m.yn.data(), m.xn.data(), m.zn.data(), m.ny, m.nx, m.nz,
                       r.s.top_index.data(), 1, obs.northing[0], obs.easting[0],
                       m.z0 - obs.elevation[0], g.data(), g.size(), quiet);
  };
  for (auto _ : state) {
    const compression c = setup_compression(r.s, "daub2", "1 0.05", sample, quiet);
    benchmark::DoNotOptimize(c.threshold_surface);
  }
  omp_set_num_threads(saved);
  state.SetLabel(std::to_string(threads) + " threads");
}

}  // namespace

BENCHMARK(threshold_estimate)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_compress_row_100k)->DenseRange(0, 4)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_compress_row_target)->DenseRange(0, 4)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_compress_row_300k)->Arg(1)->Arg(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_stored_row_error_100k)->Arg(1)->Arg(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_sens_row_100k)->Unit(benchmark::kMillisecond);
BENCHMARK(transform_only)->Arg(1)->Arg(3)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
