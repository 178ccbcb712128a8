// The model input readers: file formats, surface and borehole data, and
// every kind of failure report.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "model/active_cells.hpp"
#include "model/cell_values.hpp"
#include "model/mesh.hpp"
#include "model/model.hpp"
#include "model/observations.hpp"
#include "support/test_support.hpp"

using namespace quolvent;

namespace {

struct outcome { bool stopped = false; std::string screen, log; };
// A reader handed the run's log; it keeps what it read through its captures.
using reader_fn = std::function<void(const run_log&)>;

// run: the reader called in a fresh directory holding file_text as "f.txt",
// its stop (if any) delivered as the program's entry would.
outcome run(const std::string& file_text, const reader_fn& reader) {
  qt::scratch_dir dir("model");
  dir.cd();
  qt::write_file("f.txt", file_text);
  qt::capture cap;
  const bool stopped = cap.stops([&] { reader(cap.out); });
  return {stopped, cap.screen(), cap.log()};
}

using vv = std::vector<std::vector<double>>;

// get_active_cells over 2 x 2 x 3 cells with column tops (iy, ix): (1,1)=0
// (2,1)=1 (1,2)=3 (2,2)=0 by default; the cells go to *into when given.
reader_fn flags(const std::string& name, active_cells* into = nullptr,
                std::vector<int32_t> tops = {0, 1, 3, 0}) {
  return [=](const run_log& out) {
    active_cells c = get_active_cells(name, qt::uniform_mesh(2, 2, 3, 1, 1, 1), tops, out);
    if (into) *into = std::move(c);
  };
}

// read_cell_values through the map of those tops without flags (cells 4 to 7
// in the air), into eight values of -1 beforehand; they go to *into when given.
reader_fn weights(const std::string& source, std::vector<double>* into = nullptr) {
  return [=](const run_log& out) {
    active_cells c;
    c.active_map = {1, 2, 3, 0, 0, 0, 0, 4, 5, 6, 7, 8};
    c.nactive = 8;
    std::vector<double> model(8, -1.0);
    read_cell_values(source, "weighting  ", c, model, out);
    if (into) *into = std::move(model);
  };
}

}  // namespace

TEST(Mesh, RepeatCountsReadsOverLinesAndNodesAsRunningSums) {
  mesh_model m;
  const auto read = [&](const run_log&) { m = read_mesh("f.txt   "); };
  const auto r = run("4 2 3\n100.0 -50.0 1200.5\n3*10.0 20.0\n7.5\n2.5 ! text behind the values\n"
                     "1*1 2.0 4D0 99 99\ntrailing lines are ignored\n",
                     read);
  EXPECT_EQ(r.screen + r.log, "");
  EXPECT_EQ((vv{m.xn, m.yn, m.zn, {m.z0}}),
            (vv{{100, 110, 120, 130, 150}, {-50, -42.5, -40}, {0, 1, 3, 7}, {1200.5}}));
  // A count of 0 gives one node; ten widths of 0.1 summed in turn come to just below 1.
  EXPECT_EQ(run("10 0 1\n0 5 0\n10*0.1\n\n3\n", read).screen, "");
  EXPECT_EQ((vv{{m.xn[10]}, m.yn}), (vv{{0.9999999999999999}, {5}}));
  // The length scale: the smallest width, never above 1.
  EXPECT_EQ(mesh_length_scale(m), 0.1);
  EXPECT_EQ(mesh_length_scale(qt::uniform_mesh(3, 2, 2, 20, 5, 10)), 1.0);
}

TEST(DataFile, CommentsBlankLinesExtraColumnsAndBothDirections) {
  obs_set o;
  const auto read = [&](const run_log&) { o = read_data_file("f.txt    "); };
  const auto r = run("! a survey\n60.0 -10.0 50000.0  ! field\n\n   \n! between the header lines\n"
                     "45 5 1   ! direction\n2\n1 2 3 0.5 0.01\n!\n4,5D0,-9e1\n",
                     read);
  EXPECT_EQ(r.screen + r.log, "");
  EXPECT_EQ((vv{{o.incl, o.decl, o.geomag, o.aincl, o.adecl, 1.0 * o.idir, 1.0 * o.ndata}}),
            (vv{{60, -10, 50000, 45, 5, 1, 2}}));
  EXPECT_EQ((vv{o.easting, o.northing, o.elevation, o.datum_aincl}),
            (vv{{1, 4}, {2, 5}, {3, -90}, {}}));
  ASSERT_FALSE(run("60 -10 50000\n0 0 0\n2\n1 2 3 80 -5 99\n4 5 6 70 15\n", read).stopped);
  EXPECT_EQ((vv{o.datum_aincl, o.datum_adecl}), (vv{{80, 70}, {-5, 15}}));
}

