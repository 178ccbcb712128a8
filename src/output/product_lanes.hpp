// The inner loops of the matrix products over blocks of columns, several
// values at a time on a vector target (base/vector_target.hpp).
//
// Each sum is taken in an order fixed by the data alone, with no fused
// multiply-add: a product has the same bits on every target and whatever
// share of the rows or cells a thread takes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "wavelet/compression.hpp"

namespace quolvent {

// sparse_row_sums
//   Given:   the target; rows [first, last) of a compressed matrix; cubes,
//            interleaved cubes of `lanes` values a place (1, 2, 4 or 8),
//            place p's at cubes[p * lanes]; out, (last - first) x lanes values.
//   Returns: out[(i - first) * lanes + l]: the sum over row i's kept
//            coefficients of value times its place's value in lane l, in
//            four partial sums (coefficient p to sum p mod 4, which hides the
//            latency of the additions), added (s0 + s1) + (s2 + s3): the
//            same bits for every count of lanes.
//   Fails:   never.
void sparse_row_sums(int64_t target, const compressed_row* rows, std::size_t first,
                     std::size_t last, const double* cubes, std::size_t lanes, double* out);

// sparse_rows_add
//   Given:   the target; nrows compressed rows; v, nrows x lanes values;
//            cursor[i], the first coefficient of row i not yet added; end,
//            the 1-based place the step stops after; cubes as
//            sparse_row_sums's.
//   Returns: each row in turn (0 first) adds value times v[i * lanes + l] of
//            its coefficients from cursor[i] up to place end into lane l of
//            their places; cursor[i] moved past them.
//   Fails:   never.
void sparse_rows_add(int64_t target, const compressed_row* rows, std::size_t nrows,
                     const double* v, std::size_t lanes, std::size_t* cursor, int32_t end,
                     double* cubes);

// Rows of an uncompressed matrix that share one pass over a block of columns.
constexpr std::size_t rows_per_pass = 6;

// dense_pass_sums
//   Given:   the target; rows_per_pass rows of 32-bit values; x, a block of
//            width values a cell (width a multiple of 8); cells [c0, c1);
//            sums, rows_per_pass x width values.
//   Returns: sums[r * width + j] plus row r's values times column j of x over
//            the cells, cell after cell.
//   Fails:   never.
void dense_pass_sums(int64_t target, const float* const* rows, const double* x, std::size_t width,
                     std::size_t c0, std::size_t c1, double* sums);

// dense_pass_add
//   Given:   the target; rows_per_pass rows of 32-bit values; w,
//            rows_per_pass x width values (width a multiple of 8); cells
//            [c0, c1); g, width values a cell.
//   Returns: g[c * width + j] plus, row after row, row r's value at c times
//            w[r * width + j], for each cell of the range.
//   Fails:   never.
void dense_pass_add(int64_t target, const float* const* rows, const double* w, std::size_t width,
                    std::size_t c0, std::size_t c1, double* g);

}  // namespace quolvent
