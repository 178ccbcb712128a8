// The rows of a run on one device: the host's part, the batches and what
// comes back of them.
#include "run/gpu/device_engine.hpp"

#include <cuda_runtime.h>

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "base/stop.hpp"
#include "model/mesh.hpp"
#include "run/device_rows.hpp"
#include "run/gpu/device_kernels.cuh"
#include "sens/grid_row_loop.hpp"
#include "sens/prism_row.hpp"
#include "wavelet/compress_row.hpp"

namespace quolvent {

namespace {

// check: a failed call of the device's runtime stops the run with its words.
void check(cudaError_t e, const char* what) {
  if (e == cudaSuccess) return;
  stop_report({"", std::string("ERROR: the device failed in ") + what + ": " +
                       cudaGetErrorString(e),
               ""});
}

// device_array: count values on the device, freed with it.
template <typename T>
class device_array {
 public:
  device_array() = default;
  explicit device_array(std::size_t count) : count_(count) {
    if (count > 0) check(cudaMalloc(reinterpret_cast<void**>(&p_), count * sizeof(T)), "cudaMalloc");
  }
  device_array(const device_array&) = delete;
  device_array& operator=(const device_array&) = delete;
  device_array(device_array&& o) noexcept { *this = std::move(o); }
  device_array& operator=(device_array&& o) noexcept {
    std::swap(p_, o.p_);
    std::swap(count_, o.count_);
    return *this;
  }
  ~device_array() {
    if (p_ != nullptr) cudaFree(p_);
  }
  T* get() const { return p_; }
  // upload: the host's values, now.
  void upload(const std::vector<T>& v) {
    if (!v.empty())
      check(cudaMemcpy(p_, v.data(), v.size() * sizeof(T), cudaMemcpyHostToDevice), "cudaMemcpy");
  }

 private:
  T* p_ = nullptr;
  std::size_t count_ = 0;
};

// host_array: count values in page-locked host memory, which the copies
// from the device run into while the device computes.
template <typename T>
class host_array {
 public:
  host_array() = default;
  explicit host_array(std::size_t count) { grow(count); }
  host_array(const host_array&) = delete;
  host_array& operator=(const host_array&) = delete;
  ~host_array() {
    if (p_ != nullptr) cudaFreeHost(p_);
  }
  void grow(std::size_t count) {
    if (count <= count_) return;
    if (p_ != nullptr) cudaFreeHost(p_);
    p_ = nullptr;
    count_ = 0;
    check(cudaMallocHost(reinterpret_cast<void**>(&p_), count * sizeof(T)), "cudaMallocHost");
    count_ = count;
  }
  T* get() const { return p_; }

 private:
  T* p_ = nullptr;
  std::size_t count_ = 0;
};

// slot: one batch in flight: its stream, its device arrays and the host
// arrays its results come back to.
struct slot {
  cudaStream_t stream = nullptr;
  device_array<node_value> nodes;
  device_array<double> g, test_datum, group_avg, group_sq, cube, lines, energy, lost;
  device_array<int32_t> flagged, kept_idx, counts, packed_idx;
  device_array<float> kept_val, packed_val;
  device_array<int64_t> offsets;
  host_array<int32_t> h_flagged, h_counts, h_idx;
  host_array<double> h_test_datum, h_energy, h_lost, h_avg, h_sq, h_rows;
  host_array<int64_t> h_offsets;
  host_array<float> h_val;
  int32_t first = 0, count = 0;

