// The regular-grid row copy, compiled once per vector target
// (Highway's foreach_target).
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "sens/grid_copy.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/highway.h>

#include <algorithm>
#include <cmath>

#include "sens/grid_copy.hpp"

// No multiply-add is fused behind the code's back: every target gives the
// bits of one cell at a time.
#pragma clang fp contract(off)

HWY_BEFORE_NAMESPACE();
namespace quolvent {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using lanes_tag = hn::CappedTag<double, 16>;
using V = hn::Vec<lanes_tag>;

// CopyRun: m cells from src with their weights w, sums avg and sq, to g or full.
template <bool kFull>
HWY_INLINE void CopyRun(const double* HWY_RESTRICT src, const double* HWY_RESTRICT w,
                        double* HWY_RESTRICT avg, double* HWY_RESTRICT sq, double* HWY_RESTRICT g,
                        float* HWY_RESTRICT full, std::size_t m) {
  const lanes_tag d;
  const hn::Rebind<float, lanes_tag> df;
  const std::size_t lanes = hn::Lanes(d);
  std::size_t k = 0;
  for (; k + lanes <= m; k += lanes) {
    const V x = hn::LoadU(d, src + k);
    const V v = hn::Div(x, hn::LoadU(d, w + k));
    hn::StoreU(hn::Add(hn::LoadU(d, avg + k), hn::Abs(x)), d, avg + k);
    hn::StoreU(hn::Add(hn::LoadU(d, sq + k), hn::Mul(v, v)), d, sq + k);
    if constexpr (kFull)
      hn::StoreU(hn::DemoteTo(df, v), df, full + k);
    else
      hn::StoreU(v, d, g + k);
  }
  for (; k < m; ++k) {
    const double v = src[k] / w[k];
    avg[k] += std::fabs(src[k]);
    sq[k] += v * v;
    if constexpr (kFull)
      full[k] = static_cast<float>(v);
    else
      g[k] = v;
  }
}

template <bool kFull>
HWY_INLINE void CopyRow(const grid_copy_in& in, double* avg, double* sq, double* g, float* full) {
  const std::size_t ny = static_cast<std::size_t>(in.ny);
  std::size_t indx = 0;
  for (int32_t j = 0; j < in.ny; ++j) {
    const double* line = in.cube + static_cast<std::size_t>(j) * in.line_stride;
    for (int32_t ip = 0; ip < in.nx;) {
      const int32_t tp = in.top[static_cast<std::size_t>(j) + static_cast<std::size_t>(ip) * ny];
      const double* src = line + static_cast<std::size_t>(ip) * in.col_stride + tp;
      std::size_t m = static_cast<std::size_t>(in.nz - tp);
      // The next columns continue this one in the cube while their tops are 0.
      ++ip;
      if (in.col_stride == static_cast<std::size_t>(in.nz))
        for (; ip < in.nx &&
               in.top[static_cast<std::size_t>(j) + static_cast<std::size_t>(ip) * ny] == 0;
             ++ip)
          m += static_cast<std::size_t>(in.nz);
      CopyRun<kFull>(src, in.weights + indx, avg + indx, sq + indx, kFull ? nullptr : g + indx,
                     kFull ? full + indx : nullptr, m);
      indx += m;
    }
  }
}

void GridCopyRow(const grid_copy_in& in, double* avg, double* sq, double* g, float* full) {
  if (full != nullptr)
    CopyRow<true>(in, avg, sq, g, full);
  else
    CopyRow<false>(in, avg, sq, g, full);
}

}  // namespace HWY_NAMESPACE
}  // namespace quolvent
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
#include "base/vector_dispatch.hpp"

namespace quolvent {

QUOLVENT_EXPORT(GridCopyRow)

void grid_copy_row(int64_t target, const grid_copy_in& in, double* avg, double* sq, double* g,
                   float* full) {
  GridCopyRow_for(dispatch_index(target))(in, avg, sq, g, full);
}

}  // namespace quolvent
#endif  // HWY_ONCE
