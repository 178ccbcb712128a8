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

// split_rows: part `part` (0-based) of `parts` contiguous blocks of rows, in
// datum order, each starting on a group (but for the first): the even share
// of the rows with each boundary moved to the nearest group boundary (and
// never before the end of the first group, so that a few rows stay with the
// first part), so that a block's rows differ from the even share by less than
// a group. Splitting by groups instead would give 64 and 36 of 100 rows to
// two threads. A part beyond the groups gets no rows.
inline row_range split_rows(row_range rows, int part, int parts) {
  if (rows.count() == 0 || parts < 1) return {rows.first, rows.first};
  const int64_t first = rows.first, count = rows.count(), g = sum_group_rows;
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
  return split_rows(all_rows(ndata), part, parts);
}

}  // namespace quolvent
