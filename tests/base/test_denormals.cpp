// The flush of denormal numbers a run sets on its thread, and its undoing.
#include <gtest/gtest.h>

#include <cfloat>

#include "base/denormals.hpp"

namespace {

// quarter_of_smallest: DBL_MIN / 4, a denormal, computed at run time.
double quarter_of_smallest() {
  volatile double smallest = DBL_MIN;
  volatile double four = 4.0;
  return smallest / four;
}

}  // namespace

TEST(Denormals, FlushedWhileTheScopeLivesAndKeptAfter) {
  ASSERT_GT(quarter_of_smallest(), 0.0);
  {
    const quolvent::denormals_to_zero flush;
#if defined(__x86_64__) || defined(__aarch64__)
    EXPECT_EQ(quarter_of_smallest(), 0.0);
    { const quolvent::denormals_to_zero nested; }
    EXPECT_EQ(quarter_of_smallest(), 0.0);  // a nested scope gives back the outer's setting
#endif
  }
  EXPECT_GT(quarter_of_smallest(), 0.0);
}
