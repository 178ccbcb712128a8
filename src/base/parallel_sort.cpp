// Sorting 64-bit floats on every thread: pieces sorted by their bits,
// then merged pairwise in slices.
#include "base/parallel_sort.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <memory>
#include <omp.h>
#include <utility>
#include <vector>

#include "base/hpsort.hpp"

namespace quolvent {

namespace {

// key: the bits of v as an unsigned integer that orders as v does: a
// positive value's with the sign bit set, a negative value's all turned over
// (-0 just below +0).
uint64_t key(double v) {
  const uint64_t b = std::bit_cast<uint64_t>(v);
  return (b >> 63) != 0 ? ~b : b | (uint64_t{1} << 63);
}

// before: the order of the sort, -0 before +0, so that every slice and
// piece puts the same bits in each place.
bool before(double a, double b) { return key(a) < key(b); }

// taken_from_first: how many of the first k values of the merge of the
// ascending x[0..nx) and y[0..ny) come from x (of equal values, x's first,
// as std::merge takes them).
int64_t taken_from_first(const double* x, int64_t nx, const double* y, int64_t ny, int64_t k) {
  int64_t lo = std::max<int64_t>(0, k - ny), hi = std::min(k, nx);
  while (lo < hi) {
    const int64_t i = lo + (hi - lo) / 2;
    if (!before(y[k - i - 1], x[i])) {
      lo = i + 1;
    } else {
      hi = i;
    }
  }
  return lo;
}

// merge_slice: the places [lo, hi) of the merge of the ascending from[a..m)
// and from[m..b) into to[lo..hi): what std::merge of the whole would put
// there.
struct merge_slice {
  int64_t a, m, b, lo, hi;
};

void merge_part(const double* from, double* to, const merge_slice& s) {
  const double *x = from + s.a, *y = from + s.m;
  const int64_t nx = s.m - s.a, ny = s.b - s.m;
  const int64_t i0 = taken_from_first(x, nx, y, ny, s.lo - s.a);
  const int64_t i1 = taken_from_first(x, nx, y, ny, s.hi - s.a);
  std::merge(x + i0, x + i1, y + (s.lo - s.a - i0), y + (s.hi - s.a - i1), to + s.lo, before);
}

// radix_sort: v[0..n) (no NaN) ascending, by the bytes of their keys from
// the lowest up; work holds n values. A byte that every value shares costs
// no pass.
void radix_sort(double* v, double* work, int64_t n) {
  std::array<std::array<int64_t, 256>, 8> count{};
  for (int64_t i = 0; i < n; ++i) {
    const uint64_t b = key(v[i]);
    for (int d = 0; d < 8; ++d) ++count[static_cast<std::size_t>(d)][(b >> (8 * d)) & 255];
  }
  double *from = v, *to = work;
  for (int d = 0; d < 8 && n > 0; ++d) {
    std::array<int64_t, 256>& at = count[static_cast<std::size_t>(d)];
    if (at[(key(v[0]) >> (8 * d)) & 255] == n) continue;
    int64_t sum = 0;
    for (int64_t& c : at) sum += std::exchange(c, sum);
    for (int64_t i = 0; i < n; ++i) to[at[(key(from[i]) >> (8 * d)) & 255]++] = from[i];
    std::swap(from, to);
  }
  if (from != v) std::copy(from, from + n, v);
}

}  // namespace

void sort_ascending(double* a, int64_t n) {
  const int parts = std::max(1, std::min(omp_get_max_threads(), static_cast<int>(n / 65536)));
  std::vector<int64_t> edge(static_cast<std::size_t>(parts) + 1);
  for (int p = 0; p <= parts; ++p) edge[static_cast<std::size_t>(p)] = n * p / parts;
  std::vector<char> nan(static_cast<std::size_t>(parts), 0);
#pragma omp parallel for schedule(static, 1)
  for (int p = 0; p < parts; ++p)
    for (int64_t i = edge[static_cast<std::size_t>(p)]; i < edge[static_cast<std::size_t>(p) + 1];
         ++i)
      nan[static_cast<std::size_t>(p)] |= std::isnan(a[i]);
  if (std::find(nan.begin(), nan.end(), 1) != nan.end()) return hpsort(a, n);
  // Every value of `other` is written before it is read.
  const std::unique_ptr<double[]> other(new double[static_cast<std::size_t>(n)]);
  double *from = a, *to = other.get();
#pragma omp parallel for schedule(static, 1)
  for (int p = 0; p < parts; ++p) {
    const int64_t lo = edge[static_cast<std::size_t>(p)],
                  hi = edge[static_cast<std::size_t>(p) + 1];
    radix_sort(a + lo, to + lo, hi - lo);
  }
  std::vector<merge_slice> slices;
  for (int width = 1; width < parts; width *= 2) {
    slices.clear();
    for (int p = 0; p < parts; p += 2 * width) {
      const int64_t lo = edge[static_cast<std::size_t>(p)];
      const int64_t m = edge[static_cast<std::size_t>(std::min(p + width, parts))];
      const int64_t hi = edge[static_cast<std::size_t>(std::min(p + 2 * width, parts))];
      const int64_t cuts = std::max<int64_t>(1, (hi - lo) * parts / n);
      for (int64_t c = 0; c < cuts; ++c)
        slices.push_back({lo, m, hi, lo + (hi - lo) * c / cuts, lo + (hi - lo) * (c + 1) / cuts});
    }
    const int64_t count = static_cast<int64_t>(slices.size());
#pragma omp parallel for schedule(static, 1)
    for (int64_t t = 0; t < count; ++t) merge_part(from, to, slices[static_cast<std::size_t>(t)]);
    std::swap(from, to);
  }
  if (from == a) return;
#pragma omp parallel for
  for (int64_t i = 0; i < n; ++i) a[i] = from[i];
}

}  // namespace quolvent
