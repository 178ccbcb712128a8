// Compares two matrix files of the same survey, for checking a change to
// the arithmetic of the rows against the files of the program before it:
//
//   compare_matrix OLD NEW
//
// Prints one line: for whole rows, the largest difference of an entry over
// its row's largest magnitude and in units of the last place of a 32-bit
// float; for compressed rows, the kept positions found in one file only
// (against the total kept) and the same two figures over the positions both
// keep; and the largest relative difference of the sum of squares. The exit
// status is 0 when the files hold the same sizes, 1 when they differ in
// shape or either can't be read.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "output/matrix_reader.hpp"

using namespace quolvent;

namespace {

// ulps: how many 32-bit floats lie between a and b.
int64_t ulps(float a, float b) {
  auto key = [](float f) {
    int32_t i;
    std::memcpy(&i, &f, sizeof i);
    return i < 0 ? int64_t{INT32_MIN} - i : int64_t{i};
  };
  const int64_t d = key(a) - key(b);
  return d < 0 ? -d : d;
}

struct figures {
  double worst_rel = 0.0;  // |new - old| / row max
  int64_t worst_ulps = 0;
  int64_t differing = 0, compared = 0;
  void add(float o, float n, double row_max) {
    ++compared;
    if (o == n) return;
    ++differing;
    worst_rel = std::fmax(worst_rel, std::fabs(static_cast<double>(n) - o) / row_max);
    worst_ulps = std::max(worst_ulps, ulps(o, n));
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: compare_matrix OLD NEW\n");
    return 2;
  }
  matrix_contents a, b;
  try {
    a = read_matrix_file(argv[1]);
    b = read_matrix_file(argv[2]);
  } catch (const std::exception& e) {
    std::printf("unreadable: %s\n", e.what());
    return 1;
  }
  if (a.ndata != b.ndata || a.n != b.n || a.compressed() != b.compressed() ||
      a.filter != b.filter || a.weights != b.weights || a.top_index != b.top_index) {
    std::printf("different shape, filter, weighting or column tops\n");
    return 1;
  }
  figures f;
  int64_t only_one = 0, kept = 0;
  for (int32_t i = 0; i < a.ndata; ++i) {
    if (!a.compressed()) {
      const float* o = a.full.data() + static_cast<std::size_t>(i) * a.n;
      const float* n = b.full.data() + static_cast<std::size_t>(i) * a.n;
      double row_max = 0.0;
      for (int32_t k = 0; k < a.n; ++k) row_max = std::fmax(row_max, std::fabs(o[k]));
      if (row_max == 0.0) row_max = 1.0;
      for (int32_t k = 0; k < a.n; ++k) f.add(o[k], n[k], row_max);
      continue;
    }
    const compressed_row& o = a.rows[static_cast<std::size_t>(i)];
    const compressed_row& n = b.rows[static_cast<std::size_t>(i)];
    double row_max = 0.0;
    for (float v : o.val) row_max = std::fmax(row_max, std::fabs(v));
    if (row_max == 0.0) row_max = 1.0;
    kept += static_cast<int64_t>(o.idx.size());
    std::size_t p = 0, q = 0;
    while (p < o.idx.size() || q < n.idx.size()) {
      if (q == n.idx.size() || (p < o.idx.size() && o.idx[p] < n.idx[q])) {
        ++only_one, ++p;
      } else if (p == o.idx.size() || n.idx[q] < o.idx[p]) {
        ++only_one, ++q;
      } else {
        f.add(o.val[p], n.val[q], row_max);
        ++p, ++q;
      }
    }
  }
  double sq = 0.0;
  for (std::size_t k = 0; k < a.squared_sensitivity.size(); ++k)
    if (a.squared_sensitivity[k] != b.squared_sensitivity[k])
      sq = std::fmax(sq, std::fabs(b.squared_sensitivity[k] - a.squared_sensitivity[k]) /
                             std::fabs(a.squared_sensitivity[k]));
  std::printf("%s rows %d x %d: %lld of %lld values differ, worst %.3g of the row max, %lld ulps",
              a.compressed() ? "compressed" : "whole", a.ndata, a.n,
              static_cast<long long>(f.differing), static_cast<long long>(f.compared), f.worst_rel,
              static_cast<long long>(f.worst_ulps));
  if (a.compressed())
    std::printf("; kept in one file only: %lld of %lld", static_cast<long long>(only_one),
                static_cast<long long>(kept));
  std::printf("; sum of squares: worst relative difference %.3g\n", sq);
  return 0;
}
