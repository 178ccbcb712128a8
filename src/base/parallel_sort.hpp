// Sorting 64-bit floats on every thread.
#pragma once

#include <cstdint>

namespace quolvent {

// sort_ascending
// Given: a[0..n-1], n >= 0; not called from inside a parallel region (it
//   would run on one thread there).
// Returns: a sorted ascending in place (-0 before +0), the same values
//   whatever the thread count: by every thread, each a piece (from 65,536
//   values a piece) sorted by the bytes of its bits, then the pieces merged
//   pairwise, each merge cut into slices of about a piece, so that every
//   thread merges in every round. A NaN, for which no order is defined, sends
//   the whole array to hpsort.
// Fails: no memory for a copy of a: std::bad_alloc, a left as it was.
void sort_ascending(double* a, int64_t n);

}  // namespace quolvent
