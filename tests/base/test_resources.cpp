// Memory made ready for the row loop.
#include <gtest/gtest.h>

#include <vector>

#include "base/resources.hpp"

using namespace quolvent;

// Pages made ready for the row loop keep what they hold: the matrix's memory
// is asked for in place, never replaced by fresh zeroed pages. An unaligned
// piece of a larger buffer, an empty one and a null one.
TEST(BackWithPages, KeepsTheContents) {
  std::vector<float> v(3 << 20);
  for (std::size_t k = 0; k < v.size(); ++k) v[k] = static_cast<float>(k % 1000) + 0.5f;
  back_with_pages(v.data() + 17, (v.size() - 40) * sizeof(float));
  back_with_pages(v.data() + 5, 0);
  back_with_pages(nullptr, 1 << 20);
  for (std::size_t k = 0; k < v.size(); ++k)
    ASSERT_EQ(v[k], static_cast<float>(k % 1000) + 0.5f) << k;
}
