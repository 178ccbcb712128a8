// Free-format reading, line reading and the stops.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <vector>

#include "base/stop.hpp"
#include "base/text_io.hpp"
#include "support/test_support.hpp"

using namespace quolvent;

namespace {

// A text file in a scratch directory, open for reading.
struct file_fixture {
  qt::scratch_dir dir{"qtio"};
  text_file t;
  explicit file_fixture(const std::string& text) {
    qt::write_file(dir.file("in.txt"), text);
    EXPECT_TRUE(text_open(t, dir.file("in.txt")));
  }
  ~file_fixture() { text_close(t); }
};

}  // namespace

TEST(FreeFormat, SeparatorsRepeatsSlashesAndEmptyPlaces) {
  // Each case reads three integers that start as 7, 8, 9.
  const struct { const char* text; int status; int32_t a, b, c; } cases[] = {
      {" 1\t2 ,  3 4", 0, 1, 2, 3},  // blanks, tabs, one comma with blanks
      {"3*5", 0, 5, 5, 5},           // a repeat count
      {"2* 4", 0, 7, 8, 4},          // r empty values
      {"10 / 20 30", 0, 10, 8, 9},   // a slash ends the read
      {"5,,6", 0, 5, 8, 6},          // an empty place between commas
      {",1/", 0, 7, 1, 9},           // an empty place at the start
      {"1 2", -1, 1, 2, 9},          // the text ends too early
      {"0*4", 1, 7, 8, 9},           // no repeat of zero
      {"1 x 3", 1, 1, 8, 9},         // a bad token
  };
  for (const auto& k : cases) {
    int32_t a = 7, b = 8, c = 9;
    EXPECT_EQ(ff_read_text(k.text, {a, b, c}), k.status) << k.text;
    EXPECT_EQ(std::vector<int32_t>({a, b, c}), std::vector<int32_t>({k.a, k.b, k.c})) << k.text;
  }
}

TEST(FreeFormat, IntegerAndFloatTokens) {
  for (const char* s : {"1", "1.", "1.0", "1e0", "1.0D0", "1d0", "+1.0E+00", ".1e1", "10.0e-1"}) {
    double x = 0;
    EXPECT_EQ(ff_read_text(s, {x}), 0) << s;
    EXPECT_EQ(x, 1.0) << s;
  }
  double x = 0;
  for (const char* s : {"1.0.0", "e5", ".", "1e", "abc", "inf", "nan", "1e999", "!1", "1x"})
    EXPECT_GT(ff_read_text(s, {x}), 0) << s;
  int32_t i = 0;
  for (const char* s : {"1.0", "1e3", "2147483648", "--1", "+"}) EXPECT_GT(ff_read_text(s, {i}), 0) << s;
  EXPECT_EQ(ff_read_text("-2147483648", {i}), 0);
  EXPECT_EQ(i, -2147483647 - 1);
}

TEST(FreeFormat, AFileReadRunsOverLinesAndDropsTheRestOfItsLastLine) {
  file_fixture f("1 2\n\n3*4\n5 6 ! seven\n8\n");
  double v[5] = {};
  EXPECT_EQ(ff_read(f.t, {std::span<double>(v, 5)}), 0);
  EXPECT_EQ(std::vector<double>(v, v + 5), std::vector<double>({1, 2, 4, 4, 4}));
  int32_t a = 0, b = 0, c = 0;
  EXPECT_GT(ff_read(f.t, {a, b, c}), 0);  // a "!" is no comment in a free-format read
  EXPECT_EQ(ff_read(f.t, {a}), 0);
  EXPECT_EQ(a, 8);
  EXPECT_EQ(ff_read(f.t, {a}), -1);
}

TEST(Lines, CutCommentReadLineAndNextDataLine) {
  std::string s = "mesh.txt ! the mesh ! again", u = "plain";
  cut_comment(s);
  cut_comment(u);
  EXPECT_EQ(s, "mesh.txt                   ");
  EXPECT_EQ(u, "plain");

  file_fixture f(std::string(30, 'a') + "\r\n! head\n\n   \t\n  ! no comment\n3");
  std::string line;
  EXPECT_EQ(read_line(f.t, line, 10), 0);
  EXPECT_EQ(line, std::string(10, 'a'));
  long counter = 0;
  EXPECT_TRUE(next_data_line(f.t, line, 1000, &counter));
  EXPECT_EQ(line, "  ! no comment");  // a "!" behind the first column is no comment
  EXPECT_EQ(counter, 4);
  EXPECT_TRUE(next_data_line(f.t, line, 1000, &counter));
  EXPECT_EQ(line, "3");
  EXPECT_FALSE(next_data_line(f.t, line, 1000, &counter));
  EXPECT_EQ(counter, 5);

  qt::scratch_dir d("qtio");
  text_file t;
  EXPECT_FALSE(text_open(t, d.path.string()));  // a directory is no file
  EXPECT_FALSE(text_open(t, d.file("absent")));
}

TEST(Stops, EachKindCarriesItsReportForScreenLogAndErrorStream) {
  const struct {
    std::function<void()> stop;
    const char* screen;
    const char* log;
    const char* error;
    int status;
  } cases[] = {
      {[] { file_not_found("mesh  ", "mesh.txt   "); }, "\n ERROR: mesh file not found: mesh.txt\n",
       "\n ERROR: mesh file not found: mesh.txt\n", "", 0},
      {[] { alloc_failed("kernel g"); }, "\nMemory allocation error in: kernel g\n\n",
       "\nMemory allocation error in: kernel g\n\n", "", 0},
      {[] { stop_report_log({"a", "b"}); }, "", "a\nb\n", "", 0},
      {[] { stop_text("i /= nnz"); }, "", "", "i /= nnz", 0},
      {[] { platform_failure("cannot write x"); }, "", "", "quolvent: cannot write x", 1},
      {[] { cannot_write("x.mtx", ENOSPC); },
       "\nERROR: cannot write x.mtx: No space left on device\n"
       "       (an earlier x.mtx, if any, is left as it was)\n\n",
       "\nERROR: cannot write x.mtx: No space left on device\n"
       "       (an earlier x.mtx, if any, is left as it was)\n\n", "", 1},
      {[] { stop_plain(); }, "", "", "", 0},
  };
  for (const auto& k : cases) {
    qt::capture cap;
    try {
      k.stop();
      ADD_FAILURE() << "no stop";
    } catch (const stop& s) {
      EXPECT_EQ(s.error_text, k.error);
      EXPECT_EQ(s.status, k.status);
      cap.out.deliver(s);
    }
    EXPECT_EQ(cap.screen(), k.screen);
    EXPECT_EQ(cap.log(), k.log);
  }
}
