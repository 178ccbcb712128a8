// Filtering many lines at once, the largest magnitude and the
// packing of the kept coefficients. Compiled once per vector target
// (Highway's foreach_target).
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "wavelet/wavelet_lanes.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/highway.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "wavelet/wavelet_lanes.hpp"

// No multiply-add is fused behind the code's back: the vector targets with
// fused multiply-adds must give the bits of those without.
#pragma clang fp contract(off)

HWY_BEFORE_NAMESPACE();
namespace quolvent {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using lanes_tag = hn::CappedTag<double, 16>;
using V = hn::Vec<lanes_tag>;

// The filters of the program have at most 12 taps.
constexpr int max_taps = 32;

// copy_block: n rows of width values, each row at its own stride, through
// vectors (the rows are short: a call per row would cost more than the copy).
HWY_INLINE void copy_block(const double* src, std::size_t src_stride, double* dst,
                           std::size_t dst_stride, std::size_t width, int64_t n) {
  const lanes_tag d;
  const std::size_t lanes = hn::Lanes(d);
  for (int64_t p = 0; p < n; ++p) {
    const double* s = src + static_cast<std::size_t>(p) * src_stride;
    double* t = dst + static_cast<std::size_t>(p) * dst_stride;
    std::size_t l = 0;
    for (; l + lanes <= width; l += lanes) hn::StoreU(hn::LoadU(d, s + l), d, t + l);
    for (; l < width; ++l) t[l] = s[l];
  }
}

// step_taps: what one filtering step on n positions shares: the taps, also
// set in every lane, and the periodic wrap of the positions.
template <int NC>
struct step_taps {
  int32_t nc;
  std::size_t lanes;
  V cv[max_taps], rv[max_taps];
  const double *cc, *cr;
  int64_t h, mask, base;
  step_taps(lanes_tag d, const transform_filters& f, int64_t n)
      : nc(NC > 0 ? NC : f.filter_length),
        lanes(hn::Lanes(d)),
        cc(f.low_pass.data()),
        cr(f.high_pass.data()),
        h(n / 2),
        mask(n - 1),
        base(static_cast<int64_t>(nc) * n + f.tap_offset) {
    for (int32_t k = 0; k < nc; ++k) cv[k] = hn::Set(d, cc[k]), rv[k] = hn::Set(d, cr[k]);
  }
};

// StepForward: one forward step on n positions of src, the smooth half to
// lo, the detail half to hi (rows at their own strides). Output pair i takes
// taps k = 1..nc at the periodic positions (nc n + tap_offset + 2 i + 1 + k) mod n,
// each sum from 0 in tap order, as filter_step; a tap at a position p >= m (0
// there) is passed over, which leaves the sum's bits as they are.
template <int NC>
HWY_INLINE void StepForward(const transform_filters& f, const double* src, std::size_t stride,
                            std::size_t width, int64_t n, int64_t m, double* lo_dst,
                            std::size_t lo_stride, double* hi_dst, std::size_t hi_stride) {
  const lanes_tag d;
  const step_taps<NC> t(d, f, n);
  const int32_t nc = t.nc;
  const std::size_t lanes = t.lanes;
  const V *cv = t.cv, *rv = t.rv;
  const double *cc = t.cc, *cr = t.cr;
  const int64_t h = t.h, mask = t.mask, base = t.base;
  for (int64_t i = 0; i < h; ++i) {
    const double* row[max_taps];
    bool used[max_taps];
    for (int32_t k = 0; k < nc; ++k) {
      const int64_t p = (base + 2 * i + 2 + k) & mask;
      row[k] = src + static_cast<std::size_t>(p) * stride;
      used[k] = p < m;
    }
    double* lo_row = lo_dst + static_cast<std::size_t>(i) * lo_stride;
    double* hi_row = hi_dst + static_cast<std::size_t>(i) * hi_stride;
    std::size_t l = 0;
    for (; l + lanes <= width; l += lanes) {
      V lo = hn::Zero(d), hi = hn::Zero(d);
      for (int32_t k = 0; k < nc; ++k) {
        if (!used[k]) continue;
        const V v = hn::LoadU(d, row[k] + l);
        lo = hn::Add(lo, hn::Mul(cv[k], v));
        hi = hn::Add(hi, hn::Mul(rv[k], v));
      }
      hn::StoreU(lo, d, lo_row + l);
      hn::StoreU(hi, d, hi_row + l);
    }
    for (; l < width; ++l) {
      double lo = 0.0, hi = 0.0;
      for (int32_t k = 0; k < nc; ++k) {
        if (!used[k]) continue;
        const double v = row[k][l];
        lo += cc[k] * v;
        hi += cr[k] * v;
      }
      lo_row[l] = lo;
      hi_row[l] = hi;
    }
  }
}

// Forward: all the steps along one axis. The first step reads a and writes
// both halves to the work space (its detail half then goes to a); each
// later step reads the smooth half left by the step before from the work
// space and writes its detail half straight to a, the last one its smooth
// half too. tmp: n * width values, two halves used in turn.
template <int NC>
HWY_INLINE void Forward(const transform_filters& f, double* a, std::size_t stride,
                        std::size_t width, int64_t n, int64_t m, double* tmp) {
  double* half[2] = {tmp, tmp + static_cast<std::size_t>(n / 2) * width};
  const double* src = a;
  std::size_t src_stride = stride;
  int which = 0;
  for (int64_t nt = n; nt >= 4; nt >>= 1) {
    const int64_t h = nt / 2;
    const bool first = nt == n, last = nt == 4;
    double* lo = last && !first ? a : half[which];
    const std::size_t lo_stride = lo == a ? stride : width;
    double* hi = first ? half[1 - which] : a + static_cast<std::size_t>(h) * stride;
    const std::size_t hi_stride = first ? width : stride;
    StepForward<NC>(f, src, src_stride, width, nt, first ? m : nt, lo, lo_stride, hi, hi_stride);
    if (first) {
      copy_block(hi, width, a + static_cast<std::size_t>(h) * stride, stride, width, h);
      if (last) copy_block(lo, width, a, stride, width, h);
    }
    // The next step reads this smooth half and writes the other one.
    src = lo;
    src_stride = lo_stride;
    which = 1 - which;
  }
}

// StepInverse: one inverse step on n positions, as filter_step: from 0, each pair
// i adds cc p + cr q to its taps' positions, pairs and taps in order.
template <int NC>
HWY_INLINE void StepInverse(const transform_filters& f, double* a, std::size_t stride,
                            std::size_t width, int64_t n, double* tmp) {
  const lanes_tag d;
  const step_taps<NC> t(d, f, n);
  const int32_t nc = t.nc;
  const std::size_t lanes = t.lanes;
  const V *cv = t.cv, *rv = t.rv;
  const double *cc = t.cc, *cr = t.cr;
  const int64_t h = t.h, mask = t.mask, base = t.base;
  std::fill(tmp, tmp + static_cast<std::size_t>(n) * width, 0.0);
  for (int64_t i = 0; i < h; ++i) {
    double* out[max_taps];
    for (int32_t k = 0; k < nc; ++k)
      out[k] = tmp + static_cast<std::size_t>((base + 2 * i + 2 + k) & mask) * width;
    const double* p_row = a + static_cast<std::size_t>(i) * stride;
    const double* q_row = a + static_cast<std::size_t>(i + h) * stride;
    std::size_t l = 0;
    for (; l + lanes <= width; l += lanes) {
      const V p = hn::LoadU(d, p_row + l), q = hn::LoadU(d, q_row + l);
      for (int32_t k = 0; k < nc; ++k) {
        const V w = hn::LoadU(d, out[k] + l);
        hn::StoreU(hn::Add(w, hn::Add(hn::Mul(cv[k], p), hn::Mul(rv[k], q))), d, out[k] + l);
      }
    }
    for (; l < width; ++l) {
      const double p = p_row[l], q = q_row[l];
      for (int32_t k = 0; k < nc; ++k) out[k][l] += cc[k] * p + cr[k] * q;
    }
  }
  copy_block(tmp, width, a, stride, width, n);
}

template <int NC>
HWY_INLINE void AllSteps(const transform_filters& f, double* a, std::size_t stride,
                         std::size_t width, int64_t n, int64_t m, bool forward, double* tmp) {
  if (forward) {
    Forward<NC>(f, a, stride, width, n, m, tmp);
  } else {
    for (int64_t nt = 4; nt <= n; nt <<= 1) StepInverse<NC>(f, a, stride, width, nt, tmp);
  }
}

void LinesTransform(const transform_filters& f, double* a, std::size_t stride, std::size_t width,
                    int64_t n, int64_t m, bool forward, double* tmp) {
  if (n < 4 || width == 0 || f.filter_length < 1 || f.filter_length > max_taps) return;
  switch (f.filter_length) {
    case 2: AllSteps<2>(f, a, stride, width, n, m, forward, tmp); break;
    case 4: AllSteps<4>(f, a, stride, width, n, m, forward, tmp); break;
    case 6: AllSteps<6>(f, a, stride, width, n, m, forward, tmp); break;
    case 8: AllSteps<8>(f, a, stride, width, n, m, forward, tmp); break;
    case 10: AllSteps<10>(f, a, stride, width, n, m, forward, tmp); break;
    case 12: AllSteps<12>(f, a, stride, width, n, m, forward, tmp); break;
    default: AllSteps<0>(f, a, stride, width, n, m, forward, tmp); break;
  }
}

// ColumnStep: one forward step of a contiguous line v of nt values, the
// smooth half to lo_out and the detail half to hi_out (neither inside v),
// vectors of D; nt / 2 is a multiple of D's lanes. The input, periodically
// extended, is first split into the values at even and at odd offsets from
// the first tap, so that tap k of consecutive pairs lies at consecutive
// places of one of them; each sum runs from 0 in tap order, as filter_step.
template <int NC, class D>
HWY_INLINE void ColumnStep(D d, const transform_filters& f, const double* v, int64_t nt,
                           double* lo_out, double* hi_out, double* ev, double* od) {
  using VD = hn::Vec<D>;
  const int64_t lanes = static_cast<int64_t>(hn::Lanes(d));
  const int32_t nc = NC > 0 ? NC : f.filter_length;
  const double* cc = f.low_pass.data();
  const double* cr = f.high_pass.data();
  const int64_t h = nt / 2, mask = nt - 1;
  const int64_t first = (static_cast<int64_t>(nc) * nt + f.tap_offset + 2) % nt;  // pair 0, tap 0
  const int64_t count = h + (nc + 1) / 2;
  // ev[j] = v[(first + 2j) mod nt], od[j] = v[(first + 2j + 1) mod nt]: whole
  // vectors up to the end of the line, then the wrap one by one.
  int64_t j = 0;
  for (; j + lanes <= count && first + 2 * j + 2 * lanes <= nt; j += lanes) {
    const VD a0 = hn::LoadU(d, v + first + 2 * j), a1 = hn::LoadU(d, v + first + 2 * j + lanes);
    hn::StoreU(hn::ConcatEven(d, a1, a0), d, ev + j);
    hn::StoreU(hn::ConcatOdd(d, a1, a0), d, od + j);
  }
  for (; j < count; ++j) ev[j] = v[(first + 2 * j) & mask], od[j] = v[(first + 2 * j + 1) & mask];
  for (int64_t i = 0; i < h; i += lanes) {
    VD lo = hn::Zero(d), hi = hn::Zero(d);
    for (int32_t k = 0; k < nc; ++k) {
      const VD x = hn::LoadU(d, ((k & 1) ? od : ev) + i + k / 2);
      lo = hn::Add(lo, hn::Mul(hn::Set(d, cc[k]), x));
      hi = hn::Add(hi, hn::Mul(hn::Set(d, cr[k]), x));
    }
    hn::StoreU(lo, d, lo_out + i);
    hn::StoreU(hi, d, hi_out + i);
  }
}

// Work lines of the steps along z carry their periodic extension on both
// sides: the values before the line's start (left) and after its end (right)
// that the taps reach, within this much room.
constexpr int64_t margin_room = 32;

// margins: how far the taps of a step reach before and after a line: tap k
// of pair i sits at 2 i + first_tap + k.
struct margins {
  int64_t first_tap, left, right;
};
inline margins margins_of(const transform_filters& f) {
  const int64_t first = static_cast<int64_t>(f.tap_offset) + 2;
  return {first, std::max<int64_t>(0, -first), std::max<int64_t>(0, first + f.filter_length - 2)};
}

// WideStep: one forward step of a line src of nt values whose margins are
// set, nt / 2 at least a vector and at least the margins. For a vector of
// consecutive pairs, taps 2q and 2q + 1 are the values at even and at odd
// places of the 2 * lanes values from the pairs' first tap + 2q, taken
// apart in registers. The smooth half goes to lo_dst with its own margins
// (for the next step), the detail half to hi_dst. Each sum runs from 0 in
// tap order, as filter_step. The margins are stored as soon as their values are
// made and read as late as can be (the pair whose taps reach the left margin
// last), so that no load waits on a store still in flight.
template <int NC>
HWY_INLINE void WideStep(const transform_filters& f, const margins& mg, const double* src,
                         int64_t nt, double* lo_dst, double* hi_dst) {
  const lanes_tag d;
  const int64_t lanes = static_cast<int64_t>(hn::Lanes(d));
  const int32_t nc = NC > 0 ? NC : f.filter_length;
  const int32_t npairs = (nc + 1) / 2;
  const double* cc = f.low_pass.data();
  const double* cr = f.high_pass.data();
  const int64_t h = nt / 2;
  const bool left_first = mg.left > 0;
  for (int64_t c = 0; c < h; c += lanes) {
    // With a left margin, the first vector of pairs comes last.
    const int64_t i = left_first ? (c + lanes) % h : c;
    V lo = hn::Zero(d), hi = hn::Zero(d);
    const double* at = src + 2 * i + mg.first_tap;
    for (int32_t q = 0; q < npairs; ++q) {
      const V a0 = hn::LoadU(d, at + 2 * q), a1 = hn::LoadU(d, at + 2 * q + lanes);
      const V e = hn::ConcatEven(d, a1, a0);
      lo = hn::Add(lo, hn::Mul(hn::Set(d, cc[2 * q]), e));
      hi = hn::Add(hi, hn::Mul(hn::Set(d, cr[2 * q]), e));
      if (2 * q + 1 < nc) {
        const V o = hn::ConcatOdd(d, a1, a0);
        lo = hn::Add(lo, hn::Mul(hn::Set(d, cc[2 * q + 1]), o));
        hi = hn::Add(hi, hn::Mul(hn::Set(d, cr[2 * q + 1]), o));
      }
    }
    hn::StoreU(lo, d, lo_dst + i);
    hn::StoreU(hi, d, hi_dst + i);
    // The next step's margins: its line is lo_dst[0, h).
    if (i < mg.right) hn::StoreU(lo, d, lo_dst + h + i);
    if (i + lanes > h - mg.left) hn::StoreU(lo, d, lo_dst + i - h);
  }
}

// ColumnForward: all the forward steps of the line v of n values (n > 4,
// its margins set) into out. The long steps go through WideStep, their
// smooth halves to the work line the step before didn't read (v itself is
// the first one, so it is overwritten); the short ones (8 values and less)
// through ColumnStep on narrower vectors.
template <int NC>
HWY_INLINE void ColumnForward(const transform_filters& f, double* v, int64_t n, double* out,
                              double* other, double* ev, double* od) {
  const lanes_tag d;
  const hn::CappedTag<double, 4> d4;
  const hn::CappedTag<double, 2> d2;
  const margins mg = margins_of(f);
  double* src = v;
  double* dst = other;
  for (int64_t nt = n; nt >= 4; nt >>= 1) {
    const int64_t h = nt / 2;
    if (nt >= 16 && h >= static_cast<int64_t>(hn::Lanes(d))) {
      WideStep<NC>(f, mg, src, nt, dst, out + h);
    } else {
      double* lo = nt == 4 ? out : dst;
      if (h >= static_cast<int64_t>(hn::Lanes(d)))
        ColumnStep<NC>(d, f, src, nt, lo, out + h, ev, od);
      else if (h >= static_cast<int64_t>(hn::Lanes(d4)))
        ColumnStep<NC>(d4, f, src, nt, lo, out + h, ev, od);
      else
        ColumnStep<NC>(d2, f, src, nt, lo, out + h, ev, od);
    }
    std::swap(src, dst);
  }
}

void ColumnsForward(const transform_filters& f, const double* row, const int32_t* map,
                    const double* plain, int32_t ncols, int32_t nz, int64_t zp, double* out,
                    double* work) {
  const std::size_t lz = static_cast<std::size_t>(zp);
  const std::size_t room = static_cast<std::size_t>(margin_room);
  double* ext = work + room;
  double* other = ext + lz + 2 * room;
  double* ev = other + lz / 2 + room;
  double* od = ev + 2 * max_taps;
  const margins mg = margins_of(f);
  for (int32_t c = 0; c < ncols; ++c) {
    double* col = out + static_cast<std::size_t>(c) * lz;
    const std::size_t first = static_cast<std::size_t>(c) * static_cast<std::size_t>(nz);
    // A column whose cells are all active holds consecutive values of the row.
    const double* run = plain != nullptr ? plain + first : nullptr;
    if (map != nullptr && nz > 0 && map[first] > 0 &&
        map[first + static_cast<std::size_t>(nz) - 1] == map[first] + nz - 1)
      run = row + (map[first] - 1);
    bool any = false;
    if (run != nullptr) {
      for (int32_t k = 0; k < nz; ++k) {
        ext[k] = run[k];
        any |= run[k] != 0.0;
      }
    } else {
      for (int32_t k = 0; k < nz; ++k) {
        const int32_t m = map[first + static_cast<std::size_t>(k)];
        const double x = m > 0 ? row[m - 1] : 0.0;
        ext[k] = x;
        any |= x != 0.0;
      }
    }
    for (std::size_t p = static_cast<std::size_t>(nz); p < lz; ++p) ext[p] = 0.0;
    // A line of zeros stays as it is, as transform_3d leaves it.
    if (!any || zp <= 4) {
      std::memcpy(col, ext, lz * sizeof(double));
      continue;
    }
    for (int64_t k = 0; k < mg.left; ++k) ext[-1 - k] = ext[zp - 1 - k];
    for (int64_t k = 0; k < mg.right; ++k) ext[zp + k] = ext[k];
    switch (f.filter_length) {
      case 2: ColumnForward<2>(f, ext, zp, col, other, ev, od); break;
      case 4: ColumnForward<4>(f, ext, zp, col, other, ev, od); break;
      case 6: ColumnForward<6>(f, ext, zp, col, other, ev, od); break;
      case 8: ColumnForward<8>(f, ext, zp, col, other, ev, od); break;
      case 10: ColumnForward<10>(f, ext, zp, col, other, ev, od); break;
      case 12: ColumnForward<12>(f, ext, zp, col, other, ev, od); break;
      default: ColumnForward<0>(f, ext, zp, col, other, ev, od); break;
    }
  }
}

double CopyRowsMax(const double* src, std::size_t src_stride, double* dst, std::size_t dst_stride,
                   std::size_t width, int64_t n) {
  const lanes_tag d;
  const std::size_t lanes = hn::Lanes(d);
  V acc = hn::Zero(d);
  double m = 0.0;
  for (int64_t p = 0; p < n; ++p) {
    const double* s = src + static_cast<std::size_t>(p) * src_stride;
    double* t = dst + static_cast<std::size_t>(p) * dst_stride;
    std::size_t l = 0;
    for (; l + lanes <= width; l += lanes) {
      const V v = hn::LoadU(d, s + l);
      hn::StoreU(v, d, t + l);
      const V a = hn::Abs(v);
      // A NaN is passed over, as fmax does.
      acc = hn::Max(acc, hn::IfThenElseZero(hn::Eq(a, a), a));
    }
    for (; l < width; ++l) {
      t[l] = s[l];
      m = std::fmax(m, std::fabs(s[l]));
    }
  }
  return std::fmax(m, hn::GetLane(hn::MaxOfLanes(d, acc)));
}

double MaxAbs(const double* v, std::size_t count) {
  const lanes_tag d;
  const std::size_t lanes = hn::Lanes(d);
  V acc = hn::Zero(d);
  std::size_t i = 0;
  for (; i + lanes <= count; i += lanes) {
    const V a = hn::Abs(hn::LoadU(d, v + i));
    // A NaN is passed over, as fmax does.
    acc = hn::Max(acc, hn::IfThenElseZero(hn::Eq(a, a), a));
  }
  double m = hn::GetLane(hn::MaxOfLanes(d, acc));
  for (; i < count; ++i) m = std::fmax(m, std::fabs(v[i]));
  return m;
}

void PackKept(const double* w, std::size_t count, double t, double scale,
              std::vector<int32_t>* idx, std::vector<float>* val, kept_pack* out) {
  const lanes_tag d;
  const hn::Rebind<float, lanes_tag> df;
  const std::size_t lanes = hn::Lanes(d);
  const V vt = hn::Set(d, t), vs = hn::Set(d, scale);
  V energy = hn::Zero(d), lost = hn::Zero(d);
  idx->clear();
  val->clear();
  std::size_t p = 0;
  for (; p + lanes <= count; p += lanes) {
    const V x = hn::LoadU(d, w + p);
    const V v = hn::Mul(x, vs);
    const V vv = hn::Mul(v, v);
    energy = hn::Add(energy, vv);
    const auto kept = hn::Ge(hn::Abs(x), vt);
    if (HWY_LIKELY(hn::AllFalse(d, kept))) {
      lost = hn::Add(lost, vv);
      continue;
    }
    // A kept value loses its rounding to 32 bits.
    const V r = hn::Mul(hn::Sub(x, hn::PromoteTo(d, hn::DemoteTo(df, x))), vs);
    lost = hn::Add(lost, hn::IfThenElse(kept, hn::Mul(r, r), vv));
    uint8_t bits[8] = {};
    hn::StoreMaskBits(d, kept, bits);
    for (std::size_t l = 0; l < lanes; ++l)
      if (bits[l / 8] >> (l % 8) & 1) {
        idx->push_back(static_cast<int32_t>(p + l + 1));
        val->push_back(static_cast<float>(w[p + l]));
      }
  }
  double e = hn::GetLane(hn::SumOfLanes(d, energy));
  double lo = hn::GetLane(hn::SumOfLanes(d, lost));
  for (; p < count; ++p) {
    const double v = w[p] * scale;
    e += v * v;
    if (std::fabs(w[p]) >= t) {
      idx->push_back(static_cast<int32_t>(p + 1));
      val->push_back(static_cast<float>(w[p]));
      const double r = (w[p] - static_cast<double>(val->back())) * scale;
      lo += r * r;
    } else {
      lo += v * v;
    }
  }
  out->count = static_cast<int64_t>(idx->size());
  out->energy = e;
  out->lost = lo;
}

}  // namespace HWY_NAMESPACE
}  // namespace quolvent
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
#include "base/vector_dispatch.hpp"

