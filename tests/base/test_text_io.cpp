// Free-format reading, line reading, a byte order mark passed over, and the stops.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <utility>
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

const std::string bom = "\xEF\xBB\xBF";

// read_all: the first integer of text by a free-format read (-1: it failed),
// then its data lines read again after a rewind.
std::pair<int32_t, std::vector<std::string>> read_all(const std::string& text) {
  file_fixture f(text);
  int32_t first = -1;
  if (ff_read(f.t, {first}) != 0) first = -1;
  text_rewind(f.t);
  std::vector<std::string> lines;
  std::string line;
  while (next_data_line(f.t, line, 100)) lines.push_back(line);
  return {first, lines};
}

}  // namespace

TEST(FreeFormat, SeparatorsRepeatsSlashesAndEmptyPlaces) {
  // Each case reads three integers that start as 7, 8, 9.
  const struct { const char* text; int status; int32_t a, b, c; } cases[] = {
      {" 1\t2 ,  3 4", 0, 1, 2, 3},  // blanks, tabs, one comma with blanks
      {"3*5", 0, 5, 5, 5},           // a repeat count
      {"2* 4", 0, 7, 8, 4},          // r empty values
      {"10 / 20 30", 0, 10, 8, 9},   // a slash ends the read
      {",,6", 0, 7, 8, 6},           // empty places at the start and between commas
      {"1 2", -1, 1, 2, 9},          // the text ends too early
      {"0*4", 1, 7, 8, 9},           // no repeat of zero
  };
  for (const auto& k : cases) {
    int32_t a = 7, b = 8, c = 9;
    EXPECT_EQ(ff_read_text(k.text, {a, b, c}), k.status) << k.text;
    EXPECT_EQ(std::vector<int32_t>({a, b, c}), std::vector<int32_t>({k.a, k.b, k.c})) << k.text;
  }
}

TEST(FreeFormat, IntegerAndFloatTokens) {
  double x = 0;
  for (const char* s : {"1.", "1e0", "1.0D0", "+1.0E+00", ".1e1"}) {
    x = 0;
    EXPECT_EQ(ff_read_text(s, {x}), 0) << s;
    EXPECT_EQ(x, 1.0) << s;
  }
  for (const char* s : {"1.0.0", "e5", ".", "1e", "inf", "nan", "1e999", "!1", "1x"})
    EXPECT_GT(ff_read_text(s, {x}), 0) << s;
  int32_t i = 0;
  // Out of range, also where 64 bits would wrap round to a small number.
  for (const char* s : {"1.0", "1e3", "2147483648", "--1", "18446744073709551617"})
    EXPECT_GT(ff_read_text(s, {i}), 0) << s;
  EXPECT_TRUE(ff_read_text("-2147483648", {i}) == 0 && i == -2147483647 - 1);
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
  std::string s = "mesh.txt ! the mesh ! again";
  cut_comment(s);
  EXPECT_EQ(s, "mesh.txt                   ");
  // A line cut at its length, a carriage return dropped; comment and blank
  // lines passed over and counted; a "!" behind the first column is no comment.
  file_fixture f(std::string(30, 'a') + "\r\n! head\n\n   \t\n  ! no comment\n3");
  std::string line;
  EXPECT_EQ(read_line(f.t, line, 10), 0);
  EXPECT_EQ(line, std::string(10, 'a'));
  long counter = 0;
  EXPECT_TRUE(next_data_line(f.t, line, 1000, &counter));
  EXPECT_EQ(line, "  ! no comment");
  EXPECT_EQ(counter, 4);
  EXPECT_TRUE(next_data_line(f.t, line, 1000, &counter));
  EXPECT_EQ(line, "3");
  EXPECT_FALSE(next_data_line(f.t, line, 1000, &counter));
  text_file t;
  EXPECT_FALSE(text_open(t, f.dir.path.string()));  // a directory is no file
}