  slot() { check(cudaStreamCreate(&stream), "cudaStreamCreate"); }
  slot(const slot&) = delete;
  slot& operator=(const slot&) = delete;
  ~slot() {
    cudaStreamSynchronize(stream);
    cudaStreamDestroy(stream);
  }
  device_batch batch() const {
    return {nodes.get(),   g.get(),       flagged.get(),  test_datum.get(),
            group_avg.get(), group_sq.get(), cube.get(),  lines.get(),
            kept_idx.get(), kept_val.get(), counts.get(),  offsets.get(),
            energy.get(),  lost.get(),    packed_idx.get(), packed_val.get()};
  }
};

// copy_back: count values from the device to the host, on the stream.
template <typename T>
void copy_back(T* host, const T* dev, std::size_t count, cudaStream_t stream) {
  if (count > 0)
    check(cudaMemcpyAsync(host, dev, count * sizeof(T), cudaMemcpyDeviceToHost, stream),
          "cudaMemcpyAsync");
}

line_filters filters_of(const compression& c) {
  line_filters f{};
  if (c.filters.filter_length > max_filter_length) stop_text("filter longer than the device's");
  f.length = c.filters.filter_length;
  f.tap_offset = c.filters.tap_offset;
  for (int32_t k = 0; k < f.length; ++k) {
    f.low[k] = c.filters.low_pass[static_cast<std::size_t>(k)];
    f.high[k] = c.filters.high_pass[static_cast<std::size_t>(k)];
  }
  return f;
}

}  // namespace

device_engine::device_engine(int device) {
  int count = 0;
  const cudaError_t e = cudaGetDeviceCount(&count);
  if (e != cudaSuccess || count == 0) {
    error_ = e != cudaSuccess ? cudaGetErrorString(e) : "no device";
    return;
  }
  device_ = device % count;
  cudaDeviceProp prop{};
  if (cudaGetDeviceProperties(&prop, device_) != cudaSuccess) {
    error_ = "no properties";
    return;
  }
  name_ = prop.name;
  total_bytes_ = static_cast<int64_t>(prop.totalGlobalMem);
}

std::string device_engine::banner_line() const {
  if (!error_.empty())
    stop_report({"", "ERROR: quolvent-gpu found no CUDA device (" + error_ + ").",
                 "       The plain quolvent makes the same rows on the CPU.", ""});
  return device_banner(name_, total_bytes_);
}

void device_engine::make_rows(const survey& s, const grid_survey& grid, const compression& c,
                              store_sink& sink, row_range rows, row_sums& sums,
                              const run_log& out) {
  banner_line();  // no device: the stop
  check(cudaSetDevice(device_), "cudaSetDevice");
  const mesh_model& mesh = s.mesh;
  const int32_t n = s.n, ndata = s.obs.ndata;
  const std::size_t nn = static_cast<std::size_t>(std::max(n, 0));
  if (s.weights.size() < nn) stop_text("size(weights) /= n");
  if (rows.first < 0 || rows.last > ndata) stop_text("rows outside the data");
  shift_plan shifts;
  const bool regular = grid.regular && plan_grid(s, grid, shifts, out);
  begin_rows(sink, n, ndata, regular ? "kernel2" : "kernel", sums, out);
  const double test_model = sink.test_model();
  row_loop loop(out, ndata, sums);
  if (rows.count() == 0 || n <= 0) {
    loop.progress.finish();
    return;
  }

  // What every batch reads, on the host first.
  const std::vector<int32_t> corner = cell_corner_nodes(mesh, s.top_index);
  if (corner.size() != nn) stop_text("indx /= size(g)");
  const std::vector<device_datum> data = device_data(s, rows);
  const std::size_t nrows = static_cast<std::size_t>(rows.count());
  std::vector<double> gbig;
  std::vector<int64_t> base(nrows, 0);
  if (regular) {
    gbig = reference_cube(s, grid, shifts, out);
    for (std::size_t r = 0; r < nrows; ++r) {
      const std::size_t d = static_cast<std::size_t>(rows.first) + r;
      base[r] = (int64_t{shifts.iy[d] + shifts.hy} * shifts.nx2 + shifts.ix[d] + shifts.hx) *
                mesh.nz;
    }
  }
  std::vector<int64_t> places;
  std::vector<double> threshold(nrows, 0.0);
  if (c.compressed) {
    places = cube_places(c, s.cells, n);
    for (std::size_t r = 0; r < nrows; ++r)
      threshold[r] = s.datum_kinds[static_cast<std::size_t>(rows.first) + r] == datum_kind::borehole
                         ? c.threshold_borehole
                         : c.threshold_surface;
  }

  // The plan of batches from the device's free memory.
  const int64_t nodes =
      regular ? 0 : int64_t{mesh.nz + 1} * (mesh.nx + 1) * (mesh.ny + 1);
  device_needs need;
  need.n = n;
  need.nodes = nodes;
  need.cube = c.compressed ? c.cube_size : 0;
  need.fixed = 8 * int64_t{mesh.ny + mesh.nx + mesh.nz + 3} + 20 * int64_t{n} +
               static_cast<int64_t>(nrows * (sizeof(device_datum) + 16)) +
               8 * static_cast<int64_t>(gbig.size());
  std::size_t free_bytes = 0, total_bytes = 0;
  check(cudaMemGetInfo(&free_bytes, &total_bytes), "cudaMemGetInfo");
  const batch_plan plan =
      plan_batches(need, static_cast<int64_t>(free_bytes), rows.count(), forced_batch_rows());
  out.say_log(batch_line(plan, static_cast<int64_t>(free_bytes)));

  device_array<double> yn(mesh.yn.size()), xn(mesh.xn.size()), zn(mesh.zn.size()), weights(nn);
  device_array<int32_t> corner_d(nn);
  device_array<int64_t> places_d(places.size()), base_d(nrows);
  device_array<device_datum> data_d(nrows);
  device_array<double> gbig_d(gbig.size()), threshold_d(nrows);
  yn.upload(mesh.yn);
  xn.upload(mesh.xn);
  zn.upload(mesh.zn);
  weights.upload(std::vector<double>(s.weights.begin(), s.weights.begin() + n));
  corner_d.upload(corner);
  places_d.upload(places);
  base_d.upload(base);
  data_d.upload(data);
  gbig_d.upload(gbig);
  threshold_d.upload(threshold);
  const device_mesh m{yn.get(), xn.get(), zn.get(), corner_d.get(), places_d.get(),
                      weights.get(), mesh.ny, mesh.nx, mesh.nz, n};
  const line_filters filters = c.compressed ? filters_of(c) : line_filters{};

  // Two batches in flight.
  const std::size_t b = static_cast<std::size_t>(plan.rows);
  const int32_t group = sum_group_rows(ndata);
  const std::size_t groups = b / static_cast<std::size_t>(group) + 1;
  const std::size_t cube = c.compressed ? static_cast<std::size_t>(c.cube_size) : 0;
  const std::size_t exact_rows = b / exact_error_stride + 1;
  slot slots[2];
  for (slot& sl : slots) {
    sl.nodes = device_array<node_value>(b * static_cast<std::size_t>(nodes));
    sl.g = device_array<double>(b * nn);
    sl.flagged = device_array<int32_t>(b);
    sl.test_datum = device_array<double>(b);
    sl.group_avg = device_array<double>(groups * nn);
    sl.group_sq = device_array<double>(groups * nn);
    sl.h_flagged.grow(b);
    sl.h_test_datum.grow(b);
    sl.h_avg.grow(groups * nn);
    sl.h_sq.grow(groups * nn);
    sl.h_rows.grow((c.compressed ? exact_rows : b) * nn);
    if (c.compressed) {
      sl.cube = device_array<double>(b * cube);
      // The work lines hold each row's limit and scale after the transform.
      sl.lines = device_array<double>(b * std::max<std::size_t>(cube, 2));
      sl.kept_idx = device_array<int32_t>(b * cube);
      sl.kept_val = device_array<float>(b * cube);
      sl.packed_idx = device_array<int32_t>(b * cube);
      sl.packed_val = device_array<float>(b * cube);
      sl.counts = device_array<int32_t>(b);
      sl.offsets = device_array<int64_t>(b + 1);
      sl.energy = device_array<double>(b);
      sl.lost = device_array<double>(b);
      sl.h_counts.grow(b);
      sl.h_offsets.grow(b + 1);
      sl.h_energy.grow(b);
      sl.h_lost.grow(b);
    }
  }

  const double length_scale = mesh_length_scale(mesh);
  const double scale = s.obs.geomag / 12.566370614359172;
  const auto enqueue = [&](int32_t k, slot& sl) {
    sl.first = rows.first + k * plan.rows;
    sl.count = std::min(plan.rows, rows.last - sl.first);
    const std::size_t off = static_cast<std::size_t>(sl.first - rows.first);
    const std::size_t cnt = static_cast<std::size_t>(sl.count);
    const device_batch db = sl.batch();
    if (regular)
      launch_grid_rows(m, gbig_d.get(), base_d.get() + off, shifts.nx2, sl.count, db, sl.stream);
    else
      launch_general_rows(m, data_d.get() + off, sl.count, zero_offset(length_scale),
                          edge_guard_sq(length_scale), scale, db, sl.stream);
    launch_finish_rows(m, sl.count, sl.first, group, test_model, db, sl.stream);
    check(cudaGetLastError(), "a row kernel");
    copy_back(sl.h_flagged.get(), db.flagged, cnt, sl.stream);
    copy_back(sl.h_avg.get(), db.group_avg, groups * nn, sl.stream);
    copy_back(sl.h_sq.get(), db.group_sq, groups * nn, sl.stream);
    if (!c.compressed) {
      copy_back(sl.h_rows.get(), db.g, cnt * nn, sl.stream);
      return;
    }
    launch_compress_rows(m, filters, sl.count, c.padded_ny, c.padded_nx, c.padded_nz,
                         threshold_d.get() + off, db, sl.stream);
    check(cudaGetLastError(), "a compression kernel");
    copy_back(sl.h_test_datum.get(), db.test_datum, cnt, sl.stream);
    copy_back(sl.h_counts.get(), db.counts, cnt, sl.stream);
    copy_back(sl.h_offsets.get(), db.offsets, cnt + 1, sl.stream);
    copy_back(sl.h_energy.get(), db.energy, cnt, sl.stream);
    copy_back(sl.h_lost.get(), db.lost, cnt, sl.stream);
    // The rows whose stored record's exact error is measured come back whole.
    for (int32_t r = 0; r < sl.count; ++r)
      if (exact_error_row(sl.first + r))
        copy_back(sl.h_rows.get() + static_cast<std::size_t>(r / exact_error_stride) * nn,
                  db.g + static_cast<std::size_t>(r) * nn, nn, sl.stream);
  };

  std::unique_ptr<row_sink::thread_part> part = sink.open_thread();
  row_workspace messages = make_row_workspace(survey_directions(s.obs), length_scale);
  std::vector<double> scratch;
  const auto consume = [&](slot& sl) {
    check(cudaStreamSynchronize(sl.stream), "a batch of rows");
    const std::size_t cnt = static_cast<std::size_t>(sl.count);
    if (c.compressed) {
      const std::size_t total = static_cast<std::size_t>(sl.h_offsets.get()[cnt]);
      sl.h_idx.grow(total);
      sl.h_val.grow(total);
      copy_back(sl.h_idx.get(), sl.packed_idx.get(), total, sl.stream);
      copy_back(sl.h_val.get(), sl.packed_val.get(), total, sl.stream);
      check(cudaStreamSynchronize(sl.stream), "the kept coefficients");
    }
    for (int32_t r = 0; r < sl.count; ++r) {
      const int32_t datum = sl.first + r;
      const std::size_t ur = static_cast<std::size_t>(r);
      // Cells without a value got 0 on the device; their messages are the
      // CPU's, from its own walk over this datum's cells, in cell order.
      if (sl.h_flagged.get()[ur] > 0) {
        const std::size_t d = static_cast<std::size_t>(datum);
        scratch.assign(nn, 0.0);
        if (s.obs.idir == 0)
          messages.dir = field_directions(s.obs.incl, s.obs.decl, s.obs.datum_aincl[d],
                                          s.obs.datum_adecl[d]);
        prism_row(messages, s.obs.geomag, mesh.yn.data(), mesh.xn.data(), mesh.zn.data(), mesh.ny,
                  mesh.nx, mesh.nz, s.top_index.data(), datum + 1, s.obs.northing[d],
                  s.obs.easting[d], mesh.z0 - s.obs.elevation[d], scratch.data(), nn, out);
      }
      if (c.compressed) {
        compressed_row rec;
        const int64_t at = sl.h_offsets.get()[ur];
        take_record(sl.h_idx.get() + at, sl.h_val.get() + at, sl.h_counts.get()[ur], c.cube_size,
                    rec);
        const double energy = sl.h_energy.get()[ur], lost = sl.h_lost.get()[ur];
        const double* whole =
            exact_error_row(datum)
                ? sl.h_rows.get() + static_cast<std::size_t>(r / exact_error_stride) * nn
                : nullptr;
        sink.put_record(*part, datum, std::move(rec), energy == 0.0 ? 0.0 : std::sqrt(lost / energy),
                        sl.h_test_datum.get()[ur], whole);
      } else {
        const double* row = sl.h_rows.get() + ur * nn;
        if (float* col = sink.full_column(*part, datum)) {
          for (std::size_t k = 0; k < nn; ++k) col[k] = static_cast<float>(row[k]);
          sink.full_done(*part, datum);
        } else {
          sink.put(*part, datum, row, 0.0);
        }
      }
      loop.progress.row_done();
    }
    // The sums of each group of data, as the CPU's threads add them.
    const int32_t lead = sl.first % group;
    for (int32_t grp = 0; grp * group - lead < sl.count; ++grp) {
      loop.avg.add_and_clear(sl.h_avg.get() + static_cast<std::size_t>(grp) * nn, grp);
      loop.sq.add_and_clear(sl.h_sq.get() + static_cast<std::size_t>(grp) * nn, grp);
    }
    out.check_interrupt();
  };

  // One batch computes while the one before comes back and is stored.
  for (int32_t k = 0; k < plan.batches; ++k) {
    enqueue(k, slots[k % 2]);
    if (k > 0) consume(slots[(k - 1) % 2]);
  }
  consume(slots[(plan.batches - 1) % 2]);
  sink.close_thread(*part);
  loop.progress.finish();
}

}  // namespace quolvent