// Each reader's failures: the stop, with the same report on screen and log.
TEST(Readers, Failures) {
  const std::string e = "\nERROR reading mesh file: f.txt\n", w = e + "The cell width ";
  const std::string np = " is not positive: ";
  const std::string h = "60 -10 50000\n45 5 1\n", h0 = "60 -10 50000\n45 5 0\n";
  const std::string bad = "\nERROR reading data file f.txt\n";
  const std::string far = std::string(995, ' ') + "1 2 3";  // the 1000-character buffer cuts it
  const std::string ac = "active cell file f.txt\n";
  const reader_fn m = [](const run_log&) { read_mesh("f.txt   "); };
  const reader_fn d = [](const run_log&) { read_data_file("f.txt    "); };
  const reader_fn f = flags("f.txt"), v = weights("f.txt");
  const struct {
    reader_fn reader;
    std::string file_text, want;
  } cases[] = {
      // Read 1 drops the rest of its line; the widths run on, with no comments.
      {m, "", e}, {m, "1 1 1 0 0 0\n1\n1\n1\n", e}, {m, "1 1 1\n0 0 0\n1\n! 1\n1\n", e},
      {m, "2 1 1\n0 0 0\n1e308 1e308\n1\n1\n",
       e + "The node coordinates are too large to be represented.\n"},
      {m, "3 -1 2\n", e + "The numbers of cells nx, ny, nz must not be negative.\n"},
      {m, "65536 32768 1\n",
       e + "The mesh is too large: nx*ny and nx*ny*nz must be below 2147483648.\n"},
      // The first width that is not positive is named: easting, northing, layers.
      {m, "30 1 1\n0 0 0\n29*2 -2\n5\n5\n", w + "30 along easting" + np + "-2.000000E+00\n"},
      {m, "1 1 3\n0 0 0\n1\n5\n2, -1e-300 -7\n", w + "2 along depth" + np + "-1.000000E-300\n"},
      {m, "3 2 2\n0 0 0\n3*1\n5 0\n-5 5\n", w + "2 along northing" + np + "0.000000E+00\n"},
      {[](const run_log&) { read_mesh("none  "); }, "", "\n ERROR: mesh file not found: none\n"},
      {d, h + "1\n 1 2 ! 3\n", bad + " 1 2 ! 3\n"},  // "!" behind column 1 is no comment
      {d, h0 + "1\n1 2 3\t \n", bad + "1 2 3\n"}, {d, h0 + "1\n" + far + " 5\n", bad + far + "\n"},
      {d, "60 -10 50000\n45 5 2  ! idir\n",
       "\nERROR: idir in data file should be 0 or 1.\n45 5 2  ! idir\n"},
      {d, h + "0\n1 2 3\n", "\nERROR: Number of data should be positive.\nf.txt\n"},
      {d, h + "2147483647\n1 2 3\n", "\nERROR: end reached when reading data file f.txt\n"},
      {[](const run_log&) { read_data_file("none"); }, "", "\n ERROR: data file not found: none\n"},
      {f, "11*1\n", "\nERROR: end reached reading " + ac},
      {f, "6*1 0.5 5*1\n", "\nERROR reading " + ac},
      {f, "11*1 2\n1\n", "\nERROR: too many values in " + ac},  // the length comes first
      {f, "11*1 -2\n", "\nERROR: values in the active cell file should be -1, 0 or 1.\nf.txt\n"},
      {flags("Null"), "", "\n ERROR: active cells file not found: Null\n"},
      {v, "1 2 3 4 5 6 7 8 9 10 11 12\n", "\nERROR: end reached reading weighting file f.txt\n"},
      {weights("value 2.5"), "", "\n ERROR: weighting file not found: value 2.5\n"},
      {weights("VALUE abc"), "", "\nERROR reading constant value for weighting\nVALUE abc\n"},
      {weights("VALUE"), "", "\nERROR reading constant value for weighting\nVALUE\n"},
  };
  for (const auto& c : cases) {
    const outcome r = run(c.file_text, c.reader);
    EXPECT_TRUE(r.stopped) << c.file_text;
    EXPECT_EQ(r.screen, c.want) << c.file_text;
    EXPECT_EQ(r.log, c.want) << c.file_text;
  }
}

namespace {

// classify: data (x, y, z) over 3 x 2 x 4 cells of 10 m by 10 m by 5 m, top at 100 m,
// column tops (iy, ix): (1,1)=2 (2,1)=2 (1,2)=0 (2,2)=0 (1,3)=4 (2,3)=1. kinds: each
// datum's kind as the program numbers them (1 surface, -1 borehole), then the survey's.
outcome classify(const std::vector<std::array<double, 3>>& xyz, std::vector<int32_t>& kinds) {
  const mesh_model mesh = qt::uniform_mesh(3, 2, 4, 10, 10, 5, 0, 0, 100);
  obs_set obs = qt::field(60, 0, 60, 0);
  for (const auto& p : xyz) qt::add_datum(obs, p[0], p[1], p[2]);
  return run("", [&](const run_log& out) {
    const auto split = classify_data(mesh, mesh_length_scale(mesh), obs, {2, 2, 0, 0, 4, 1}, out);
    for (datum_kind k : split.datum_kinds) kinds.push_back(static_cast<int32_t>(k));
    kinds.push_back(static_cast<int32_t>(split.survey_kind));
  });
}

}  // namespace