// A UTF-8 byte order mark, as some editors write at the start of a file, is
// passed over there, also after a rewind.
TEST(ByteOrderMark, SkippedAtTheStartOnlyAndAfterARewind) {
  const auto plain = read_all("12 x\n! note\n\n" + bom + "third\n");
  EXPECT_EQ(read_all(bom + "12 x\n! note\n\n" + bom + "third\n"), plain);
  // A mark inside the file is text like any other.
  EXPECT_EQ(plain, std::make_pair(12, std::vector<std::string>{"12 x", bom + "third"}));
  // Bytes that only begin like a mark are kept.
  EXPECT_EQ(read_all("\xEF\xBB" "x\n").second, std::vector<std::string>{"\xEF\xBB" "x"});
  EXPECT_EQ(read_all("\xEF").second, std::vector<std::string>{"\xEF"});
}

// Every input file of a run, the control file first, with and without a
// mark: the run goes through (a mark read as text stops it, still with
// status 0) to the same matrix file.
TEST(ByteOrderMark, ARunReadsMarkedFilesLikePlainOnes) {
  std::string weights;  // one value a line, for all 192 cells
  for (int c = 0; c < 192; ++c) weights += "0.5\n";
  const std::vector<std::pair<std::string, std::string>> files{
      {"run.inp", "mesh.txt ! the mesh\nobs.mag\ntopo.txt\nw.txt\ndaub2\n1 0.05\n1\n"},
      {"mesh.txt", "8 6 4\n100 200 50\n8*10\n6*10\n2*5 2*10\n"},
      {"obs.mag", "! field\n60 10 50000\n60 10 1\n3\n131 224 55\n147.5 251 60\n163 233 38\n"},
      {"topo.txt", "! ground\n4\n0 0 52\n300 0 44\n0 400 52\n300 400 44\n"},
      {"w.txt", weights},
  };
  std::string outputs[2];
  for (int marked = 0; marked < 2; ++marked) {
    qt::scratch_dir dir("qbomrun");
    for (const auto& [name, text] : files)
      qt::write_file(dir.file(name), (marked ? bom : "") + text);
    EXPECT_EQ(qt::run_program(dir.path.string(), {"run.inp", "1"}).status, 0);
    outputs[marked] = qt::read_file(dir.file("dulmarok.mtx"));
  }
  EXPECT_FALSE(outputs[0].empty());
  EXPECT_EQ(outputs[1], outputs[0]);
}

// Each kind of stop: its report on the screen and in the log (the same text
// unless given apart), its error stream text and its status.
TEST(Stops, EachKindCarriesItsReportForScreenLogAndErrorStream) {
  const std::string nospace = "\nERROR: cannot write x.mtx: No space left on device\n"
                              "       (an earlier x.mtx, if any, is left as it was)\n\n";
  const struct {
    std::function<void()> stop;
    std::string screen, log, error;
    int status;
    std::string what;  // what a library caller catching std::exception reads
  } cases[] = {
      {[] { alloc_failed("kernel g"); }, "\nMemory allocation error in: kernel g\n\n", "", "", 0,
       "Memory allocation error in: kernel g"},
      {[] {  // more elements than a vector can hold
         std::vector<double> v;
         assign_or_stop(v, v.max_size() + 1, 0.0, "kernel g");
       }, "\nMemory allocation error in: kernel g\n\n", "", "", 0,
       "Memory allocation error in: kernel g"},
      {[] { stop_report_log({"", "a", "b"}); }, "", "\na\nb\n", "", 0, "a"},
      {[] { stop_text("i /= nnz"); }, "", "", "i /= nnz", 0, "i /= nnz"},
      {[] { platform_failure("cannot write x"); }, "", "", "quolvent: cannot write x", 1,
       "quolvent: cannot write x"},
      {[] { cannot_write("x.mtx", ENOSPC); }, nospace, "", "", 1,
       "ERROR: cannot write x.mtx: No space left on device"},
  };
  for (const auto& k : cases) {
    qt::capture cap;
    try {
      k.stop();
      ADD_FAILURE() << "no stop";
    } catch (const stop& s) {
      EXPECT_EQ(s.error_text, k.error);
      EXPECT_EQ(s.status, k.status);
      EXPECT_STREQ(s.what(), k.what.c_str());
      cap.out.deliver(s);
    }
    EXPECT_EQ(cap.screen(), k.screen);
    EXPECT_EQ(cap.log(), k.log.empty() ? k.screen : k.log);
  }
}
