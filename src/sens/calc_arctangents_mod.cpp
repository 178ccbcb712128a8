// CALC_ARCTANGENTS_MOD: distance and arctangents per mesh node.
#include "sens/calc_arctangents_mod.hpp"

#include <algorithm>
#include <cmath>
#include <new>
#include <stdexcept>

#include "run/text_io.hpp"

#if defined(__x86_64__)
#include <immintrin.h>

// The vector arctangents of the C library's vector math (libm brings them in).
// Each lane gets the same result whatever its neighbours are, so a node's
// value never depends on where its line starts.
extern "C" __m128d _ZGVbN2v_atan(__m128d);
extern "C" __attribute__((target("avx2"))) __m256d _ZGVdN4v_atan(__m256d);
#endif

namespace {

thread_local arctangent_cache t_cache;

// node_line: what one vertical line of nodes shares: its horizontal offsets.
struct node_line {
  double y, x, ys, xs, hh;  // offsets, offsets with 0 replaced by 0.001, y y + x x
};

// fill_scalar: nodes [k0, k1) of one line, one value at a time.
void fill_scalar(const node_line& L, const double* zn, double oz, int k0, int k1, double* r,
                 double* ax, double* ay) {
  for (int k = k0; k < k1; ++k) {
    const double z = zn[k] - oz;
    const double rr = std::sqrt(z * z + L.hh);
    // At the point itself both quotients are 0 over 0; the cell that reads
    // such a node is set aside by GSUS, but the cache holds no NaN either.
    const double qx = rr == 0.0 ? 0.0 : (L.y * z) / (L.xs * rr);
    const double qy = rr == 0.0 ? 0.0 : (z * L.x) / (rr * L.ys);
    r[k] = rr;
    ax[k] = std::atan(qx);
    ay[k] = std::atan(qy);
  }
}

#if defined(__x86_64__)
// fill_sse2: two nodes at a time; the last odd node through a padded pair, so
// that every node goes through the same arctangent.
void fill_sse2(const node_line& L, const double* zn, double oz, int k0, int k1, double* r,
               double* ax, double* ay) {
  const __m128d voz = _mm_set1_pd(oz), vhh = _mm_set1_pd(L.hh);
  const __m128d vy = _mm_set1_pd(L.y), vx = _mm_set1_pd(L.x);
  const __m128d vxs = _mm_set1_pd(L.xs), vys = _mm_set1_pd(L.ys);
  const __m128d zero = _mm_setzero_pd();
  auto step = [&](__m128d zk, __m128d& rr, __m128d& a, __m128d& b) {
    const __m128d z = _mm_sub_pd(zk, voz);
    rr = _mm_sqrt_pd(_mm_add_pd(_mm_mul_pd(z, z), vhh));
    const __m128d at_point = _mm_cmpeq_pd(rr, zero);
    __m128d qx = _mm_div_pd(_mm_mul_pd(vy, z), _mm_mul_pd(vxs, rr));
    __m128d qy = _mm_div_pd(_mm_mul_pd(z, vx), _mm_mul_pd(rr, vys));
    qx = _mm_andnot_pd(at_point, qx);
    qy = _mm_andnot_pd(at_point, qy);
    a = _ZGVbN2v_atan(qx);
    b = _ZGVbN2v_atan(qy);
  };
  int k = k0;
  for (; k + 2 <= k1; k += 2) {
    __m128d rr, a, b;
    step(_mm_loadu_pd(zn + k), rr, a, b);
    _mm_storeu_pd(r + k, rr);
    _mm_storeu_pd(ax + k, a);
    _mm_storeu_pd(ay + k, b);
  }
  if (k < k1) {
    __m128d rr, a, b;
    step(_mm_set_pd(zn[k], zn[k]), rr, a, b);
    r[k] = _mm_cvtsd_f64(rr);
    ax[k] = _mm_cvtsd_f64(a);
    ay[k] = _mm_cvtsd_f64(b);
  }
}

// fill_avx2: four nodes at a time, the rest through a padded quadruple.
__attribute__((target("avx2"))) void fill_avx2(const node_line& L, const double* zn, double oz,
                                               int k0, int k1, double* r, double* ax,
                                               double* ay) {
  const __m256d voz = _mm256_set1_pd(oz), vhh = _mm256_set1_pd(L.hh);
  const __m256d vy = _mm256_set1_pd(L.y), vx = _mm256_set1_pd(L.x);
  const __m256d vxs = _mm256_set1_pd(L.xs), vys = _mm256_set1_pd(L.ys);
  const __m256d zero = _mm256_setzero_pd();
  int k = k0;
  for (; k < k1; k += 4) {
    const int m = std::min(4, k1 - k);
    __m256d zk;
    if (m == 4) {
      zk = _mm256_loadu_pd(zn + k);
    } else {
      double pad[4] = {zn[k], zn[k], zn[k], zn[k]};
      for (int q = 1; q < m; ++q) pad[q] = zn[k + q];
      zk = _mm256_loadu_pd(pad);
    }
    const __m256d z = _mm256_sub_pd(zk, voz);
    const __m256d rr = _mm256_sqrt_pd(_mm256_add_pd(_mm256_mul_pd(z, z), vhh));
    const __m256d at_point = _mm256_cmp_pd(rr, zero, _CMP_EQ_OQ);
    __m256d qx = _mm256_div_pd(_mm256_mul_pd(vy, z), _mm256_mul_pd(vxs, rr));
    __m256d qy = _mm256_div_pd(_mm256_mul_pd(z, vx), _mm256_mul_pd(rr, vys));
    qx = _mm256_andnot_pd(at_point, qx);
    qy = _mm256_andnot_pd(at_point, qy);
    const __m256d a = _ZGVdN4v_atan(qx);
    const __m256d b = _ZGVdN4v_atan(qy);
    if (m == 4) {
      _mm256_storeu_pd(r + k, rr);
      _mm256_storeu_pd(ax + k, a);
      _mm256_storeu_pd(ay + k, b);
    } else {
      double o1[4], o2[4], o3[4];
      _mm256_storeu_pd(o1, rr);
      _mm256_storeu_pd(o2, a);
      _mm256_storeu_pd(o3, b);
      for (int q = 0; q < m; ++q) {
        r[k + q] = o1[q];
        ax[k + q] = o2[q];
        ay[k + q] = o3[q];
      }
    }
  }
}
#endif

int best_width() {
#if defined(__x86_64__)
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") ? 4 : 2;
#else
  return 1;
#endif
}

const int machine_width = best_width();
int forced_width = 0;  // set only by benchmarks, outside parallel regions

int width_in_use() {
  return forced_width > 0 ? std::min(forced_width, machine_width) : machine_width;
}

}  // namespace

