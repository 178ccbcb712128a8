// Number forms and timer lines.
#include <gtest/gtest.h>

#include "base/format.hpp"
#include "base/timing.hpp"

using namespace quolvent;

TEST(Format, ScientificFixedAndIntegerForms) {
  EXPECT_EQ(fmt_sci(1234.56, 14, 6), "  1.234560E+03");
  EXPECT_EQ(fmt_sci(-0.000123, 12, 4), " -1.2300E-04");
  EXPECT_EQ(fmt_sci(0.0, 12, 4), "  0.0000E+00");
  EXPECT_EQ(fmt_sci(1e-20, 8, 1), " 1.0E-20");
  EXPECT_EQ(fmt_fixed(0.05, 6, 4), "0.0500");
  EXPECT_EQ(fmt_fixed(75.0, 10, 2), "     75.00");
  EXPECT_EQ(fmt_int(403, 8), "     403");
  EXPECT_EQ(fmt_int(-7), "-7");
  EXPECT_EQ(fmt_int0(5, 2), "05");
  EXPECT_EQ(fmt_right("# of cells:", 14), "   # of cells:");
  EXPECT_EQ(fmt_right("uncompressed", 10), "uncompress");
  // A number too wide for its field is written whole, never as stars.
  EXPECT_EQ(fmt_int(123456789, 3), "123456789");
}

TEST(Timing, TimerLineSplitsTheSpan) {
  EXPECT_EQ(timer_line("init", 83.25), "      init cpu time:   0:01:23.25");
  EXPECT_EQ(timer_line("TOTAL", 3 * 3600 + 7 * 60 + 5.5), "     TOTAL cpu time:   3:07:05.50");
  EXPECT_EQ(timer_line("uncompress", 0.0), "uncompress cpu time:   0:00:00.00");
  EXPECT_EQ(timer_line("uncompressing", 1.0), "uncompress cpu time:   0:00:01.00");
  // Over 9999 hours the hours outgrow their four columns.
  EXPECT_EQ(timer_line("sens", 10000.0 * 3600.0), "      sens cpu time:10000:00:00.00");
  EXPECT_EQ(timer_line("sens", -5.0), "      sens cpu time:   0:00:00.00");
}

TEST(Timing, ModeZeroPrintsNothingAndOtherModesPrintOneLineOnEachStream) {
  std::FILE* a = std::tmpfile();
  std::FILE* b = std::tmpfile();
  phase_clock clock;
  clock.phase_timer("start", 0, a, b);
  clock.phase_timer("init", 1, a, b);
  clock.phase_timer("odd", 7, a, nullptr);
  std::fflush(a);
  std::fflush(b);
  EXPECT_EQ(std::ftell(a), 2 * 34);
  EXPECT_EQ(std::ftell(b), 34);
  std::fclose(a);
  std::fclose(b);
}

TEST(Timing, LocalSecondsStayWithinTheYear) {
  const double t = local_seconds();
  EXPECT_GE(t, 0.0);
  EXPECT_LT(t, 366.0 * 86400.0);
}