TEST(ClassifyData, SurfaceOrBoreholeByTheColumnTopAndEdges) {
  std::vector<int32_t> kinds, surface, borehole;
  outcome r = classify(
      {{5, 5, 99}, {5, 5, 88}, {5, 5, 90}, {5, 5, 93},    // air, ground, on it, air
       {15, 5, 100}, {15, 5, 100.0000005}, {15, 5, 101},  // no air: on the top within 1e-6
       {25, 15, 94}, {10, 5, 97}, {9.99, 5, 97},          // on x = 10: judged by the top 0
       {25, 10, 94}, {25, 9.9, 94},                       // on y = 10: judged by the top 1
       {-5, 5, 80}, {5, 25, 80}},                         // outside in plan
      kinds);
  EXPECT_EQ(kinds, (std::vector<int32_t>{1, -1, -1, 1, -1, -1, 1, -1, -1, 1, -1, 1, 1, 1, 0}));
  EXPECT_EQ(r.screen, "           # of surface  data:       7\n"
                      "           # of borehole data:       7\n\n");
  EXPECT_EQ(r.log, r.screen + "\n  Indices of borehole data:\n     2\n     3\n     5\n     6\n"
                              "     8\n     9\n    11\n\n");
  classify({{-5, 5, 80}, {-1e300, 1e300, -1e300}}, surface);
  classify({{15, 15, 50}, {5, 15, 85}}, borehole);
  EXPECT_TRUE(surface.back() == 1 && borehole.back() == -1);
  // A cell; an edge; a surface datum on an edge; an edge by the lowest column top; a face.
  r = classify({{5, 5, 80}, {10, 5, 90}, {10, 10, 105}, {10, 10, 93}, {15, 15, 95}}, kinds);
  EXPECT_TRUE(r.stopped);
  EXPECT_EQ(r.screen, "\nError: there are data points on cell edges.\n");
  const std::string on = ") is on an edge.\n";
  EXPECT_EQ(r.log, "Point       2: (  1.000000E+01,  5.000000E+00,  9.000000E+01" + on +
                   "Point       4: (  1.000000E+01,  1.000000E+01,  9.300000E+01" + on + r.screen);
}

TEST(ActiveCells, MapAndLoggedCounts) {
  const std::string head = "                   # of cells: 2 x 2 x 3\n"
                           "             total # of cells:      12\n";
  const std::string below = "        # of cells below topo:";
  const std::string inactive = "          # of inactive cells:";
  // Flags in the air don't count; trailing text that is no integer is accepted.
  active_cells cells;
  auto r = run("1 -1 0\n1,1,-1\n-1 2*1\n0 -1 1 end\nthe end\n", flags("f.txt  ", &cells));
  EXPECT_EQ(cells.active_map, (std::vector<int32_t>{1, -1, 0, 0, 0, 0, 0, 2, 3, 0, -2, 4}));
  EXPECT_EQ(r.screen + r.log, "active cells were read from file: f.txt\n" + head +
                                  "            # of active cells:       4\n" + below +
                                  "       8\n    # of inactive cells (inf):       2\n" + inactive +
                                  "       6\n\n");
  // Without a file every cell below the ground is active; the counts are logged first.
  r = run("", flags("NULL", nullptr, {3, 3, 3, 3}));
  EXPECT_TRUE(r.stopped);
  EXPECT_EQ(r.screen, "\nERROR: all cells are inactive.\n");
  EXPECT_EQ(r.log, head + below + "       0\n" + inactive + "      12\n\n" + r.screen);
}

TEST(CellValues, ConstantsAndFilesThroughTheActiveMap) {
  std::vector<double> model;
  auto r = run("", weights("VALUE  -3e-2", &model));
  EXPECT_EQ(model, std::vector<double>(8, -0.03));
  EXPECT_EQ(r.screen + r.log, "         weighting was set to: -3.0000E-02\n");
  // Cells 4 to 7 are air: present in the file, but dropped.
  r = run("1.0 first\n2\n3\n-4\n-5\n-6\n-7\n8\n9,10\n10\n11\n12 last\n\nnot a number\n",
          weights("f.txt ", &model));
  EXPECT_EQ(model, (std::vector<double>{1, 2, 3, 8, 9, 10, 11, 12}));
  EXPECT_EQ(r.screen + r.log, "          weighting was read from file: f.txt\n");
}