// at_cache
// Given: nothing. Returns: the calling thread's cache. Fails: never.
// Calls: nothing.
arctangent_cache& at_cache() { return t_cache; }

// at_vector_width / at_force_width
// Given: (at_force_width) the widest evaluation allowed, 0 for no limit.
// Returns: the width in use. Fails: never. Calls: nothing.
int at_vector_width() { return width_in_use(); }
void at_force_width(int width) { forced_width = width; }

// CALC_ARCTANGENTS
// Given: the node arrays yn[0..ny], xn[0..nx], zn[0..nz], the column tops
// top[(j-1) + (i-1)*ny] and the observation point (oy, ox, oz).
// Returns: nothing; fills the calling thread's cache at and below each
// node's start level. Fails: an allocation that fails stops the run with
// "calc_arctangents". Calls: alloc_failed, sqrt, atan (scalar or vector).
void CALC_ARCTANGENTS(const double* yn, const double* xn, const double* zn, int32_t ny,
                      int32_t nx, int32_t nz, const int32_t* top, double oy, double ox,
                      double oz) {
  arctangent_cache& c = t_cache;
  const int32_t ez = std::max(nz, 0) + 1, ex = std::max(nx, 0) + 1, ey = std::max(ny, 0) + 1;

  // Arrays made for other extents would put nodes in the wrong places (or
  // past the end): make them anew for this mesh.
  if (c.ez != ez || c.ex != ex || c.ey != ey) {
    c.at_x.clear();
    c.at_x.shrink_to_fit();
    c.at_y.clear();
    c.at_y.shrink_to_fit();
    c.r_node.clear();
    c.r_node.shrink_to_fit();
    c.ez = c.ex = c.ey = 0;
    const std::size_t total =
        static_cast<std::size_t>(ez) * static_cast<std::size_t>(ex) * static_cast<std::size_t>(ey);
    try {
      c.at_x.resize(total);
      c.at_y.resize(total);
      c.r_node.resize(total);
    } catch (const std::bad_alloc&) {
      alloc_failed("calc_arctangents");
    } catch (const std::length_error&) {
      alloc_failed("calc_arctangents");
    }
    c.ez = ez;
    c.ex = ex;
    c.ey = ey;
  }

  const int width = width_in_use();
  auto top_at_col = [&](int32_t j, int32_t i) {
    return top[static_cast<std::size_t>(j - 1) +
               static_cast<std::size_t>(i - 1) * static_cast<std::size_t>(ny)];
  };

  for (int32_t j = 1; j <= ey; ++j) {
    node_line L{};
    L.y = yn[j - 1] - oy;
    L.ys = L.y == 0.0 ? 0.001 : L.y;
    const double yy = L.y * L.y;
    for (int32_t i = 1; i <= ex; ++i) {
      L.x = xn[i - 1] - ox;
      L.xs = L.x == 0.0 ? 0.001 : L.x;
      L.hh = yy + L.x * L.x;

      // Start level: the highest node any of the four columns around this
      // line can reach; the rim is computed whole.
      int32_t start = 1;
      if (j > 1 && j < ey && i > 1 && i < ex) {
        const int32_t t = std::min(std::min(top_at_col(j - 1, i - 1), top_at_col(j, i - 1)),
                                   std::min(top_at_col(j - 1, i), top_at_col(j, i)));
        start = std::clamp(t + 1, 1, ez);
      }

      const std::size_t base =
          static_cast<std::size_t>(ez) *
          (static_cast<std::size_t>(i - 1) + static_cast<std::size_t>(ex) * (j - 1));
      double* r = c.r_node.data() + base;
      double* ax = c.at_x.data() + base;
      double* ay = c.at_y.data() + base;
#if defined(__x86_64__)
      if (width >= 4) {
        fill_avx2(L, zn, oz, start - 1, ez, r, ax, ay);
      } else if (width >= 2) {
        fill_sse2(L, zn, oz, start - 1, ez, r, ax, ay);
      } else {
        fill_scalar(L, zn, oz, start - 1, ez, r, ax, ay);
      }
#else
      (void)width;
      fill_scalar(L, zn, oz, start - 1, ez, r, ax, ay);
#endif
    }
  }
}

// DEALLOC_AT
// Given: nothing. Returns: nothing; the calling thread's cache is empty.
// Fails: never. Calls: nothing.
void DEALLOC_AT() {
  arctangent_cache& c = t_cache;
  std::vector<double>().swap(c.at_x);
  std::vector<double>().swap(c.at_y);
  std::vector<double>().swap(c.r_node);
  c.ez = c.ex = c.ey = 0;
}
