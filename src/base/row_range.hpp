// row_range: the data [first, last) (0-based) whose rows one process of a run
// computes and holds; a run of one process holds them all.
#pragma once

#include <cstdint>

namespace quolvent {

struct row_range {
  int32_t first = 0;
  int32_t last = 0;
  int32_t count() const { return last > first ? last - first : 0; }
  bool holds(int32_t i) const { return i >= first && i < last; }
};

// sum_group_rows: the per-cell sums over the rows are made group by group:
// group k holds the data sum_group_rows * k to sum_group_rows * (k + 1) - 1
// (0-based), one thread adds a group's rows in datum order and then adds
// their sums exactly into the loop's (base/exact_sum.hpp). A group is never
// split among threads or processes, so the sums are the same for any layout.
inline constexpr int32_t sum_group_rows = 16;

// all_rows: every datum of ndata.
inline row_range all_rows(int32_t ndata) { return {0, ndata > 0 ? ndata : 0}; }

// group_range: the groups [first, last) that rows overlap.
inline row_range group_range(row_range rows) {
  if (rows.count() == 0) return {0, 0};
  return {rows.first / sum_group_rows, (rows.last - 1) / sum_group_rows + 1};
}

// ends_group: datum i is the last of its group within rows.
inline bool ends_group(int32_t i, row_range rows) {
  return (i + 1) % sum_group_rows == 0 || i + 1 == rows.last;
}

// split_rows: part `part` (0-based) of `parts` contiguous blocks of rows,
// made of whole groups, the numbers of groups differing by one at most, the
// larger blocks first: rows of equal work shared evenly, in datum order. A
// part beyond the groups gets no rows.
inline row_range split_rows(row_range rows, int part, int parts) {
  if (rows.count() == 0 || parts < 1) return {rows.first, rows.first};
  const row_range g = group_range(rows);
  const int64_t g0 = g.first, groups = g.count();
  const auto edge = [&](int64_t p) {
    const int64_t base = groups / parts, extra = groups % parts;
    const int64_t row = (g0 + p * base + (p < extra ? p : extra)) * sum_group_rows;
    return static_cast<int32_t>(row < rows.first ? rows.first : row < rows.last ? row : rows.last);
  };
  return {edge(part), edge(int64_t{part} + 1)};
}

// block_of: the rows of process `part` of `parts` among ndata data.
inline row_range block_of(int32_t ndata, int part, int parts) {
  return split_rows(all_rows(ndata), part, parts);
}

}  // namespace quolvent
