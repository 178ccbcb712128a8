// The kernels of rows on a device. One thread per node, cell or line of a
// batch of rows; reductions per row in one block of fixed size, so that two
// runs give the same bits.
#include "run/gpu/device_kernels.cuh"

#include <cub/block/block_reduce.cuh>
#include <cub/block/block_scan.cuh>

#include "base/row_range.hpp"
#include "sens/prism_cell.hpp"

namespace quolvent {

namespace {

constexpr int threads = 256;

int blocks_for(int64_t work) {
  const int64_t b = (work + threads - 1) / threads;
  return static_cast<int>(b < 65535 * 64 ? (b > 0 ? b : 1) : 65535 * 64);
}

// The lower corner node of a cell as its 0-based indices along z, x, y.
struct corner_of {
  int64_t k, i, j;
  __device__ corner_of(int32_t c, int64_t ez, int64_t ex) : k(c % ez), i((c / ez) % ex), j(c / ez / ex) {}
};

__global__ void node_kernel(device_mesh m, const device_datum* data, int32_t count, double shift,
                            node_value* nodes) {
  const int64_t ez = m.nz + 1, ex = m.nx + 1, per = ez * ex * (m.ny + 1);
  for (int64_t q = blockIdx.x * int64_t{blockDim.x} + threadIdx.x; q < count * per;
       q += int64_t{gridDim.x} * blockDim.x) {
    const int64_t r = q / per, p = q % per;
    const int64_t k = p % ez, i = (p / ez) % ex, j = p / ez / ex;
    const device_datum& d = data[r];
    nodes[q] = node_at(m.yn[j] - d.oy, m.xn[i] - d.ox, m.zn[k] - d.oz, shift);
  }
}

__global__ void cell_kernel(device_mesh m, const device_datum* data, int32_t count,
                            double edge_sq, double scale, const node_value* nodes, double* g,
                            int32_t* flagged) {
  const int64_t ez = m.nz + 1, ex = m.nx + 1, per = ez * ex * (m.ny + 1);
  for (int64_t q = blockIdx.x * int64_t{blockDim.x} + threadIdx.x; q < count * m.n;
       q += int64_t{gridDim.x} * blockDim.x) {
    const int64_t r = q / m.n, p = q % m.n;
    const corner_of c(m.corner[p], ez, ex);
    const device_datum& d = data[r];
    const node_value* at = nodes + r * per;
    cell_corners cc;
    for (int a = 0; a < 2; ++a)
      for (int b = 0; b < 2; ++b)
        for (int z = 0; z < 2; ++z) cc.v[a][b][z] = at[((c.j + a) * ex + c.i + b) * ez + c.k + z];
    const cell_offsets o{m.yn[c.j] - d.oy, m.yn[c.j + 1] - d.oy, m.xn[c.i] - d.ox,
                         m.xn[c.i + 1] - d.ox, m.zn[c.k] - d.oz, m.zn[c.k + 1] - d.oz};
    double v = 0.0;
    if (!cell_value(cc, o, edge_sq, d.dir, scale, v)) {
      v = 0.0;
      atomicAdd(flagged + r, 1);
    }
    g[q] = v;
  }
}

__global__ void grid_kernel(device_mesh m, const double* gbig, const int64_t* base, int32_t nx2,
                            int32_t count, double* g) {
  const int64_t ez = m.nz + 1, ex = m.nx + 1;
  for (int64_t q = blockIdx.x * int64_t{blockDim.x} + threadIdx.x; q < count * m.n;
       q += int64_t{gridDim.x} * blockDim.x) {
    const int64_t r = q / m.n, p = q % m.n;
    const corner_of c(m.corner[p], ez, ex);
    g[q] = gbig[base[r] + (c.j * nx2 + c.i) * m.nz + c.k];
  }
}

__global__ void test_datum_kernel(int64_t n, double test_model, const double* g, double* out) {
  using reduce = cub::BlockReduce<double, threads>;
  __shared__ typename reduce::TempStorage temp;
  const double* row = g + blockIdx.x * n;
  double s = 0.0;
  for (int64_t p = threadIdx.x; p < n; p += threads) s += test_model * row[p];
  const double total = reduce(temp).Sum(s);
  if (threadIdx.x == 0) out[blockIdx.x] = total;
}

// The rows of each group in datum order, as a thread of the CPU loops adds
// them: |row| before the weighting, then the weighted row and its square.
__global__ void sums_kernel(device_mesh m, int32_t count, int32_t first_datum, int32_t group,
                            double* g, double* group_avg, double* group_sq) {
  const int64_t groups = (count + group - 1) / group + 1;
  for (int64_t q = blockIdx.x * int64_t{blockDim.x} + threadIdx.x; q < groups * m.n;
       q += int64_t{gridDim.x} * blockDim.x) {
    const int64_t grp = q / m.n, p = q % m.n;
    // Groups by datum: the batch's first may start inside one.
    const int64_t lead = first_datum % group;
    const int64_t r0 = grp == 0 ? 0 : grp * group - lead;
    const int64_t r1 = min(static_cast<int64_t>(count), (grp + 1) * group - lead);
    double a = 0.0, s = 0.0;
    for (int64_t r = r0; r < r1; ++r) {
      const double u = g[r * m.n + p];
      a += fabs(u);
      const double v = u / m.weights[p];
      g[r * m.n + p] = v;
      s += v * v;
    }
    group_avg[q] = a;
    group_sq[q] = s;
  }
}

__global__ void scatter_kernel(device_mesh m, int32_t count, int64_t cube, const double* g,
                               double* out) {
  for (int64_t q = blockIdx.x * int64_t{blockDim.x} + threadIdx.x; q < count * m.n;
       q += int64_t{gridDim.x} * blockDim.x) {
    const int64_t r = q / m.n, p = q % m.n;
    out[r * cube + m.cube_place[p]] = g[q];
  }
}

// One line of one axis per thread: n values at stride nprev, in blocks of
// n * nprev, as the host's transform walks them.
__global__ void line_kernel(line_filters f, int32_t count, int64_t cube, int64_t n, int64_t nprev,
                            double* a, double* w) {
  const int64_t lines = cube / n;
  for (int64_t q = blockIdx.x * int64_t{blockDim.x} + threadIdx.x; q < count * lines;
       q += int64_t{gridDim.x} * blockDim.x) {
    const int64_t r = q / lines, l = q % lines;
    const int64_t start = r * cube + (l / nprev) * n * nprev + l % nprev;
    forward_line(f, a + start, nprev, n, w + start, nprev);
  }
}

__global__ void largest_kernel(int64_t cube, const double* a, const double* threshold,
                               double* limit, double* scale) {
  using reduce = cub::BlockReduce<double, threads>;
  __shared__ typename reduce::TempStorage temp;
  const double* row = a + blockIdx.x * cube;
  double m = 0.0;
  for (int64_t p = threadIdx.x; p < cube; p += threads) m = fmax(m, fabs(row[p]));
  const double big = reduce(temp).Reduce(m, [](double x, double y) { return fmax(x, y); });
  if (threadIdx.x == 0) {
    limit[blockIdx.x] = big * threshold[blockIdx.x];
    scale[blockIdx.x] = big > 0.0 ? 1.0 / big : 0.0;
  }
}

// The kept coefficients of a row in ascending places, a block's worth of
// places at a time; the energies of the row and of its error.
__global__ void pack_kernel(int64_t cube, const double* a, const double* limit,
                            const double* scale_of, int32_t* idx, float* val, int32_t* counts,
                            double* energy, double* lost) {
  using scan = cub::BlockScan<int32_t, threads>;
  using reduce = cub::BlockReduce<double, threads>;
  __shared__ typename scan::TempStorage scan_temp;
  __shared__ typename reduce::TempStorage reduce_temp;
  const int64_t r = blockIdx.x;
  const double* row = a + r * cube;
  const double t = limit[r], scale = scale_of[r];
  int64_t kept_so_far = 0;
  double e = 0.0, l = 0.0;
  for (int64_t p0 = 0; p0 < cube; p0 += threads) {
    const int64_t p = p0 + threadIdx.x;
    const double v = p < cube ? row[p] : 0.0;
    const bool kept = p < cube && coefficient_kept(v, t);
    if (p < cube) {
      const double s = v * scale;
      e += s * s;
      l += rounding_loss(v, kept, scale);
    }
    int32_t at = 0, total = 0;
    scan(scan_temp).ExclusiveSum(kept ? 1 : 0, at, total);
    if (kept) {
      idx[r * cube + kept_so_far + at] = static_cast<int32_t>(p + 1);
      val[r * cube + kept_so_far + at] = static_cast<float>(v);
    }
    kept_so_far += total;
    __syncthreads();
  }
  const double et = reduce(reduce_temp).Sum(e);
  __syncthreads();
  const double lt = reduce(reduce_temp).Sum(l);
  if (threadIdx.x == 0) {
    counts[r] = static_cast<int32_t>(kept_so_far);
    energy[r] = et;
    lost[r] = lt;
  }
}

__global__ void offsets_kernel(int32_t count, const int32_t* counts, int64_t* offsets) {
  if (blockIdx.x != 0 || threadIdx.x != 0) return;
  offsets[0] = 0;
  for (int32_t r = 0; r < count; ++r) offsets[r + 1] = offsets[r] + counts[r];
}

__global__ void gather_kernel(int64_t cube, const int32_t* counts, const int64_t* offsets,
                              const int32_t* idx, const float* val, int32_t* packed_idx,
                              float* packed_val) {
  const int64_t r = blockIdx.x;
  for (int64_t k = threadIdx.x; k < counts[r]; k += threads) {
    packed_idx[offsets[r] + k] = idx[r * cube + k];
    packed_val[offsets[r] + k] = val[r * cube + k];
  }
}

}  // namespace

void launch_general_rows(const device_mesh& m, const device_datum* data, int32_t count,
                         double shift, double edge_sq, double scale, const device_batch& b,
                         cudaStream_t stream) {
  const int64_t per = int64_t{m.nz + 1} * (m.nx + 1) * (m.ny + 1);
  cudaMemsetAsync(b.flagged, 0, sizeof(int32_t) * count, stream);
  node_kernel<<<blocks_for(count * per), threads, 0, stream>>>(m, data, count, shift, b.nodes);
  cell_kernel<<<blocks_for(count * m.n), threads, 0, stream>>>(m, data, count, edge_sq, scale,
                                                               b.nodes, b.g, b.flagged);
}

void launch_grid_rows(const device_mesh& m, const double* gbig, const int64_t* base,
                      int32_t nx2, int32_t count, const device_batch& b, cudaStream_t stream) {
  cudaMemsetAsync(b.flagged, 0, sizeof(int32_t) * count, stream);
  grid_kernel<<<blocks_for(count * m.n), threads, 0, stream>>>(m, gbig, base, nx2, count, b.g);
}

void launch_finish_rows(const device_mesh& m, int32_t count, int32_t first_datum, int32_t group,
                        double test_model, const device_batch& b, cudaStream_t stream) {
  if (count <= 0) return;
  if (test_model != 0.0)
    test_datum_kernel<<<count, threads, 0, stream>>>(m.n, test_model, b.g, b.test_datum);
  const int64_t groups = (count + group - 1) / group + 1;
  sums_kernel<<<blocks_for(groups * m.n), threads, 0, stream>>>(m, count, first_datum, group, b.g,
                                                                b.group_avg, b.group_sq);
}

void launch_compress_rows(const device_mesh& m, const line_filters& f, int32_t count,
                          int32_t nyp, int32_t nxp, int32_t nzp, const double* threshold,
                          const device_batch& b, cudaStream_t stream) {
  if (count <= 0) return;
  const int64_t cube = int64_t{nyp} * nxp * nzp;
  cudaMemsetAsync(b.cube, 0, sizeof(double) * cube * count, stream);
  scatter_kernel<<<blocks_for(count * m.n), threads, 0, stream>>>(m, count, cube, b.g, b.cube);
  const int64_t extents[3] = {nzp, nxp, nyp};
  int64_t nprev = 1;
  for (const int64_t n : extents) {
    if (n > 4)
      line_kernel<<<blocks_for(count * (cube / n)), threads, 0, stream>>>(f, count, cube, n, nprev,
                                                                          b.cube, b.lines);
    nprev *= n;
  }
  // The limit and the scale of each row borrow the first values of the
  // work lines, free again after the transform.
  double* limit = b.lines;
  double* scale = b.lines + count;
  largest_kernel<<<count, threads, 0, stream>>>(cube, b.cube, threshold, limit, scale);
  pack_kernel<<<count, threads, 0, stream>>>(cube, b.cube, limit, scale, b.kept_idx, b.kept_val,
                                             b.counts, b.energy, b.lost);
  offsets_kernel<<<1, 1, 0, stream>>>(count, b.counts, b.offsets);
  gather_kernel<<<count, threads, 0, stream>>>(cube, b.counts, b.offsets, b.kept_idx, b.kept_val,
                                               b.packed_idx, b.packed_val);
}

}  // namespace quolvent
