// Free-format reading, line reading and the stops.
#include <gtest/gtest.h>

#include <vector>

#include "run/text_io.hpp"
#include "support/test_support.hpp"

namespace {

// read_file_values: one free-format read of n doubles from a file with `text`.
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

TEST(FreeFormat, SeparatorsAreBlanksTabsSingleCommasAndLineEnds) {
  int32_t a = 0, b = 0, c = 0, d = 0, e = 0;
  EXPECT_EQ(ff_read_text(" 1\t2 ,  3,4   5 ", {a, b, c, d, e}), 0);
  EXPECT_EQ(std::vector<int32_t>({a, b, c, d, e}), std::vector<int32_t>({1, 2, 3, 4, 5}));

  file_fixture f("1 2\n\n3\n4 5 6\n7\n");
  double v[4] = {};
  EXPECT_EQ(ff_read(f.t, {std::span<double>(v, 4)}), 0);
  EXPECT_EQ(v[3], 4.0);
  // The rest of the line the read ended on is thrown away.
  int32_t next = 0;
  EXPECT_EQ(ff_read(f.t, {next}), 0);
  EXPECT_EQ(next, 7);
  EXPECT_EQ(ff_read(f.t, {next}), -1);
}

TEST(FreeFormat, RepeatCounts) {
  double w[5] = {};
  EXPECT_EQ(ff_read_text("3*10.0 20.0, 2*5", {std::span<double>(w, 5)}), 0);
  EXPECT_EQ(std::vector<double>(w, w + 5), std::vector<double>({10, 10, 10, 20, 5}));
  // A repeat longer than the read needs is cut; "r*" leaves r values alone.
  int32_t a = 7, b = 8, c = 9;
  EXPECT_EQ(ff_read_text("2* 4", {a, b, c}), 0);
  EXPECT_EQ(a, 7);
  EXPECT_EQ(b, 8);
  EXPECT_EQ(c, 4);
  EXPECT_GT(ff_read_text("0*4", {a}), 0);
  EXPECT_GT(ff_read_text("-2*4", {a}), 0);
  EXPECT_GT(ff_read_text("x*4", {a}), 0);
}

TEST(FreeFormat, SlashAndEmptyPlacesLeaveValuesAlone) {
  int32_t a = 1, b = 2, c = 3;
  EXPECT_EQ(ff_read_text("10 / 20 30", {a, b, c}), 0);
  EXPECT_EQ(a, 10);
  EXPECT_EQ(b, 2);
  EXPECT_EQ(c, 3);
  EXPECT_EQ(ff_read_text("5,,6", {a, b, c}), 0);
  EXPECT_EQ(a, 5);
  EXPECT_EQ(b, 2);
  EXPECT_EQ(c, 6);
  EXPECT_EQ(ff_read_text(",7", {a, b}), 0);
  EXPECT_EQ(a, 5);
  EXPECT_EQ(b, 7);
  EXPECT_EQ(ff_read_text("8/", {a, b}), 0);
  EXPECT_EQ(a, 8);
  EXPECT_EQ(b, 7);
}

TEST(FreeFormat, IntegerAndFloatTokens) {
  double x = 0;
  for (const char* s : {"1", "1.", "1.0", "1e0", "1.0D0", "1d0", "+1.0E+00", ".1e1", "10.0e-1"}) {
    x = 0;
    EXPECT_EQ(ff_read_text(s, {x}), 0) << s;
    EXPECT_EQ(x, 1.0) << s;
  }
  for (const char* s : {"1.0.0", "e5", ".", "1e", "1e+", "abc", "inf", "nan", "1e999", "!1", "1x"}) {
    EXPECT_GT(ff_read_text(s, {x}), 0) << s;
  }
  int32_t i = 0;
  EXPECT_EQ(ff_read_text("-42", {i}), 0);
  EXPECT_EQ(i, -42);
  for (const char* s : {"1.0", "1e3", "2147483648", "--1", "+"}) EXPECT_GT(ff_read_text(s, {i}), 0) << s;
  EXPECT_EQ(ff_read_text("-2147483648", {i}), 0);
  EXPECT_EQ(i, -2147483647 - 1);
}

TEST(FreeFormat, EndOfTextOrFileGivesMinusOne) {
  int32_t a = 0, b = 0;
  EXPECT_EQ(ff_read_text("1", {a, b}), -1);
  EXPECT_EQ(ff_read_text("", {a}), -1);
  EXPECT_EQ(ff_read_text("   ", {a}), -1);
  file_fixture f("1\n2\n");
  int32_t v[3] = {};
  EXPECT_EQ(ff_read(f.t, {std::span<int32_t>(v, 3)}), -1);
}

TEST(FreeFormat, ExclamationMarkIsNoCommentInAFile) {
  file_fixture f("1 2 ! three\n");
  int32_t a = 0, b = 0, c = 0;
  EXPECT_GT(ff_read(f.t, {a, b, c}), 0);
}

TEST(Lines, CutCommentBlanksFromTheFirstMark) {
  std::string s = "mesh.txt ! the mesh ! again";
  cut_comment(s);
  EXPECT_EQ(s, "mesh.txt                   ");
  std::string t = "!all";
  cut_comment(t);
  EXPECT_EQ(t, "    ");
  std::string u = "plain";
  cut_comment(u);
  EXPECT_EQ(u, "plain");
}

TEST(Lines, ReadLineCutsAtTheWidthAndDropsCarriageReturns) {
  file_fixture f(std::string(30, 'a') + "\r\nlast");
  std::string line;
  EXPECT_EQ(read_line(f.t, line, 10), 0);
  EXPECT_EQ(line, std::string(10, 'a'));
  EXPECT_EQ(read_line(f.t, line, 10), 0);
  EXPECT_EQ(line, "last");
  EXPECT_EQ(read_line(f.t, line, 10), -1);
}

TEST(Lines, NextDataLineSkipsCommentsAndBlanksAndCountsThem) {
  file_fixture f("! head\n\n   \t\n 1 2\n!x\n3\n");
  std::string line;
  long counter = 0;
  EXPECT_TRUE(next_data_line(f.t, line, 1000, &counter));
  EXPECT_EQ(line, " 1 2");
  EXPECT_EQ(counter, 4);
  EXPECT_TRUE(next_data_line(f.t, line, 1000, &counter));
  EXPECT_EQ(line, "3");
  EXPECT_EQ(counter, 6);
  EXPECT_FALSE(next_data_line(f.t, line, 1000, &counter));
  // A "!" behind the first column is no comment line.
  file_fixture g("  ! not a comment\n");
  EXPECT_TRUE(next_data_line(g.t, line, 1000));
  int32_t v = 0;
  EXPECT_GT(ff_read_text(line, {v}), 0);
}

TEST(Files, DirectoriesAndMissingFilesDoNotOpen) {
  qt::scratch_dir d("qtio");
  text_file t;
  EXPECT_FALSE(text_open(t, d.path.string()));
  EXPECT_FALSE(text_open(t, d.file("absent")));
}

TEST(Stops, ReportsGoToScreenThenLogWithTheirExactWords) {
  {
    qt::capture cap;
    EXPECT_THROW(file_not_found("mesh  ", "mesh.txt   "), qt::stop_caught);
    EXPECT_EQ(cap.screen(), "\n ERROR: mesh file not found: mesh.txt\n");
    EXPECT_EQ(cap.log(), cap.screen());
  }
  {
    qt::capture cap;
    EXPECT_THROW(alloc_failed("kernel g"), qt::stop_caught);
    EXPECT_EQ(cap.screen(), "\nMemory allocation error in: kernel g\n\n");
    EXPECT_EQ(cap.log(), cap.screen());
  }
}

TEST(Stops, ProcessExitsWithStatusZero) {
  EXPECT_EXIT(stop_text("i /= nnz"), testing::ExitedWithCode(0), "i /= nnz");
}
