// The matrix file "dulmarok.mtx": framed binary records, little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

// The largest payload of one frame; a longer record is chained over several.
inline constexpr int64_t subrecord_limit = 2147483639;

// record_block: one piece of a record's payload.
struct record_block {
  const void* data;
  std::size_t bytes;
};

// write_record: one record made of the blocks in order, framed as
// [i32 length][payload][i32 length]; above `limit` payload bytes it is split
// into frames of exactly `limit` bytes and a last one of the rest, the signs
// of the markers telling first, middle and last apart.
void write_record(std::FILE* f, const std::vector<record_block>& blocks,
                  int64_t limit = subrecord_limit);

// write_matrix: writes "dulmarok.mtx" in the current directory: the sizes, the
// nodes, the column tops, the filter, the padded extents, flag and wtz, one
// record per row (compressed records or the rows of g_full, which is then
// freed), and sens_sq. `record_limit` is the frame limit (tests lower it).
void write_matrix(int32_t n, const std::vector<double>& wtz, const std::vector<int32_t>& top_index,
                  int32_t flag, const std::vector<double>& sens_sq,
                  int64_t record_limit = subrecord_limit);
