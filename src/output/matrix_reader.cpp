// Reading the matrix file back, and applying it as it is stored.
#include "output/matrix_reader.hpp"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <memory>
#include <omp.h>

#include "base/channels.hpp"
#include "base/stop.hpp"
#include "model/active_cells.hpp"
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

// Columns of a block are taken eight at a time, the block padded with zero
// columns to a multiple of eight, so that the innermost loop has a fixed
// length and runs in vector registers.
constexpr std::size_t group = 8;
// Rows that share one pass over a block of columns in the products of the
// rows kept whole.
constexpr std::size_t rows_per_pass = 6;

std::size_t padded_width(int32_t k) {
  return (static_cast<std::size_t>(k) + group - 1) / group * group;
}

// padded: a block of rows x k values as rows x width, zeros to the right,
// each value times scale[row] (scale nullptr: as it is).
std::vector<double> padded(const double* block, std::size_t rows, int32_t k, std::size_t width,
                           const double* scale) {
  std::vector<double> out(rows * width, 0.0);
  const std::size_t kk = static_cast<std::size_t>(k);
  for (std::size_t r = 0; r < rows; ++r)
    for (std::size_t j = 0; j < kk; ++j)
      out[r * width + j] = (scale ? scale[r] : 1.0) * block[r * kk + j];
  return out;
}

// add_group: out[0..8) += value * in[0..8).
inline void add_group(double* out, double value, const double* in) {
  for (std::size_t j = 0; j < group; ++j) out[j] += value * in[j];
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
  const std::size_t kk = static_cast<std::size_t>(k), width = k == 1 ? 1 : padded_width(k);
  // G m = (R / w) (w m), w the weights: the stored rows against the weighted models.
  const std::vector<double> x = padded(models, n, k, width, m_.weights.data());
  std::vector<double> d(ndata * kk, 0.0);
  if (m_.compressed()) {
    // An orthogonal transform keeps dot products: the coefficients of each
    // row against the coefficients of the weighted models, their cubes
    // interleaved so that one kept position reads its neighbours.
    const std::size_t cube_size = static_cast<std::size_t>(c_.cube_size);
    std::vector<double> cubes(cube_size * width);
#pragma omp parallel
    {
      line_buffers lines;
      std::vector<double> cube(cube_size), column(n);
#pragma omp for schedule(static)
      for (int32_t j = 0; j < k; ++j) {
        std::fill(cube.begin(), cube.end(), 0.0);
        for (std::size_t c = 0; c < n; ++c) column[c] = x[c * width + static_cast<std::size_t>(j)];
        row_to_cube(c_, cells_, column.data(), m_.n, cube.data());
        transform_cube(c_, cube.data(), +1, lines);
        for (std::size_t p = 0; p < cube_size; ++p)
          cubes[p * width + static_cast<std::size_t>(j)] = cube[p];
      }
    }
#pragma omp parallel for schedule(static)
    for (int32_t i = 0; i < m_.ndata; ++i) {
      const compressed_row& r = m_.rows[static_cast<std::size_t>(i)];
      double* out = d.data() + static_cast<std::size_t>(i) * kk;
      if (k == 1) {
        double s = 0.0;
        for (std::size_t p = 0; p < r.idx.size(); ++p)
          s += static_cast<double>(r.val[p]) * cubes[static_cast<std::size_t>(r.idx[p] - 1)];
        out[0] = s;
        continue;
      }
      for (std::size_t g0 = 0; g0 < width; g0 += group) {
        double sum[group] = {};
        for (std::size_t p = 0; p < r.idx.size(); ++p)
          add_group(sum, static_cast<double>(r.val[p]),
                    cubes.data() + static_cast<std::size_t>(r.idx[p] - 1) * width + g0);
        for (std::size_t j = g0; j < std::min(g0 + group, kk); ++j) out[j] = sum[j - g0];
      }
    }
  } else if (k == 1) {
    // Eight partial sums, added in a fixed order: the loop vectorises, and a
    // datum doesn't depend on the thread that computes it.
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
    // one float), so a few rows share each pass over it. Each datum's sum
    // still runs over the cells in order, the same bits as one row alone.
    const int32_t tiles = (m_.ndata + rows_per_pass - 1) / rows_per_pass;
#pragma omp parallel for schedule(static)
    for (int32_t t = 0; t < tiles; ++t) {
      const std::size_t first = static_cast<std::size_t>(t) * rows_per_pass;
      const float* rows[rows_per_pass];
      for (std::size_t r = 0; r < rows_per_pass; ++r)
        rows[r] = m_.full.data() + std::min(first + r, ndata - 1) * n;  // the last pass repeats a row
      for (std::size_t g0 = 0; g0 < width; g0 += group) {
        double sum[rows_per_pass][group] = {};
        for (std::size_t c = 0; c < n; ++c) {
          const double* xc = x.data() + c * width + g0;
          for (std::size_t r = 0; r < rows_per_pass; ++r)
            add_group(sum[r], static_cast<double>(rows[r][c]), xc);
        }
        for (std::size_t r = 0; r < rows_per_pass && first + r < ndata; ++r)
          for (std::size_t j = g0; j < std::min(g0 + group, kk); ++j)
            d[(first + r) * kk + j] = sum[r][j - g0];
      }
    }
  }
  return d;
}

