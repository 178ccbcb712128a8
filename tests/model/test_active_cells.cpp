#include <gtest/gtest.h>

#include "model/active_cells.hpp"
#include "model/cell_values.hpp"
#include "model/model.hpp"
#include "run/text_io.hpp"
#include "support/test_support.hpp"

namespace {

// A 2 x 2 x 3 mesh with column tops (iy, ix): (1,1)=0 (2,1)=1 (1,2)=3 (2,2)=0,
// so 4 of its 12 cells are above the ground.
void set_small_mesh() {
  mesh = mesh_model{};
  mesh.nx = 2;
  mesh.ny = 2;
  mesh.nz = 3;
  mesh.dx = {1, 1};
  mesh.dy = {1, 1};
  mesh.dz = {1, 1, 1};
  mesh.xn = {0, 1, 2};
  mesh.yn = {0, 1, 2};
  mesh.zn = {0, 1, 2, 3};
  top_index = {0, 1, 3, 0};
}

struct active_run {
  bool stopped = false;
  std::string screen, log;
};

// Runs get_active_cells in a scratch directory holding "flags.txt" when
// flag_text is given.
active_run active(const std::string& name, const std::string* flag_text = nullptr) {
  set_small_mesh();
  qt::scratch_dir dir("active");
  dir.cd();
  if (flag_text) qt::write_file("flags.txt", *flag_text);
  qt::capture cap;
  active_run r;
  try {
    get_active_cells(name, top_index);
  } catch (const qt::stop_caught&) {
    r.stopped = true;
  }
  r.screen = cap.screen();
  r.log = cap.log();
  return r;
}

const std::string kCountsHead =
    "                   # of cells: 2 x 2 x 3\n"
    "             total # of cells:      12\n";

}  // namespace

TEST(ActiveCells, NoFlagFileGivesTheCellsInTheGround) {
  const auto r = active("null", nullptr);
  ASSERT_FALSE(r.stopped) << r.screen;
  EXPECT_EQ(r.screen, "");
  EXPECT_EQ(cells.active_map, (std::vector<int32_t>{1, 2, 3, 0, 0, 0, 0, 4, 5, 6, 7, 8}));
  EXPECT_EQ(cells.ncell_total, 12);
  EXPECT_EQ(cells.nbelow, 8);
  EXPECT_EQ(cells.nactive, 8);
  EXPECT_EQ(cells.ninf, 0);
  EXPECT_EQ(cells.ninactive, 4);
  EXPECT_EQ(r.log, kCountsHead +
                       "        # of cells below topo:       8\n"
                       "          # of inactive cells:       4\n\n");
  EXPECT_EQ(active_at(2, 1, 2), 4);

  // Without any ground above the mesh top: no inactive line, no active line.
  set_small_mesh();
  top_index.assign(4, 0);
  qt::capture cap;
  get_active_cells("NULL and more", top_index);
  EXPECT_EQ(cells.nactive, 12);
  EXPECT_EQ(cap.log(), kCountsHead + "        # of cells below topo:      12\n\n");
}

TEST(ActiveCells, FlagFileWithInfAndInactiveCells) {
  // Flags above the ground don't count; the read runs over lines, and text
  // behind the last value, or on a line after it, is no integer: accepted.
  const std::string text = "1 -1 0\n1,1,-1\n-1 2*1\n0 -1 1 end\nthe end\n";
  const auto r = active("flags.txt  ", &text);
  ASSERT_FALSE(r.stopped) << r.screen;
  EXPECT_EQ(cells.active_map, (std::vector<int32_t>{1, -1, 0, 0, 0, 0, 0, 2, 3, 0, -2, 4}));
  EXPECT_EQ(cells.nactive, 4);
  EXPECT_EQ(cells.ninf, 2);
  EXPECT_EQ(cells.ninactive, 6);
  EXPECT_EQ(cells.nbelow, 8);
  EXPECT_EQ(r.log, "active cells were read from file: flags.txt\n" + kCountsHead +
                       "            # of active cells:       4\n"
                       "        # of cells below topo:       8\n"
                       "    # of inactive cells (inf):       2\n"
                       "          # of inactive cells:       6\n\n");
}

TEST(ActiveCells, FlagFileFailures) {
  struct flag_case {
    std::string text, words;
  };
  const flag_case cases[] = {
      {"11*1\n", "ERROR: end reached reading active cell file flags.txt"},
      {"", "ERROR: end reached reading active cell file flags.txt"},
      {"5*1 x 6*1\n", "ERROR reading active cell file flags.txt"},
      {"6*1 0.5 5*1\n", "ERROR reading active cell file flags.txt"},
      {"12*1\n0\n", "ERROR: too many values in active cell file flags.txt"},
      // The length test comes first: a bad value in a file too long isn't told.
      {"11*1 2\n1\n", "ERROR: too many values in active cell file flags.txt"},
      {"11*1 -2\n", "ERROR: values in the active cell file should be -1, 0 or 1.\nflags.txt"},
  };
  for (const auto& c : cases) {
    const auto r = active("flags.txt", &c.text);
    const std::string want = "\n" + c.words + "\n";
    EXPECT_TRUE(r.stopped) << c.text;
    EXPECT_EQ(r.screen, want) << c.text;
    EXPECT_EQ(r.log, want) << c.text;
  }
  const auto missing = active("Null", nullptr);  // only "null" and "NULL" mean no file
  EXPECT_TRUE(missing.stopped);
  EXPECT_EQ(missing.screen, "\n ERROR: active cells file not found: Null\n");
}

