// Heap sort of 64-bit floats, used by the regular survey test and, for an
// array with a NaN, by sort_ascending.
#pragma once

#include <cstdint>

namespace quolvent {

// hpsort
// Given: a[0..n-1], n >= 0.
// Returns: a sorted ascending in place.
// Fails: never; n of 0 or 1 leaves a as it is.
void hpsort(double* a, int64_t n);

}  // namespace quolvent
