// Exact per-cell sums.
#include "base/exact_sum.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

namespace quolvent {

void exact_raise(exact_cell& c, int32_t top) {
  if (c.top >= 0) {
    const int32_t shift = top - c.top;
    for (int j = 0; j < 4; ++j) c.limb[j] = j + shift < 4 ? c.limb[j + shift] : 0;
  }
  c.top = top;
}

void exact_special(exact_cell& c, uint64_t bits) {
  c.top = std::max(c.top, bits == 0x7ff0000000000000ULL ? exact_inf_top : exact_nan_top);
}

void exact_merge(exact_cell* into, const exact_cell* from, std::size_t n) {
  for (std::size_t k = 0; k < n; ++k) {
    exact_cell& a = into[k];
    const exact_cell& b = from[k];
    if (b.top < 0) continue;
    if (b.top >= exact_inf_top || a.top >= exact_inf_top) {
      a.top = std::max(a.top, b.top);
      continue;
    }
    if (b.top > a.top) exact_raise(a, b.top);
    // b's limb j lies at a's limb j - shift; the ones below a's window go.
    const int32_t shift = a.top - b.top;
    for (int j = shift; j < 4; ++j) a.limb[j - shift] += b.limb[j];
  }
}

double exact_value(const exact_cell& c) {
  if (c.top == exact_nan_top) return std::numeric_limits<double>::quiet_NaN();
  if (c.top == exact_inf_top) return std::numeric_limits<double>::infinity();
  if (c.top < 0) return 0.0;
  // The carries: the sum as three 64-bit words, lowest first.
  uint64_t w[3] = {0, 0, 0};
  unsigned __int128 acc = 0;
  uint32_t part[6];
  for (int j = 0; j < 4; ++j) {
    acc += c.limb[j];
    part[j] = static_cast<uint32_t>(acc);
    acc >>= 32;
  }
  part[4] = static_cast<uint32_t>(acc);
  part[5] = static_cast<uint32_t>(acc >> 32);
  for (int j = 0; j < 3; ++j) w[j] = part[2 * j] | (static_cast<uint64_t>(part[2 * j + 1]) << 32);

  int hi = 2;
  while (hi >= 0 && w[hi] == 0) --hi;
  if (hi < 0) return 0.0;
  // bits: the places the sum takes; the top 64 of them, the rest a sticky bit.
  const int bits = 64 * hi + 64 - std::countl_zero(w[hi]);
  const int below = std::max(bits - 64, 0);
  uint64_t top64;
  bool sticky = false;
  if (below == 0) {
    top64 = w[0];
  } else {
    const int word = below / 64, shift = below % 64;
    top64 = w[word] >> shift;
    if (shift != 0 && word + 1 < 3) top64 |= w[word + 1] << (64 - shift);
    for (int j = 0; j < word; ++j) sticky |= w[j] != 0;
    if (shift != 0) sticky |= (w[word] << (64 - shift)) != 0;
  }
  // The conversion rounds to nearest even; the sticky bit sits below every
  // bit it looks at.
  const double lead = static_cast<double>(top64 | static_cast<uint64_t>(sticky));
  return std::ldexp(lead, below + 32 * (c.top - 3) - 1075);
}

void exact_sums::assign(std::size_t n) {
  cells_.assign(n, exact_cell{{0, 0, 0, 0}, exact_empty_top, 0});
}

void exact_sums::release() { std::vector<exact_cell>().swap(cells_); }

void exact_sums::add(const double* x, std::size_t first, std::size_t last) {
  exact_cell* c = cells_.data();
  last = std::min(last, cells_.size());
  for (std::size_t k = first; k < last; ++k) exact_add(c[k], x[k]);
}

void exact_sums::merge(const exact_sums& other) {
  exact_merge(cells_.data(), other.cells_.data(), std::min(cells_.size(), other.cells_.size()));
}

void exact_sums::round(std::vector<double>& out) const {
  out.resize(cells_.size());
  for (std::size_t k = 0; k < cells_.size(); ++k) out[k] = exact_value(cells_[k]);
}

namespace {
// Cells per stripe of an exact_adder: a stripe's sums and terms stay within
// a core's own cache while it adds them.
constexpr std::size_t stripe_cells = 2048;
}  // namespace

exact_adder::exact_adder(exact_sums& sums)
    : sums_(sums),
      stripes_((sums.size() + stripe_cells - 1) / stripe_cells),
      locks_(std::make_unique<std::mutex[]>(stripes_ > 0 ? stripes_ : 1)) {}

void exact_adder::add_and_clear(double* x, int start) {
  const std::size_t n = sums_.size();
  for (std::size_t j = 0; j < stripes_; ++j) {
    const std::size_t s = (j + static_cast<std::size_t>(start >= 0 ? start : -start)) % stripes_;
    const std::size_t first = s * stripe_cells, last = std::min(n, first + stripe_cells);
    {
      std::lock_guard<std::mutex> hold(locks_[s]);
      sums_.add(x, first, last);
    }
    std::fill(x + first, x + last, 0.0);
  }
}

}  // namespace quolvent
