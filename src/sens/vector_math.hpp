// Arctangents and logarithms of whole arrays, by the C library's vector math:
// four at a time where the processor has AVX2, else two at a time (SSE2, which
// every x86-64 processor has), one at a time on other processors. A lane's
// result never depends on the other lanes, so on one machine a value is the
// same wherever in an array it stands, and rows don't depend on the threads.
#pragma once

#include <cstddef>

// vector_width: the width in use (4, 2 or 1).
int vector_width();

// force_vector_width: use at most `width` (benchmarks compare the widths; 0
// restores the widest the machine has). Not for use while rows are computed.
void force_vector_width(int width);

// atan_array: v[i] = atan(v[i]) for i < count.
void atan_array(double* v, std::size_t count);

// log_array: v[i] = log(v[i]) for i < count.
void log_array(double* v, std::size_t count);