TEST(ActiveCells, AllCellsInactiveAfterTheCountsAreLogged) {
  set_small_mesh();
  top_index.assign(4, 3);
  qt::capture cap;
  EXPECT_THROW(get_active_cells("null", top_index), qt::stop_caught);
  EXPECT_EQ(cells.nbelow, 0);
  EXPECT_EQ(cap.screen(), "\nERROR: all cells are inactive.\n");
  EXPECT_EQ(cap.log(), kCountsHead +
                           "        # of cells below topo:       0\n"
                           "          # of inactive cells:      12\n\n"
                           "\nERROR: all cells are inactive.\n");

  // Every cell in the ground flagged 0.
  const std::string zeros = "12*0\n";
  const auto r = active("flags.txt", &zeros);
  EXPECT_TRUE(r.stopped);
  EXPECT_EQ(r.screen, "\nERROR: all cells are inactive.\n");
}

namespace {

struct values_run {
  bool stopped = false;
  std::vector<double> model;
  std::string screen, log;
};

// read_cell_values over the small mesh with no flag file (8 active cells),
// in a scratch directory holding "w.txt" when file_text is given.
values_run values(const std::string& source, const std::string* file_text = nullptr,
                  std::size_t size = 8) {
  set_small_mesh();
  {
    qt::capture quiet;
    get_active_cells("null", top_index);
  }
  qt::scratch_dir dir("values");
  dir.cd();
  if (file_text) qt::write_file("w.txt", *file_text);
  values_run r;
  r.model.assign(size, -1.0);
  qt::capture cap;
  try {
    read_cell_values(source, "weighting  ", r.model);
  } catch (const qt::stop_caught&) {
    r.stopped = true;
  }
  r.screen = cap.screen();
  r.log = cap.log();
  return r;
}

std::string cell_lines(int first, int last) {
  std::string s;
  for (int i = first; i <= last; ++i) s += std::to_string(i) + ".0\n";
  return s;
}

}  // namespace

TEST(CellValues, Constant) {
  const auto r = values("VALUE 2.5");
  ASSERT_FALSE(r.stopped);
  EXPECT_EQ(r.model, std::vector<double>(8, 2.5));
  EXPECT_EQ(r.log, "         weighting was set to:  2.5000E+00\n");
  EXPECT_EQ(r.screen, "");

  const auto two_blanks = values("VALUE  -3e-2");
  EXPECT_EQ(two_blanks.model, std::vector<double>(8, -0.03));
  EXPECT_EQ(two_blanks.log, "         weighting was set to: -3.0000E-02\n");

  for (const char* bad : {"VALUE", "VALUE ", "VALUE abc", "VALUE !1"}) {
    const auto r2 = values(bad);
    EXPECT_TRUE(r2.stopped) << bad;
    const std::string want = "\nERROR reading constant value for weighting\n" + rtrim(bad) + "\n";
    EXPECT_EQ(r2.screen, want);
    EXPECT_EQ(r2.log, want);
  }
}

TEST(CellValues, FileThroughTheActiveMap) {
  // Cells 4 to 7 of the file are above the ground: present, but dropped.
  const std::string text = "1.0 first\n2\n3\n-4\n-5\n-6\n-7\n8\n9,10\n10\n11\n12 last\n\nnot a number\n";
  const auto r = values("w.txt", &text);
  ASSERT_FALSE(r.stopped) << r.screen;
  EXPECT_EQ(r.model, (std::vector<double>{1, 2, 3, 8, 9, 10, 11, 12}));
  EXPECT_EQ(r.log, "          weighting was read from file: w.txt\n");

  const std::string blank_end = cell_lines(1, 12) + "\n\n";
  EXPECT_FALSE(values("w.txt", &blank_end).stopped);
}

TEST(CellValues, FileFailures) {
  struct value_case {
    std::string text, words;
  };
  const value_case cases[] = {
      {"1 2 3 4 5 6 7 8 9 10 11 12\n", "ERROR: end reached reading weighting file w.txt"},
      {cell_lines(1, 11), "ERROR: end reached reading weighting file w.txt"},
      {cell_lines(1, 5) + "x\n" + cell_lines(7, 12), "ERROR reading weighting file w.txt"},
      {cell_lines(1, 13), "ERROR: too many values in weighting file w.txt"},
  };
  for (const auto& c : cases) {
    const auto r = values("w.txt", &c.text);
    const std::string want = "\n" + c.words + "\n";
    EXPECT_TRUE(r.stopped) << c.text;
    EXPECT_EQ(r.screen, want) << c.text;
    EXPECT_EQ(r.log, want) << c.text;
  }
  // Lower-case "value" names a file.
  const auto lower = values("value 2.5");
  EXPECT_TRUE(lower.stopped);
  EXPECT_EQ(lower.screen, "\n ERROR: weighting file not found: value 2.5\n");
  // A model of the wrong length is an internal fault: the error stream only.
  const auto wrong = values("VALUE 1", nullptr, 12);
  EXPECT_TRUE(wrong.stopped);
  EXPECT_EQ(wrong.screen, "");
  EXPECT_EQ(wrong.log, "");
}
