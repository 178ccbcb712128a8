// exact_sums: per-cell sums of non-negative terms that come out bit for bit
// the same whatever the order of the terms and however they are shared out
// among threads and processes.
//
// A term's bits are cut at fixed binary places, every 32 bits of the
// exponent range, and the pieces are added as integers into a window of four
// 64-bit limbs per cell that follows the largest term the cell has seen.
// Integer sums don't depend on the order of addition; a piece below the
// window (more than about 2^-84 of the largest term) is dropped, the same for
// every term whenever it came, because the window's places are fixed and
// only ever move up. Two sums of disjoint terms merge into the sum of all of
// them, exactly. The value is rounded once, to nearest: it is the correctly
// rounded sum of the terms but for what was dropped (at most ndata * 2^-84 of
// the largest term, far below the last bit of the sum).
//
// A limb takes pieces of at most 32 bits, so a cell holds up to 2^31 terms.
//
// The row loops add a thread's rows in double, in datum order, within a group
// of sum_group_rows consecutive data (base/row_range.hpp), and then the
// group's sums into the exact sums: the same groups for every layout, and the
// cost of an exact addition spread over a group.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace quolvent {

// exact_cell: one cell's sum: limb[j] counts units of 2^(32 (top - 3 + j) -
// 1075); top is the place of the window (the highest limb), -1 for an empty
// sum; inf_top and nan_top mark a sum that met an infinite or NaN term.
struct exact_cell {
  uint64_t limb[4];
  int32_t top;
  int32_t unused;
};
static_assert(sizeof(exact_cell) == 40);

inline constexpr int32_t exact_empty_top = -1;
inline constexpr int32_t exact_inf_top = 1 << 20;
inline constexpr int32_t exact_nan_top = exact_inf_top + 1;

// exact_raise: the window of c moved up to top (above c.top), the limbs that
// fall below it dropped. Out of line: it happens a few times per cell.
void exact_raise(exact_cell& c, int32_t top);
// exact_special: c met a term of all exponent bits set (bits: the term's bits).
void exact_special(exact_cell& c, uint64_t bits);

// exact_add: x (taken as |x|) into c.
inline void exact_add(exact_cell& c, double x) {
  const uint64_t b = std::bit_cast<uint64_t>(x) & 0x7fffffffffffffffULL;
  if (b == 0) return;
  const int32_t e = static_cast<int32_t>(b >> 52);
  if (e == 0x7ff) {
    exact_special(c, b);
    return;
  }
  // The term is m units of its last place p (subnormals share the place of
  // the smallest normal numbers).
  const int32_t p = e | static_cast<int32_t>(e == 0);
  const uint64_t m = (b & 0x000fffffffffffffULL) | (static_cast<uint64_t>(e != 0) << 52);
  const int32_t top = (p >> 5) + 2;
  if (top > c.top) exact_raise(c, top);
  const int32_t d = p - 32 * (c.top - 3);  // the term's last place above the window's first
  if (d >= 0) {
    // d < 64: the term's last place is at most 63 places above the window.
    const unsigned __int128 v = static_cast<unsigned __int128>(m) << d;
    c.limb[0] += static_cast<uint32_t>(v);
    c.limb[1] += static_cast<uint32_t>(v >> 32);
    c.limb[2] += static_cast<uint32_t>(v >> 64);
    c.limb[3] += static_cast<uint64_t>(v >> 96);
  } else if (d > -53) {
    const uint64_t v = m >> -d;
    c.limb[0] += static_cast<uint32_t>(v);
    c.limb[1] += v >> 32;
  }
}

// exact_merge: the sum of from's terms added into into (n cells each).
void exact_merge(exact_cell* into, const exact_cell* from, std::size_t n);

// exact_value: the sum, rounded to nearest.
double exact_value(const exact_cell& c);

class exact_sums {
 public:
  // assign: n empty sums. Fails: std::bad_alloc / std::length_error.
  void assign(std::size_t n);
  // release: the memory given back.
  void release();
  std::size_t size() const { return cells_.size(); }
  exact_cell* data() { return cells_.data(); }
  const exact_cell* data() const { return cells_.data(); }

  // add: x[k] (taken as |x[k]|) into the sum of cell k, for first <= k < last.
  void add(const double* x, std::size_t first, std::size_t last);
  // merge: the sums of another set of terms over the same cells.
  void merge(const exact_sums& other);
  // round: out[k] = the sum of cell k, rounded to nearest (out made size()).
  void round(std::vector<double>& out) const;

 private:
  std::vector<exact_cell> cells_;
};

// exact_adder: the threads of a loop adding rows of terms into one set of
// exact sums at once. The cells are cut into stripes, each with a lock of its
// own, and a thread goes through them from a starting stripe of its own, so
// that threads seldom wait for each other; the sums being exact, the order in
// which they come doesn't matter.
class exact_adder {
 public:
  // The sums outlive the adder.
  explicit exact_adder(exact_sums& sums);
  // add_and_clear: x[k] into the sum of cell k, for every cell; x left at 0.
  // start: any number; threads that give different ones start apart. From
  // any thread.
  void add_and_clear(double* x, int start);

 private:
  exact_sums& sums_;
  std::size_t stripes_;
  std::unique_ptr<std::mutex[]> locks_;
};

}  // namespace quolvent