std::vector<double> stored_matrix::rdot_block(const double* v, int32_t k) const {
  const std::size_t n = static_cast<std::size_t>(m_.n), ndata = static_cast<std::size_t>(m_.ndata);
  const std::size_t kk = static_cast<std::size_t>(k), width = k == 1 ? 1 : padded_width(k);
  const std::vector<double> w = padded(v, ndata, k, width, nullptr);
  std::vector<double> g(n * width, 0.0);
  if (m_.compressed()) {
    // The sum of the rows' coefficients weighted by v, then one inverse
    // transform per column. Each thread sums its share of the rows into
    // cubes of its own; they are added in thread order, so the result
    // doesn't depend on which thread finishes first.
    const std::size_t cube_size = static_cast<std::size_t>(c_.cube_size);
    std::vector<std::vector<double>> parts;
#pragma omp parallel
    {
#pragma omp single
      parts.resize(static_cast<std::size_t>(omp_get_num_threads()));
      std::vector<double>& cubes = parts[static_cast<std::size_t>(omp_get_thread_num())];
      cubes.assign(cube_size * width, 0.0);
#pragma omp for schedule(static)
      for (int32_t i = 0; i < m_.ndata; ++i) {
        const compressed_row& r = m_.rows[static_cast<std::size_t>(i)];
        const double* wi = w.data() + static_cast<std::size_t>(i) * width;
        for (std::size_t p = 0; p < r.idx.size(); ++p) {
          const std::size_t place = static_cast<std::size_t>(r.idx[p] - 1) * width;
          const double value = static_cast<double>(r.val[p]);
          if (k == 1)
            cubes[place] += value * wi[0];
          else
            for (std::size_t g0 = 0; g0 < width; g0 += group)
              add_group(cubes.data() + place + g0, value, wi + g0);
        }
      }
    }
    std::vector<double>& total = parts[0];
    for (std::size_t t = 1; t < parts.size(); ++t)
      for (std::size_t p = 0; p < total.size(); ++p) total[p] += parts[t][p];
#pragma omp parallel
    {
      line_buffers lines;
      std::vector<double> cube(cube_size), column(n);
#pragma omp for schedule(static)
      for (int32_t j = 0; j < k; ++j) {
        for (std::size_t p = 0; p < cube_size; ++p)
          cube[p] = total[p * width + static_cast<std::size_t>(j)];
        transform_cube(c_, cube.data(), -1, lines);
        cube_to_row(c_, cells_, column.data(), m_.n, cube.data());
        for (std::size_t c = 0; c < n; ++c) g[c * width + static_cast<std::size_t>(j)] = column[c];
      }
    }
  } else {
    // Each thread owns a stretch of cells and runs down the rows over it:
    // the stored rows are read along memory, and each cell's sum runs over
    // the data in order whatever the thread count.
#pragma omp parallel
    {
      const std::size_t threads = static_cast<std::size_t>(omp_get_num_threads());
      const std::size_t t = static_cast<std::size_t>(omp_get_thread_num());
      const std::size_t first = n * t / threads, last = n * (t + 1) / threads;
      for (std::size_t i = 0; i < ndata; ++i) {
        const float* row = m_.full.data() + i * n;
        const double* wi = w.data() + i * width;
        if (k == 1) {
          const double scale = wi[0];
          for (std::size_t c = first; c < last; ++c) g[c] += scale * static_cast<double>(row[c]);
        } else if (i + rows_per_pass <= ndata) {
          // A few rows in one pass over the thread's cells (their sums are
          // eight doubles a cell), added in the rows' order as one at a time.
          for (std::size_t c = first; c < last; ++c)
            for (std::size_t g0 = 0; g0 < width; g0 += group) {
              double* gc = g.data() + c * width + g0;
              for (std::size_t r = 0; r < rows_per_pass; ++r)
                add_group(gc, static_cast<double>(row[r * n + c]), wi + r * width + g0);
            }
          i += rows_per_pass - 1;
        } else {
          for (std::size_t c = first; c < last; ++c)
            for (std::size_t g0 = 0; g0 < width; g0 += group)
              add_group(g.data() + c * width + g0, static_cast<double>(row[c]), wi + g0);
        }
      }
    }
  }
  std::vector<double> out(n * kk);
  for (std::size_t c = 0; c < n; ++c)
    for (std::size_t j = 0; j < kk; ++j) out[c * kk + j] = g[c * width + j] * m_.weights[c];
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