namespace quolvent {

QUOLVENT_EXPORT(LinesTransform)
QUOLVENT_EXPORT(MaxAbs)
QUOLVENT_EXPORT(CopyRowsMax)
QUOLVENT_EXPORT(ColumnsForward)
QUOLVENT_EXPORT(PackKept)

void lines_transform(int64_t target, const transform_filters& f, double* a, std::size_t stride,
                     std::size_t width, int64_t n, int64_t m, bool forward, double* tmp) {
  LinesTransform_for(dispatch_index(target))(f, a, stride, width, n, m, forward,
                                                             tmp);
}

void columns_forward(int64_t target, const transform_filters& f, const double* row,
                     const int32_t* map, const double* plain, int32_t ncols, int32_t nz, int64_t zp,
                     double* out, double* work) {
  ColumnsForward_for(dispatch_index(target))(f, row, map, plain, ncols, nz, zp,
                                                             out, work);
}

double copy_rows_max(int64_t target, const double* src, std::size_t src_stride, double* dst,
                     std::size_t dst_stride, std::size_t width, int64_t n) {
  return CopyRowsMax_for(dispatch_index(target))(src, src_stride, dst, dst_stride,
                                                                 width, n);
}

double max_abs(int64_t target, const double* v, std::size_t count) {
  return MaxAbs_for(dispatch_index(target))(v, count);
}

kept_pack pack_kept(int64_t target, const double* w, std::size_t count, double t, double scale,
                    std::vector<int32_t>& idx, std::vector<float>& val) {
  kept_pack out;
  PackKept_for(dispatch_index(target))(w, count, t, scale, &idx, &val, &out);
  return out;
}

}  // namespace quolvent
#endif  // HWY_ONCE
