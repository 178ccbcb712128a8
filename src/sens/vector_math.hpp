// Arctangents and logarithms of whole arrays, by the C library's vector math:
// four at a time where the processor has AVX2, else two at a time (SSE2, which
// every x86-64 processor has), one at a time on other processors. A lane's
// result never depends on the other lanes, so on one machine a value is the
// same wherever in an array it stands, and rows don't depend on the threads.
#pragma once

#include <cstddef>

namespace quolvent {

// machine_vector_width: the widest width this processor runs (4, 2 or 1).
int machine_vector_width();

// atan_array: v[i] = atan(v[i]) for i < count, at most `width` lanes at a
// time (a width above the machine's is the machine's).
void atan_array(double* v, std::size_t count, int width);

// log_array: v[i] = log(v[i]) for i < count, at most `width` lanes at a time.
// 0 gives -Inf and a negative number NaN, as log does.
void log_array(double* v, std::size_t count, int width);

}  // namespace quolvent
