// Arctangents and logarithms of arrays on one vector target.
// This file is compiled once per target (Highway's foreach_target).
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "sens/vector_math.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/contrib/math/math-inl.h>
#include <hwy/highway.h>

#include "sens/vector_math.hpp"

HWY_BEFORE_NAMESPACE();
namespace quolvent {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// At most 16 doubles a vector, so that the padding of the arrays the vector
// code reads past their end is bounded on every target.
using lanes_tag = hn::CappedTag<double, 16>;

int LanesOfDouble() { return static_cast<int>(hn::Lanes(lanes_tag())); }

// map_array: f over v[0..count), whole vectors, the last few lanes through a
// padded vector whose padding (pad) is harmless to f.
template <class F>
HWY_INLINE void map_array(double* v, std::size_t count, double pad, F f) {
  const lanes_tag d;
  const std::size_t n = hn::Lanes(d);
  std::size_t i = 0;
  for (; i + n <= count; i += n) hn::StoreU(f(d, hn::LoadU(d, v + i)), d, v + i);
  if (i < count) {
    HWY_ALIGN double tail[16];
    for (std::size_t k = 0; k < n; ++k) tail[k] = i + k < count ? v[i + k] : pad;
    hn::Store(f(d, hn::Load(d, tail)), d, tail);
    for (std::size_t k = 0; i + k < count; ++k) v[i + k] = tail[k];
  }
}

void AtanArray(double* v, std::size_t count) {
  map_array(v, count, 0.0, [](lanes_tag d, hn::Vec<lanes_tag> x) { return hn::Atan(d, x); });
}

void LogArray(double* v, std::size_t count) {
  map_array(v, count, 1.0, [](lanes_tag d, hn::Vec<lanes_tag> x) { return hn::Log(d, x); });
}

}  // namespace HWY_NAMESPACE
}  // namespace quolvent
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
#include "base/vector_dispatch.hpp"

namespace quolvent {

QUOLVENT_EXPORT(LanesOfDouble)
QUOLVENT_EXPORT(AtanArray)
QUOLVENT_EXPORT(LogArray)

int vector_lanes(int64_t target) {
  return LanesOfDouble_for(dispatch_index(target))();
}

void atan_array(int64_t target, double* v, std::size_t count) {
  AtanArray_for(dispatch_index(target))(v, count);
}

void log_array(int64_t target, double* v, std::size_t count) {
  LogArray_for(dispatch_index(target))(v, count);
}

}  // namespace quolvent
#endif  // HWY_ONCE
