// A UTF-8 byte order mark at the start of an input file, as some editors
// write it, is passed over: the lines read are those of the file without it,
// and a run whose every input file carries one gives the same outputs.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "base/text_io.hpp"
#include "support/test_support.hpp"

using namespace quolvent;

namespace {

const std::string bom = "\xEF\xBB\xBF";

// lines_of: every line of a file holding text, by read_line after a
// free-format read of the first line's first integer (-1: the read failed),
// then again after a rewind.
struct lines_read {
  int32_t first = -1;
  std::vector<std::string> lines, again;
};

lines_read read_all(const std::string& text) {
  qt::scratch_dir dir("qbom");
  qt::write_file(dir.file("in.txt"), text);
  lines_read r;
  text_file t;
  EXPECT_TRUE(text_open(t, dir.file("in.txt")));
  if (ff_read(t, {r.first}) != 0) r.first = -1;
  std::string line;
  while (read_line(t, line, 100) == 0) r.lines.push_back(line);
  text_rewind(t);
  while (next_data_line(t, line, 100)) r.again.push_back(line);
  return r;
}

}  // namespace

TEST(ByteOrderMark, SkippedAtTheStartOnlyAndAfterARewind) {
  const lines_read plain = read_all("12 x\n! note\nsecond\n\n" + bom + "third\n");
  const lines_read marked = read_all(bom + "12 x\n! note\nsecond\n\n" + bom + "third\n");
  EXPECT_EQ(plain.first, 12);
  EXPECT_EQ(marked.first, plain.first);
  EXPECT_EQ(marked.lines, plain.lines);
  EXPECT_EQ(marked.again, plain.again);
  // A mark inside the file is text like any other.
  EXPECT_EQ(plain.lines.back(), bom + "third");
  EXPECT_EQ(plain.again, (std::vector<std::string>{"12 x", "second", bom + "third"}));

  // A mark and nothing else is an empty file; bytes that only begin like a
  // mark are kept.
  EXPECT_TRUE(read_all(bom).again.empty());
  EXPECT_EQ(read_all(bom + "\n7\n").first, 7);
  EXPECT_EQ(read_all("\xEF\xBB" "x\n").again, std::vector<std::string>{"\xEF\xBB" "x"});
  EXPECT_EQ(read_all("\xEF\n1\n").again, (std::vector<std::string>{"\xEF", "1"}));
  EXPECT_EQ(read_all("\xEF").again, std::vector<std::string>{"\xEF"});
}

// Every input file of a run, the control file first, with and without a
// mark: the same matrix file, sensitivity model and log.
TEST(ByteOrderMark, ARunReadsMarkedFilesLikePlainOnes) {
  std::ostringstream weights;
  for (int c = 0; c < 8 * 6 * 4; ++c) weights << 0.5 + 0.01 * (c % 17) << "\n";
  const std::vector<std::pair<std::string, std::string>> files{
      {"run.inp", "mesh.txt ! the mesh\nobs.mag\ntopo.txt\nw.txt\ndaub2\n1 0.05\n1\n"},
      {"mesh.txt", "8 6 4\n100 200 50\n8*10\n6*10\n2*5 2*10\n"},
      {"obs.mag", "! field\n60 10 50000\n60 10 1\n3\n131 224 55\n147.5 251 60\n163 233 38\n"},
      {"topo.txt", "! ground\n4\n0 0 52\n300 0 44\n0 400 52\n300 400 44\n"},
      {"w.txt", weights.str()},
  };
  std::vector<std::string> outputs[2];
  for (int marked = 0; marked < 2; ++marked) {
    qt::scratch_dir dir("qbomrun");
    for (const auto& [name, text] : files)
      qt::write_file(dir.file(name), (marked ? bom : "") + text);
    const qt::program_run r = qt::run_program(dir.path.string(), {"run.inp", "1"});
    EXPECT_EQ(r.status, 0);
    // The log without its clock times and dates.
    std::string log;
    for (const std::string& line : qt::read_lines(dir.file("quolvent.log")))
      if (line.find("time") == std::string::npos && line.find(" on: ") == std::string::npos)
        log += line + "\n";
    outputs[marked] = {qt::read_file(dir.file("dulmarok.mtx")),
                       qt::read_file(dir.file("sensitivity.txt")), log};
  }
  EXPECT_FALSE(outputs[0][0].empty());
  EXPECT_NE(outputs[0][2].find("# of borehole data:       1"), std::string::npos) << outputs[0][2];
  EXPECT_EQ(outputs[1][0], outputs[0][0]);
  EXPECT_EQ(outputs[1][1], outputs[0][1]);
  EXPECT_EQ(outputs[1][2], outputs[0][2]);
}
