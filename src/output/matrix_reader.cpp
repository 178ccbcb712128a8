// Reading the matrix file back, and applying it as it is stored.
#include "output/matrix_reader.hpp"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <hwy/aligned_allocator.h>
#include <memory>
#include <new>
#include <omp.h>

#include "base/channels.hpp"
#include "base/stop.hpp"
#include "model/active_cells.hpp"
#include "base/vector_target.hpp"
#include "output/product_lanes.hpp"
#include "wavelet/transform.hpp"

static_assert(std::endian::native == std::endian::little,
              "the matrix file is little-endian and is read straight into memory");

namespace quolvent {

namespace {

// record_source: the framed records of one file, read in order.
class record_source {
 public:
  explicit record_source(const std::string& path)
      : f_(std::fopen(path.c_str(), "rb"), &std::fclose) {
    if (!f_) throw format_error("cannot open " + path);
    std::fseek(f_.get(), 0, SEEK_END);
    size_ = std::ftell(f_.get());
    std::rewind(f_.get());
  }

  // next: the payload of the next record, its frames checked.
  std::vector<char> next() {
    ++number_;
    std::vector<char> payload;
    bool first = true;
    for (;;) {
      const int32_t lead = marker();
      if (lead == 0 || lead == INT32_MIN) fail("a frame marker of " + std::to_string(lead));
      const int64_t len = lead < 0 ? -int64_t{lead} : lead;
      if (len > size_ - std::ftell(f_.get())) fail("a frame longer than the rest of the file");
      const std::size_t at = payload.size();
      payload.resize(at + static_cast<std::size_t>(len));
      if (std::fread(payload.data() + at, 1, static_cast<std::size_t>(len), f_.get()) !=
          static_cast<std::size_t>(len))
        fail("cut short");
      const int32_t trail = marker();
      if (trail != (first ? len : -len)) fail("frame markers that disagree");
      first = false;
      if (lead > 0) return payload;
    }
  }

  bool at_end() const { return std::ftell(f_.get()) == size_; }
  int number() const { return number_; }
  [[noreturn]] void fail(const std::string& what) const {
    throw format_error("record " + std::to_string(number_) + ": " + what);
  }

