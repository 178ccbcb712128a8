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

namespace quolvent {

int machine_vector_width() {
#if defined(QUOLVENT_VECTOR_MATH)
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") ? 4 : 2;
#else
  return 1;
#endif
}

namespace {

#if defined(QUOLVENT_VECTOR_MATH)
// apply: f over v[0..count), `width` at a time; the last few lanes through a
// padded group, the padding a value that is harmless to f.
void apply(double* v, std::size_t count, int width, double pad,
           void (*groups4)(double*, std::size_t), __m128d (*pair)(__m128d)) {
  std::size_t i = 0;
  if (width >= 4) {
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

// usable: the width asked for, within what the machine runs.
int usable(int width) {
  const int machine = machine_vector_width();
  return width < machine ? width : machine;
}
#endif

}  // namespace

void atan_array(double* v, std::size_t count, int width) {
#if defined(QUOLVENT_VECTOR_MATH)
  width = usable(width);
  if (width >= 2) {
    apply(v, count, width, 0.0, atan4_groups, _ZGVbN2v_atan);
    return;
  }
#endif
  (void)width;
  for (std::size_t i = 0; i < count; ++i) v[i] = std::atan(v[i]);
}

void log_array(double* v, std::size_t count, int width) {
#if defined(QUOLVENT_VECTOR_MATH)
  width = usable(width);
  if (width >= 2) {
    apply(v, count, width, 1.0, log4_groups, _ZGVbN2v_log);
    return;
  }
#endif
  (void)width;
  for (std::size_t i = 0; i < count; ++i) v[i] = std::log(v[i]);
}

}  // namespace quolvent
