// row_range: the data [first, last) (0-based) whose rows one process of a run
// computes and holds; a run of one process holds them all.
#pragma once

#include <algorithm>
#include <cstdint>

namespace quolvent {

struct row_range {
  int32_t first = 0;
  int32_t last = 0;
  int32_t count() const { return last > first ? last - first : 0; }
  bool holds(int32_t i) const { return i >= first && i < last; }
};

// sum_group_rows: the per-cell sums over the rows are made group by group:
// group k holds the data g k to g (k + 1) - 1 (0-based), g =
// sum_group_rows(ndata); one thread adds a group's rows in datum order and
// then adds their sums exactly into the loop's (base/exact_sum.hpp). A group
// is never split among threads or processes, and its size comes from the
// number of data alone, so the sums are the same for any layout. Groups of 16
// from 4,096 data up (256 groups or more), else of 8: 100 data are 13 groups,
// for 16 threads as many rows at most (8) as the smallest groups would give
// them; 1,000 data are 125 groups. The exact sums of a group cost about 40 %
// of a row of 1,000,000 cells (they are 80 bytes a cell, from memory), so
// 5 % of a row in groups of 8.
inline constexpr int32_t smallest_sum_group = 8, largest_sum_group = 16;
inline int32_t sum_group_rows(int32_t ndata) {
  return ndata >= 4096 ? largest_sum_group : smallest_sum_group;
}

// all_rows: every datum of ndata.
inline row_range all_rows(int32_t ndata) { return {0, ndata > 0 ? ndata : 0}; }

// group_range: the groups [first, last) of group data that rows overlap.
inline row_range group_range(row_range rows, int32_t group) {
  if (rows.count() == 0 || group < 1) return {0, 0};
  return {rows.first / group, (rows.last - 1) / group + 1};
}

// group_rows: the data of group k (of group data) within rows.
inline row_range group_rows(row_range rows, int32_t k, int32_t group) {
  return {std::max(rows.first, k * group), std::min(rows.last, (k + 1) * group)};
}

// ends_group: datum i is the last of its group (of group data) within rows.
inline bool ends_group(int32_t i, row_range rows, int32_t group) {
  return (i + 1) % group == 0 || i + 1 == rows.last;
}

// split_rows: part `part` (0-based) of `parts` contiguous blocks of rows, in
// datum order, each starting on a group of `group` data (but for the first):
// the even share of the rows with each boundary moved to the nearest group
// boundary (and never before the end of the first group, so that a few rows
// stay with the first part), so that a block's rows differ from the even
// share by less than a group. Splitting by groups instead would give 64 and
// 36 of 100 rows to two threads in groups of 16. A part beyond the groups
// gets no rows.
inline row_range split_rows(row_range rows, int part, int parts, int32_t group) {
  if (rows.count() == 0 || parts < 1) return {rows.first, rows.first};
  const int64_t first = rows.first, count = rows.count(), g = group > 0 ? group : 1;
  const auto edge = [&](int64_t p) {
    if (p <= 0) return rows.first;
    if (p >= parts) return rows.last;
    // first + p * count / parts, to the nearest multiple of g.
    const int64_t nearest = (first * parts + p * count + g / 2 * parts) / (g * parts) * g;
    const int64_t row = std::max(nearest, (first / g + 1) * g);
    return static_cast<int32_t>(row < rows.last ? row : rows.last);
  };
  return {edge(part), edge(int64_t{part} + 1)};
}

// block_of: the rows of process `part` of `parts` among ndata data.
inline row_range block_of(int32_t ndata, int part, int parts) {
  return split_rows(all_rows(ndata), part, parts, sum_group_rows(ndata));
}

}  // namespace quolvent
