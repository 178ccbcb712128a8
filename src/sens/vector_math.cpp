// Arctangents and logarithms of whole arrays.
#include "sens/vector_math.hpp"

#include <algorithm>
#include <cmath>

#if defined(__x86_64__) && defined(__ELF__)
#define QUOLVENT_VECTOR_MATH 1
#include <immintrin.h>

// The two-lane entry points of the C library's vector math (libm brings them
// in); the library steers them to its best variant for the processor.
extern "C" __m128d _ZGVbN2v_atan(__m128d);
extern "C" __m128d _ZGVbN2v_log(__m128d);

// The four-lane AVX2 entry points take and return their lanes in ymm0, which
// the compiler does only for a caller built for AVX2: hence the target
// attribute on them and on the two loops that call them. Each loop replaces
// `groups` groups of four doubles at v in place.
extern "C" __attribute__((target("avx2"))) __m256d _ZGVdN4v_atan(__m256d);
extern "C" __attribute__((target("avx2"))) __m256d _ZGVdN4v_log(__m256d);

namespace {

__attribute__((target("avx2"))) void atan4_groups(double* v, std::size_t groups) {
  for (std::size_t g = 0; g < groups; ++g, v += 4)
    _mm256_storeu_pd(v, _ZGVdN4v_atan(_mm256_loadu_pd(v)));
}

__attribute__((target("avx2"))) void log4_groups(double* v, std::size_t groups) {
  for (std::size_t g = 0; g < groups; ++g, v += 4)
    _mm256_storeu_pd(v, _ZGVdN4v_log(_mm256_loadu_pd(v)));
}

}  // namespace
#endif

namespace {

int best_width() {
#if defined(QUOLVENT_VECTOR_MATH)
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") ? 4 : 2;
#else
  return 1;
#endif
}

const int machine_width = best_width();
int width_now = machine_width;

#if defined(QUOLVENT_VECTOR_MATH)
// apply: f over v[0..count), `width` at a time; the last few lanes through a
// padded group, the padding a value that is harmless to f.
void apply(double* v, std::size_t count, double pad, void (*groups4)(double*, std::size_t),
           __m128d (*pair)(__m128d)) {
  std::size_t i = 0;
  if (width_now >= 4) {
    const std::size_t full = count / 4;
    groups4(v, full);
    i = 4 * full;
    if (i < count) {
      double tail[4] = {pad, pad, pad, pad};
      std::copy(v + i, v + count, tail);
      groups4(tail, 1);
      std::copy(tail, tail + (count - i), v + i);
    }
    return;
  }
  for (; i + 2 <= count; i += 2) _mm_storeu_pd(v + i, pair(_mm_loadu_pd(v + i)));
  if (i < count) v[i] = _mm_cvtsd_f64(pair(_mm_set_pd(pad, v[i])));
}
#endif

}  // namespace

// vector_width
// Given: nothing. Returns: 4, 2 or 1. Fails: never. Calls: nothing.
int vector_width() { return width_now; }

// force_vector_width
// Given: the widest width allowed, 0 for the machine's best. Returns: nothing.
// Fails: never. Calls: nothing.
void force_vector_width(int width) {
  width_now = width > 0 ? std::min(width, machine_width) : machine_width;
}

// atan_array
// Given: count numbers at v. Returns: their arctangents, in place.
// Fails: never. Calls: the vector or scalar arctangent.
void atan_array(double* v, std::size_t count) {
#if defined(QUOLVENT_VECTOR_MATH)
  if (width_now >= 2) {
    apply(v, count, 0.0, atan4_groups, _ZGVbN2v_atan);
    return;
  }
#endif
  for (std::size_t i = 0; i < count; ++i) v[i] = std::atan(v[i]);
}

// log_array
// Given: count positive numbers at v. Returns: their logarithms, in place.
// Fails: never (0 gives -Inf, a negative number NaN, as log does).
// Calls: the vector or scalar logarithm.
void log_array(double* v, std::size_t count) {
#if defined(QUOLVENT_VECTOR_MATH)
  if (width_now >= 2) {
    apply(v, count, 1.0, log4_groups, _ZGVbN2v_log);
    return;
  }
#endif
  for (std::size_t i = 0; i < count; ++i) v[i] = std::log(v[i]);
}