 private:
  int32_t marker() {
    int32_t m = 0;
    if (std::fread(&m, 4, 1, f_.get()) != 1) fail("cut short");
    return m;
  }
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> f_;
  int64_t size_ = 0;
  int number_ = 0;
};

// take: count values of T from the payload at byte offset at.
template <typename T>
std::vector<T> take(const std::vector<char>& p, std::size_t at, std::size_t count) {
  std::vector<T> v(count);
  if (count > 0) std::memcpy(v.data(), p.data() + at, count * sizeof(T));
  return v;
}

void need_size(const record_source& src, const std::vector<char>& p, int64_t bytes) {
  if (static_cast<int64_t>(p.size()) != bytes)
    src.fail(std::to_string(p.size()) + " bytes where " + std::to_string(bytes) + " belong");
}

}  // namespace

matrix_contents read_matrix_file(const std::string& path) {
  record_source src(path);
  matrix_contents m;
  mesh_model& mesh = m.mesh;

  auto p = src.next();
  need_size(src, p, 20);
  const auto sizes = take<int32_t>(p, 0, 5);
  m.ndata = sizes[0], m.n = sizes[1], mesh.ny = sizes[2], mesh.nx = sizes[3], mesh.nz = sizes[4];
  const int64_t ncell = int64_t{mesh.ny} * mesh.nx * mesh.nz;
  if (m.ndata < 0 || m.n < 0 || mesh.ny < 0 || mesh.nx < 0 || mesh.nz < 0 || m.n > ncell)
    src.fail("sizes out of range");
  const std::size_t ny = static_cast<std::size_t>(mesh.ny), nx = static_cast<std::size_t>(mesh.nx),
                    nz = static_cast<std::size_t>(mesh.nz), n = static_cast<std::size_t>(m.n);

  p = src.next();
  need_size(src, p, 8 * (int64_t{mesh.ny} + mesh.nx + mesh.nz + 4));
  mesh.yn = take<double>(p, 0, ny + 1);
  mesh.xn = take<double>(p, 8 * (ny + 1), nx + 1);
  mesh.zn = take<double>(p, 8 * (ny + nx + 2), nz + 1);
  mesh.z0 = take<double>(p, 8 * (ny + nx + nz + 3), 1)[0];
  for (auto [nodes, widths] : {std::pair{&mesh.yn, &mesh.dy}, std::pair{&mesh.xn, &mesh.dx},
                               std::pair{&mesh.zn, &mesh.dz}}) {
    for (std::size_t k = 0; k + 1 < nodes->size(); ++k)
      widths->push_back((*nodes)[k + 1] - (*nodes)[k]);
  }

  p = src.next();
  need_size(src, p, 4 * int64_t{mesh.ny} * mesh.nx);
  m.top_index = take<int32_t>(p, 0, ny * nx);
  int64_t below = 0;
  for (int32_t t : m.top_index) {
    if (t < 0 || t > mesh.nz) src.fail("a column top outside 0.." + std::to_string(mesh.nz));
    below += mesh.nz - t;
  }
  if (below != m.n) src.fail("column tops that leave another number of cells than record 1");

  p = src.next();
  if (p.size() < 4) src.fail("no filter length");
  const int32_t filter_length = take<int32_t>(p, 0, 1)[0];
  if (filter_length < 0 || filter_length > 64)
    src.fail("a filter length of " + std::to_string(filter_length));
  need_size(src, p, 4 + 8 * int64_t{filter_length});
  m.filter = take<double>(p, 4, static_cast<std::size_t>(filter_length));

  p = src.next();
  need_size(src, p, 12);
  const auto padded = take<int32_t>(p, 0, 3);
  m.padded_ny = padded[0], m.padded_nx = padded[1], m.padded_nz = padded[2];
  const bool compressed = filter_length > 0;
  if (compressed ? (m.padded_ny != padded_extent(mesh.ny) ||
                    m.padded_nx != padded_extent(mesh.nx) || m.padded_nz != padded_extent(mesh.nz))
                 : (m.padded_ny != 0 || m.padded_nx != 0 || m.padded_nz != 0))
    src.fail("padded extents that don't belong to the mesh");
  const int64_t cube_size = int64_t{m.padded_ny} * m.padded_nx * m.padded_nz;

  p = src.next();
  need_size(src, p, 4 + 8 * int64_t{m.n});
  m.flag = take<int32_t>(p, 0, 1)[0];
  m.weights = take<double>(p, 4, n);

  if (compressed) {
    m.rows.reserve(std::min<std::size_t>(static_cast<std::size_t>(m.ndata), 1 << 16));
    for (int32_t i = 0; i < m.ndata; ++i) {
      p = src.next();
      if (p.size() < 4) src.fail("no count of coefficients");
      const int32_t nnz = take<int32_t>(p, 0, 1)[0];
      if (nnz < 0 || nnz > cube_size)
        src.fail("a count of " + std::to_string(nnz) + " coefficients");
      need_size(src, p, 4 + 8 * int64_t{nnz});
      compressed_row r;
      r.idx = take<int32_t>(p, 4, static_cast<std::size_t>(nnz));
      r.val = take<float>(p, 4 + 4 * static_cast<std::size_t>(nnz), static_cast<std::size_t>(nnz));
      for (std::size_t k = 0; k < r.idx.size(); ++k) {
        if (r.idx[k] < 1 || r.idx[k] > cube_size || (k > 0 && r.idx[k] <= r.idx[k - 1]))
          src.fail("coefficient positions outside the cube or out of order");
      }
      m.rows.push_back(std::move(r));
    }
  } else {
    for (int32_t i = 0; i < m.ndata; ++i) {
      p = src.next();
      need_size(src, p, 4 * int64_t{m.n});
      const auto row = take<float>(p, 0, n);
      m.full.insert(m.full.end(), row.begin(), row.end());
    }
  }

  p = src.next();
  need_size(src, p, 8 * int64_t{m.n});
  m.squared_sensitivity = take<double>(p, 0, n);
  if (!src.at_end()) throw format_error("bytes after record " + std::to_string(src.number()));
  return m;
}

stored_matrix::stored_matrix(const std::string& path) : m_(read_matrix_file(path)) {
  const run_log quiet(nullptr);
  try {
    cells_ = get_active_cells("null", m_.mesh, m_.top_index, quiet);
  } catch (const stop&) {
    if (m_.n != 0) throw format_error("record 3: column tops that leave no cell");
  }
  if (!m_.compressed()) return;
  c_.compressed = true;
  c_.filter_length = static_cast<int32_t>(m_.filter.size());
  c_.filter = m_.filter;
  c_.filters = set_filters(c_.filter, c_.filter_length);
  c_.ny = m_.mesh.ny, c_.nx = m_.mesh.nx, c_.nz = m_.mesh.nz;
  c_.padded_ny = m_.padded_ny, c_.padded_nx = m_.padded_nx, c_.padded_nz = m_.padded_nz;
  c_.cube_size = int64_t{c_.padded_ny} * c_.padded_nx * c_.padded_nz;
}

int64_t stored_matrix::nnz() const {
  if (!m_.compressed()) return int64_t{m_.n} * m_.ndata;
  int64_t total = 0;
  for (const auto& r : m_.rows) total += static_cast<int64_t>(r.idx.size());
  return total;
}

std::vector<double> stored_matrix::row(int32_t i) const {
  const std::size_t n = static_cast<std::size_t>(m_.n);
  std::vector<double> g(n);
  if (i < 0 || i >= m_.ndata) throw std::out_of_range("no datum " + std::to_string(i));
  if (m_.compressed()) {
    std::vector<double> cube(static_cast<std::size_t>(c_.cube_size), 0.0);
    const compressed_row& r = m_.rows[static_cast<std::size_t>(i)];
    for (std::size_t k = 0; k < r.idx.size(); ++k)
      cube[static_cast<std::size_t>(r.idx[k] - 1)] = static_cast<double>(r.val[k]);
    line_buffers lines;
    transform_cube(c_, cube.data(), -1, lines);
    cube_to_row(c_, cells_, g.data(), m_.n, cube.data());
  } else {
    const float* src = m_.full.data() + static_cast<std::size_t>(i) * n;
    for (std::size_t k = 0; k < n; ++k) g[k] = static_cast<double>(src[k]);
  }
  for (std::size_t k = 0; k < n; ++k) g[k] *= m_.weights[k];
  return g;
}

namespace {

// Columns of a block are taken eight at a time: in the compressed products
// eight cubes side by side (the last group of columns in 1, 2 or 4 when
// fewer are left), in the uncompressed ones the block padded with zero
// columns to a multiple of eight, so that the inner loops have a fixed
// length and run in vector registers.
constexpr std::size_t group = 8;

// column_group: the cubes of a group of a block's columns, side by side:
// columns of them in lanes (the next power of two) places a value.
struct column_group {
  std::size_t columns, lanes;
  hwy::AlignedFreeUniquePtr<double[]> values;
  interleaved_cubes cubes;
};

// cubes_of_group: the group of the columns from g0 of a block of kk, at most
// `group` of them. Fails: std::bad_alloc.
column_group cubes_of_group(const compression& c, std::size_t g0, std::size_t kk) {
  column_group g;
  g.columns = std::min(group, kk - g0);
  g.lanes = std::bit_ceil(g.columns);
  g.values = hwy::AllocateAligned<double>(static_cast<std::size_t>(c.cube_size) * g.lanes);
  if (!g.values) throw std::bad_alloc();
  g.cubes = lanes_of_compression(c, g.values.get(), g.lanes);
  return g;
}

std::size_t padded_width(int32_t k) {
  return (static_cast<std::size_t>(k) + group - 1) / group * group;
}

// Cells, or places of a cube, that one step of a thread's loop covers:
// about 256 KB of the block it reads, so that the block stays in cache
// while every row passes over it (32 KB of the sums it writes).
std::size_t cells_a_step(std::size_t width, std::size_t bytes) {
  return std::max<std::size_t>(1, bytes / (width * sizeof(double)));
}

// columns_of: a block's columns [g0, g0 + columns) as rows x lanes values,
// each row times scale[row] (scale nullptr: as it is), zeros to the right;
// the rows of the calling thread's share of `parts`.
void columns_of(const double* block, std::size_t k, std::size_t g0, std::size_t columns,
                std::size_t lanes, std::size_t rows, const double* scale, std::size_t part,
                std::size_t parts, double* out) {
  const auto [first, last] = share_range(static_cast<int64_t>(rows), part, parts);
  for (std::size_t r = static_cast<std::size_t>(first); r < static_cast<std::size_t>(last); ++r)
    for (std::size_t j = 0; j < lanes; ++j)
      out[r * lanes + j] = j < columns ? (scale ? scale[r] : 1.0) * block[r * k + g0 + j] : 0.0;
}

// thread_share: the calling thread's number and the team's size.
std::pair<std::size_t, std::size_t> thread_share() {
  return {static_cast<std::size_t>(omp_get_thread_num()),
          static_cast<std::size_t>(omp_get_num_threads())};
}

}  // namespace

std::vector<double> stored_matrix::dot(const std::vector<double>& model) const {
  if (model.size() != static_cast<std::size_t>(m_.n))
    throw std::invalid_argument("a model of another length than a row");
  return dot_block(model.data(), 1);
}

std::vector<double> stored_matrix::rdot(const std::vector<double>& v) const {
  if (v.size() != static_cast<std::size_t>(m_.ndata))
    throw std::invalid_argument("a vector of another length than the data");
  return rdot_block(v.data(), 1);
}

std::vector<double> stored_matrix::dot_block(const double* models, int32_t k) const {
  const std::size_t n = static_cast<std::size_t>(m_.n), ndata = static_cast<std::size_t>(m_.ndata);
  const std::size_t kk = static_cast<std::size_t>(k);
  const int64_t target = run_vector_target();
  std::vector<double> d(ndata * kk, 0.0);
  if (m_.compressed()) {
    // An orthogonal transform keeps dot products: the coefficients of each
    // row against the coefficients of the weighted models (G m = (R / w) (w m),
    // w the weights), a group of models' cubes side by side and transformed
    // together, their lines shared among the threads.
    for (std::size_t g0 = 0; g0 < kk; g0 += group) {
      const column_group grp = cubes_of_group(c_, g0, kk);
      const std::size_t columns = grp.columns, lanes = grp.lanes;
      const block_layout weighted{kk, columns, m_.weights.data()};
      std::vector<double> sums(ndata * lanes);
#pragma omp parallel
      {
        const auto [t, threads] = thread_share();
        // Plane by plane: the cells laid in and the lines along z and x
        // transformed while the plane is in cache; then the lines along y.
        line_buffers lines;
        lines.vector_target = target;
        const int64_t planes = c_.ny;
        const auto [y0, y1] = share_range(planes, t, threads);
        for (int64_t y = y0; y < y1; ++y) {
          const std::size_t plane = static_cast<std::size_t>(y), count = static_cast<std::size_t>(planes);
          block_to_cubes(c_, cells_, models + g0, m_.n, weighted, grp.cubes, plane, count);
          transform_axis(c_.filters, grp.cubes, 0, +1, plane, count, lines);
          transform_axis(c_.filters, grp.cubes, 1, +1, plane, count, lines);
        }
#pragma omp barrier
        transform_axis(c_.filters, grp.cubes, 2, +1, t, threads, lines);
#pragma omp barrier
        const auto [i0, i1] = share_range(m_.ndata, t, threads);
        sparse_row_sums(target, m_.rows.data(), static_cast<std::size_t>(i0),
                        static_cast<std::size_t>(i1), grp.values.get(), lanes,
                        sums.data() + static_cast<std::size_t>(i0) * lanes);
      }
      for (std::size_t i = 0; i < ndata; ++i)
        std::copy_n(sums.data() + i * lanes, columns, d.data() + i * kk + g0);
    }
  } else if (k == 1) {
    // Eight partial sums, added in a fixed order: the loop vectorises, and a
    // datum doesn't depend on the thread that computes it.
    std::vector<double> x(n);
    for (std::size_t c = 0; c < n; ++c) x[c] = m_.weights[c] * models[c];
#pragma omp parallel for schedule(static)
    for (int32_t i = 0; i < m_.ndata; ++i) {
      const float* row = m_.full.data() + static_cast<std::size_t>(i) * n;
      double part[group] = {};
      std::size_t c = 0;
      for (; c + group <= n; c += group)
        for (std::size_t l = 0; l < group; ++l)
          part[l] += static_cast<double>(row[c + l]) * x[c + l];
      double s = 0.0;
      for (; c < n; ++c) s += static_cast<double>(row[c]) * x[c];
      for (std::size_t l = 0; l < group; ++l) s += part[l];
      d[static_cast<std::size_t>(i)] = s;
    }
  } else {
    // The block of models is larger than a row (eight doubles a cell against
    // one float): each thread takes its passes of a few rows over one stretch
    // of cells after another, the stretch staying in cache. Each datum's sum
    // still runs over the cells in order, the same bits whatever the threads.
    const std::size_t width = padded_width(k);
    const std::size_t passes = (ndata + rows_per_pass - 1) / rows_per_pass;
    const std::size_t step = cells_a_step(width, 256 << 10);
    std::vector<double> x(n * width), sums(passes * rows_per_pass * width, 0.0);
#pragma omp parallel
    {
      const auto [t, threads] = thread_share();
      columns_of(models, kk, 0, kk, width, n, m_.weights.data(), t, threads, x.data());
#pragma omp barrier
      const auto [first, last] = share_range(static_cast<int64_t>(passes), t, threads);
      for (std::size_t c0 = 0; c0 < n; c0 += step)
        for (std::size_t pass = static_cast<std::size_t>(first); pass < static_cast<std::size_t>(last); ++pass) {
          const float* rows[rows_per_pass];
          for (std::size_t r = 0; r < rows_per_pass; ++r)  // the last pass repeats a row
            rows[r] = m_.full.data() + std::min(pass * rows_per_pass + r, ndata - 1) * n;
          dense_pass_sums(target, rows, x.data(), width, c0, std::min(n, c0 + step),
                          sums.data() + pass * rows_per_pass * width);
        }
    }
    for (std::size_t i = 0; i < ndata; ++i) std::copy_n(sums.data() + i * width, kk, d.data() + i * kk);
  }
  return d;
}

std::vector<double> stored_matrix::rdot_block(const double* v, int32_t k) const {
  const std::size_t n = static_cast<std::size_t>(m_.n), ndata = static_cast<std::size_t>(m_.ndata);
  const std::size_t kk = static_cast<std::size_t>(k);
  const int64_t target = run_vector_target();
  std::vector<double> out(n * kk);
  if (m_.compressed()) {
    // The sum of the rows' coefficients weighted by v, then the inverse
    // transform of each column's cube, a group of cubes side by side. The
    // threads share the cube's places: each place sums the rows in order,
    // whatever the number of threads.
    const std::size_t cube_size = static_cast<std::size_t>(c_.cube_size);
    for (std::size_t g0 = 0; g0 < kk; g0 += group) {
      const column_group grp = cubes_of_group(c_, g0, kk);
      const std::size_t columns = grp.columns, lanes = grp.lanes;
      std::vector<double> w(ndata * lanes);
      const std::size_t step = cells_a_step(lanes, 256 << 10);
      const int64_t steps = static_cast<int64_t>((cube_size + step - 1) / step);
#pragma omp parallel
      {
        const auto [t, threads] = thread_share();
        columns_of(v, kk, g0, columns, lanes, ndata, nullptr, t, threads, w.data());
        const auto [first, last] = share_range(steps, t, threads);
        // Where each row's coefficients in the share begin (the first share:
        // at their start, with no search through them).
        std::vector<std::size_t> cursor(ndata, 0);
        const int64_t p0 = std::min<int64_t>(c_.cube_size, first * static_cast<int64_t>(step));
        for (std::size_t i = 0; p0 > 0 && i < ndata; ++i) {
          const std::vector<int32_t>& idx = m_.rows[i].idx;
          cursor[i] = static_cast<std::size_t>(std::lower_bound(idx.begin(), idx.end(), p0 + 1) -
                                               idx.begin());
        }
#pragma omp barrier
        for (int64_t s = first; s < last; ++s) {
          // The stretch cleared just before its sums, while it is in cache.
          const std::size_t begin = static_cast<std::size_t>(s) * step;
          const std::size_t end = std::min(cube_size, begin + step);
          std::fill(grp.values.get() + begin * lanes, grp.values.get() + end * lanes, 0.0);
          sparse_rows_add(target, m_.rows.data(), ndata, w.data(), lanes, cursor.data(),
                          static_cast<int32_t>(end), grp.values.get());
        }
        line_buffers lines;
        lines.vector_target = target;
#pragma omp barrier
        const int64_t planes = c_.padded_ny;
        const auto [y0, y1] = share_range(planes, t, threads);
        for (int64_t y = y0; y < y1; ++y)
          for (int axis = 0; axis < 2; ++axis)
            transform_axis(c_.filters, grp.cubes, axis, -1, static_cast<std::size_t>(y),
                           static_cast<std::size_t>(planes), lines);
#pragma omp barrier
        transform_axis(c_.filters, grp.cubes, 2, -1, t, threads, lines);
#pragma omp barrier
        cubes_to_block(c_, cells_, out.data() + g0, m_.n, {kk, columns, m_.weights.data()},
                       grp.cubes, t, threads);
      }
    }
  } else if (k == 1) {
    // Each thread owns a stretch of cells and runs down the rows over it:
    // the stored rows are read along memory, and each cell's sum runs over
    // the data in order whatever the thread count.
#pragma omp parallel
    {
      const auto [t, threads] = thread_share();
      const auto [first, last] = share_range(m_.n, t, threads);
      for (std::size_t i = 0; i < ndata; ++i) {
        const float* row = m_.full.data() + i * n;
        for (std::size_t c = static_cast<std::size_t>(first); c < static_cast<std::size_t>(last); ++c)
          out[c] += v[i] * static_cast<double>(row[c]);
      }
      for (std::size_t c = static_cast<std::size_t>(first); c < static_cast<std::size_t>(last); ++c)
        out[c] *= m_.weights[c];
    }
  } else {
    // Each thread owns a stretch of cells, a few at a time so that their
    // sums stay in cache, and runs down the rows over them a pass of a few
    // rows at a time, the rows' order kept: each cell's sum runs over the
    // data in order whatever the thread count.
    const std::size_t width = padded_width(k);
    const std::size_t passes = (ndata + rows_per_pass - 1) / rows_per_pass;
    const std::size_t step = cells_a_step(width, 32 << 10);
    std::vector<double> w(passes * rows_per_pass * width, 0.0), g(n * width, 0.0);
    columns_of(v, kk, 0, kk, width, ndata, nullptr, 0, 1, w.data());
#pragma omp parallel
    {
      const auto [t, threads] = thread_share();
      const auto [first, last] = share_range(m_.n, t, threads);
      for (std::size_t c0 = static_cast<std::size_t>(first); c0 < static_cast<std::size_t>(last); c0 += step)
        for (std::size_t pass = 0; pass < passes; ++pass) {
          const float* rows[rows_per_pass];
          for (std::size_t r = 0; r < rows_per_pass; ++r)  // past the last row: a row times 0
            rows[r] = m_.full.data() + std::min(pass * rows_per_pass + r, ndata - 1) * n;
          dense_pass_add(target, rows, w.data() + pass * rows_per_pass * width, width, c0,
                         std::min(static_cast<std::size_t>(last), c0 + step), g.data());
        }
      for (std::size_t c = static_cast<std::size_t>(first); c < static_cast<std::size_t>(last); ++c)
        for (std::size_t j = 0; j < kk; ++j) out[c * kk + j] = g[c * width + j] * m_.weights[c];
    }
  }
  return out;
}

std::vector<float> stored_matrix::dense() const {
  const std::size_t n = static_cast<std::size_t>(m_.n);
  std::vector<float> out(static_cast<std::size_t>(m_.ndata) * n);
#pragma omp parallel for schedule(static)
  for (int32_t i = 0; i < m_.ndata; ++i) {
    const std::vector<double> g = row(i);
    std::copy(g.begin(), g.end(),
              out.begin() + static_cast<std::ptrdiff_t>(static_cast<std::size_t>(i) * n));
  }
  return out;
}

}  // namespace quolvent
