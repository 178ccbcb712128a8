// COMPRESS_ROW_MOD: one row at a time into the sparse wavelet store, and the
// test model that checks what the compression cost.
//
// The routines themselves (COMPRESS_ROW, ALLOC_WORK, DEALLOC_WORK,
// transform_test_model, dot_compressed, report_compression) are declared in
// wavelet/compression.hpp beside the store they fill.
#pragma once

#include <vector>

#include "wavelet/compression.hpp"

// test_model_w: the wavelet coefficients of the test model times wtz, ncube
// values; written once by transform_test_model, read by dot_compressed.
extern std::vector<double> test_model_w;

// kept_count
// Given: a cube of ncube values and an absolute threshold t.
// Returns: the number of values v with |v| >= t.
// Fails: never. Calls: nothing.
int64_t kept_count(const double* cube, int64_t count, double t);
