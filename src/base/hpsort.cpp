// Heap sort: in place, no extra memory, n log n in the worst case, which
// matters for the long sample rows of the threshold estimate.
#include "base/hpsort.hpp"

#include <utility>

namespace quolvent {

namespace {

// sift_down: restores the max-heap below position root within a[0..end-1].
void sift_down(double* a, int64_t root, int64_t end) {
  double v = a[root];
  int64_t i = root;
  for (;;) {
    int64_t child = 2 * i + 1;
    if (child >= end) break;
    if (child + 1 < end && a[child] < a[child + 1]) ++child;
    if (!(v < a[child])) break;
    a[i] = a[child];
    i = child;
  }
  a[i] = v;
}

}  // namespace

void hpsort(double* a, int64_t n) {
  if (a == nullptr || n < 2) return;
  for (int64_t root = n / 2 - 1; root >= 0; --root) sift_down(a, root, n);
  for (int64_t end = n - 1; end > 0; --end) {
    std::swap(a[0], a[end]);
    sift_down(a, 0, end);
  }
}

}  // namespace quolvent
