#include <gtest/gtest.h>

#include "run/text_io.hpp"

TEST(FreeFormat, PlaceholderReadsThreeIntegers) {
  int32_t a = 0, b = 0, c = 0;
  EXPECT_EQ(ff_read_text("1 2,3", {a, b, c}), 0);
  EXPECT_EQ(a + b + c, 6);
}
