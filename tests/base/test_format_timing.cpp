// Number forms and timer lines, as the log and screen show them.
#include <gtest/gtest.h>

#include "base/format.hpp"
#include "base/timing.hpp"

using namespace quolvent;

TEST(Format, ScientificFixedAndIntegerForms) {
  EXPECT_EQ(fmt_sci(-0.000123, 12, 4), " -1.2300E-04");
  EXPECT_EQ(fmt_sci(0.0, 12, 4), "  0.0000E+00");
  EXPECT_EQ(fmt_fixed(75.0, 10, 2), "     75.00");
  EXPECT_EQ(fmt_int0(5, 2), "05");
  // A number too wide for its field is written whole, never as stars.
  EXPECT_EQ(fmt_int(123456789, 3), "123456789");
}

// Hours, minutes, seconds; a long name cut; hours past four columns.
TEST(Timing, TimerLineSplitsTheSpan) {
  EXPECT_EQ(timer_line("TOTAL", 3 * 3600 + 7 * 60 + 5.5), "     TOTAL cpu time:   3:07:05.50");
  EXPECT_EQ(timer_line("uncompressing", 1.0), "uncompress cpu time:   0:00:01.00");
  EXPECT_EQ(timer_line("sens", 10000.0 * 3600.0), "      sens cpu time:10000:00:00.00");
  EXPECT_EQ(timer_line("sens", -5.0), "      sens cpu time:   0:00:00.00");
}

// Mode 0 prints nothing; another mode one line on each stream given.
TEST(Timing, ModeZeroPrintsNothingAndOtherModesPrintOneLineOnEachStream) {
  std::FILE* a = std::tmpfile();
  std::FILE* b = std::tmpfile();
  phase_clock clock;
  clock.phase_timer("start", 0, a, b);
  clock.phase_timer("init", 1, a, b);
  clock.phase_timer("odd", 7, a, nullptr);
  EXPECT_EQ(std::ftell(a), 2 * 34);
  EXPECT_EQ(std::ftell(b), 34);
  std::fclose(a);
  std::fclose(b);
}
