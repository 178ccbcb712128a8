// The model input readers: file formats, surface and borehole data, every
// failure report, and no descriptor left open by a stop of any input reader.
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

// failure: on file_text the reader stops with want on the screen and the same in the log.
struct failure { reader_fn reader; std::string file_text, want; };
void expect_reports(const std::vector<failure>& cases) {
  for (const auto& c : cases) {
    const outcome r = run(c.file_text, c.reader);
    EXPECT_TRUE(r.stopped) << c.file_text;
    EXPECT_EQ(r.screen, c.want) << c.file_text;
    EXPECT_EQ(r.log, c.want) << c.file_text;
  }
}

const auto mesh_f = [](const run_log&) { read_mesh("f.txt   "); };
const auto data_f = [](const run_log&) { read_data_file("f.txt    "); };
using vv = std::vector<std::vector<double>>;

}  // namespace

TEST(Mesh, RepeatCountsReadsOverLinesAndNodesAsRunningSums) {
  mesh_model m;
  const auto read = [&](const run_log&) { m = read_mesh("f.txt   "); };
  const auto r = run("4 2 3\n100.0 -50.0 1200.5\n3*10.0 20.0\n7.5\n2.5 ! text behind the values\n"
                     "1*1 2.0 4D0 99 99\ntrailing lines are ignored\n",
                     read);
  EXPECT_EQ(r.screen + r.log, "");
  EXPECT_EQ((std::vector<int32_t>{m.nx, m.ny, m.nz}), (std::vector<int32_t>{4, 2, 3}));
  EXPECT_EQ((vv{m.xn, m.yn, m.zn, {m.z0}}),
            (vv{{100, 110, 120, 130, 150}, {-50, -42.5, -40}, {0, 1, 3, 7}, {1200.5}}));

  // A count of 0 gives one node; ten widths of 0.1 summed in turn come to just below 1.
  EXPECT_EQ(run("10 0 1\n0 5 0\n10*0.1\n\n3\n", read).screen, "");
  EXPECT_EQ((vv{{m.xn[10]}, m.yn}), (vv{{0.9999999999999999}, {5}}));
}

TEST(Mesh, Failures) {
  const std::string e = "\nERROR reading mesh file: f.txt\n";
  const std::string big = e + "The mesh is too large: nx*ny and nx*ny*nz must be below 2147483648.\n";
  const auto f = mesh_f;
  expect_reports({
      {f, "", e}, {f, "1 1 x\n0 0 0\n1\n1\n1\n", e}, {f, "1 1 1\n0 0 0\n1e999\n1\n1\n", e},
      {f, "1 1 1 0 0 0\n1\n1\n1\n", e},                                // read 1 drops the rest of its line
      {f, "2 1 1\n0 0 0\n1\n1\n1\n", e}, {f, "1 1 1\n0 0 0\n1\n! 1\n1\n", e},  // widths run on; no comments
      {f, "2 1 1\n0 0 0\n1e308 1e308\n1\n1\n", e + "The node coordinates are too large to be represented.\n"},
      {f, "3 -1 2\n0 0 0\n3*1\n\n2*1\n", e + "The numbers of cells nx, ny, nz must not be negative.\n"},
      {f, "65536 32768 1\n", big}, {f, "1024 1024 2048\n", big},
      {f, "2147483647 2 0\n", big}, {f, "2147483647 2147483647 2147483647\n", big},
      {[](const run_log&) { read_mesh("none  "); }, "", "\n ERROR: mesh file not found: none\n"},
  });
}

TEST(DataFile, CommentsBlankLinesExtraColumnsAndBothDirections) {
  obs_set obs;
  const auto read = [&](const run_log&) { obs = read_data_file("f.txt    "); };
  const auto r = run("! a survey\n60.0 -10.0 50000.0  ! field\n\n   \n! between the header lines\n"
                     "45 5 1   ! direction\n2\n1 2 3 0.5 0.01\n!\n4,5D0,-9e1\n",
                     read);
  EXPECT_EQ(r.screen + r.log, "");
  EXPECT_EQ((vv{{obs.incl, obs.decl, obs.geomag, obs.aincl, obs.adecl}, {1.0 * obs.idir, 1.0 * obs.ndata}}),
            (vv{{60, -10, 50000, 45, 5}, {1, 2}}));
  EXPECT_EQ((vv{obs.obs_x, obs.obs_y, obs.obs_z, obs.obs_aincl}), (vv{{1, 4}, {2, 5}, {3, -90}, {}}));
  ASSERT_FALSE(run("60 -10 50000\n0 0 0\n2\n1 2 3 80 -5 99\n4 5 6 70 15\n", read).stopped);
  EXPECT_EQ((vv{obs.obs_aincl, obs.obs_adecl}), (vv{{80, 70}, {-5, 15}}));
}

TEST(DataFile, Failures) {
  const std::string h = "60 -10 50000\n45 5 1\n", h0 = "60 -10 50000\n45 5 0\n";
  const std::string bad = "\nERROR reading data file f.txt\n";
  const std::string end = "\nERROR: end reached when reading data file f.txt\n";
  const std::string count = "\nERROR: Number of data should be positive.\nf.txt\n";
  const std::string far = std::string(995, ' ') + "1 2 3";  // the 1000-character buffer cuts the rest
  const auto f = data_f;
  expect_reports({
      {f, "60 x 50000\n", bad + "60 x 50000\n"}, {f, "60 -10\n45 5 1\n1\n0 0 0\n", bad + "60 -10\n"},
      {f, h + "three\n", bad + "three\n"}, {f, h + "2\n1 2 3\n1 2\n", bad + "1 2\n"},
      {f, h + "1\n 1 2 ! 3\n", bad + " 1 2 ! 3\n"},  // "!" behind column 1 is no comment
      {f, h0 + "1\n1 2 3\t \n", bad + "1 2 3\n"}, {f, h0 + "1\n" + far + " 4 5\n", bad + far + "\n"},
      {f, "60 -10 50000\n45 5 2  ! idir\n", "\nERROR: idir in data file should be 0 or 1.\n45 5 2  ! idir\n"},
      {f, h + "0\n1 2 3\n", count}, {f, h + "-5\n1 2 3\n", count}, {f, "! only a comment\n\n", end},
      {f, h, end}, {f, h + "3\n1 2 3\n\n! c\n4 5 6\n", end},
      {f, h + "2147483647\n1 2 3\n4 5 6\n", end},  // before any array of that size
      {[](const run_log&) { read_data_file("none"); }, "", "\n ERROR: data file not found: none\n"},
  });
}

namespace {

// classified: the report of classify_data, the kinds as the numbers the
// program gives them, and the kind of the whole survey.
struct classified {
  outcome r;
  std::vector<int32_t> type;
  datum_kind kind = datum_kind::mixed;
};

// classify: data (x, y, z) over 3 x 2 x 4 cells of 10 m by 10 m by 5 m, top at
// 100 m, with column tops (iy, ix): (1,1)=2 (2,1)=2 (1,2)=0 (2,2)=0 (1,3)=4 (2,3)=1.
classified classify(const std::vector<std::array<double, 3>>& xyz) {
  const mesh_model mesh = qt::uniform_mesh(3, 2, 4, 10, 10, 5, 0, 0, 100);
  obs_set obs = qt::field(60, 0, 60, 0);
  for (const auto& p : xyz) qt::add_datum(obs, p[0], p[1], p[2]);
  classified c;
  c.r = run("", [&](const run_log& out) {
    const data_split split =
        classify_data(mesh, mesh_length_scale(mesh), obs, {2, 2, 0, 0, 4, 1}, out);
    for (datum_kind k : split.obs_type) c.type.push_back(static_cast<int32_t>(k));
    c.kind = split.data_kind;
  });
  return c;
}

}  // namespace

TEST(ClassifyData, SurfaceOrBoreholeByTheColumnTopAndEdges) {
  auto [r, type, kind] = classify(
      {{5, 5, 99}, {5, 5, 88}, {5, 5, 90}, {5, 5, 93}, {5, 5, 95},  // air, ground, on it, air
       {15, 5, 100}, {15, 5, 100.0000005}, {15, 5, 101},  // no air: on the top within 1e-6
       {25, 15, 99}, {25, 15, 94},
       {10, 5, 97}, {9.99, 5, 97}, {20, 15, 99},  // on x = 10 and 20: judged by the top 0
       {25, 10, 94}, {25, 9.9, 94},               // on y = 10: judged by the top 1
       {-5, 5, 80}, {35, 5, 80}, {5, -1, 80}, {5, 25, 80}});  // outside in plan
  EXPECT_EQ(type, (std::vector<int32_t>{1, -1, -1, 1, 1, -1, -1, 1, 1, -1, -1, 1, -1, -1, 1, 1, 1,
                                         1, 1}));
  EXPECT_EQ(kind, datum_kind::mixed);
  EXPECT_EQ(r.screen, "           # of surface  data:      11\n"
                      "           # of borehole data:       8\n\n");
  EXPECT_EQ(r.log, r.screen + "\n  Indices of borehole data:\n     2\n     3\n     6\n     7\n    10\n    11\n"
                            "    13\n    14\n\n");
  EXPECT_EQ(classify({{-5, 5, 80}, {-1e300, 1e300, -1e300}}).kind, datum_kind::surface);
  EXPECT_EQ(classify({{15, 15, 50}, {5, 15, 85}}).kind, datum_kind::borehole);

  // A cell; an edge; a surface datum on an edge; an edge by the lowest column top; a face.
  r = classify({{5, 5, 80}, {10, 5, 90}, {10, 10, 105}, {10, 10, 93}, {15, 15, 95}}).r;
  EXPECT_TRUE(r.stopped);
  EXPECT_EQ(r.screen, "\nError: there are data points on cell edges.\n");
  EXPECT_EQ(r.log, "Point       2: (  1.000000E+01,  5.000000E+00,  9.000000E+01) is on an edge.\n"
                   "Point       4: (  1.000000E+01,  1.000000E+01,  9.300000E+01) is on an edge.\n" + r.screen);
}

namespace {

// get_active_cells over 2 x 2 x 3 cells, by default with the column tops
// (iy, ix): (1,1)=0 (2,1)=1 (1,2)=3 (2,2)=0, so that 4 of the 12 are air.
// The cells go to *into when given.
reader_fn flags(const std::string& name, active_cells* into = nullptr,
                std::vector<int32_t> tops = {0, 1, 3, 0}) {
  return [=](const run_log& out) {
    active_cells c = get_active_cells(name, qt::uniform_mesh(2, 2, 3, 1, 1, 1), tops, out);
    if (into) *into = std::move(c);
  };
}

// The active cells of those tops without flags.
active_cells air_map() {
  active_cells c;
  c.active_map = {1, 2, 3, 0, 0, 0, 0, 4, 5, 6, 7, 8};
  c.nactive = 8;
  return c;
}

// read_cell_values through that map, into eight values of -1 beforehand;
// they go to *into when given.
reader_fn weights(const std::string& source, std::vector<double>* into = nullptr) {
  return [=](const run_log& out) {
    std::vector<double> model(8, -1.0);
    read_cell_values(source, "weighting  ", air_map(), model, out);
    if (into) *into = std::move(model);
  };
}

const std::string kHead =
    "                   # of cells: 2 x 2 x 3\n             total # of cells:      12\n";
const std::string kBelow = "        # of cells below topo:", kInactive = "          # of inactive cells:";

}  // namespace

TEST(ActiveCells, MapAndLoggedCountsWithAndWithoutAFlagFile) {
  active_cells cells;
  auto r = run("", flags("null", &cells));
  EXPECT_EQ(cells.active_map, (std::vector<int32_t>{1, 2, 3, 0, 0, 0, 0, 4, 5, 6, 7, 8}));
  EXPECT_EQ(r.screen + r.log, kHead + kBelow + "       8\n" + kInactive + "       4\n\n");
  EXPECT_EQ(run("", flags("NULL and more", &cells, {0, 0, 0, 0})).log,
            kHead + kBelow + "      12\n\n");

  // Flags in the air don't count; trailing text that is no integer is accepted.
  r = run("1 -1 0\n1,1,-1\n-1 2*1\n0 -1 1 end\nthe end\n", flags("f.txt  ", &cells));
  EXPECT_EQ(cells.active_map, (std::vector<int32_t>{1, -1, 0, 0, 0, 0, 0, 2, 3, 0, -2, 4}));
  EXPECT_EQ(r.screen + r.log, "active cells were read from file: f.txt\n" + kHead +
                                  "            # of active cells:       4\n" + kBelow + "       8\n" +
                                  "    # of inactive cells (inf):       2\n" + kInactive + "       6\n\n");

  r = run("", flags("null", nullptr, {3, 3, 3, 3}));  // the counts are logged first
  EXPECT_TRUE(r.stopped);
  EXPECT_EQ(r.screen, "\nERROR: all cells are inactive.\n");
  EXPECT_EQ(r.log, kHead + kBelow + "       0\n" + kInactive + "      12\n\n" + r.screen);
}

TEST(CellValues, ConstantsAndFilesThroughTheActiveMap) {
  std::vector<double> model;
  auto r = run("", weights("VALUE 2.5", &model));
  EXPECT_EQ(model, std::vector<double>(8, 2.5));
  EXPECT_EQ(r.screen + r.log, "         weighting was set to:  2.5000E+00\n");
  EXPECT_EQ(run("", weights("VALUE  -3e-2", &model)).log, "         weighting was set to: -3.0000E-02\n");
  EXPECT_EQ(model, std::vector<double>(8, -0.03));
  // Cells 4 to 7 are air: present in the file, but dropped.
  r = run("1.0 first\n2\n3\n-4\n-5\n-6\n-7\n8\n9,10\n10\n11\n12 last\n\nnot a number\n",
          weights("f.txt ", &model));
  EXPECT_EQ(model, (std::vector<double>{1, 2, 3, 8, 9, 10, 11, 12}));
  EXPECT_EQ(r.screen + r.log, "          weighting was read from file: f.txt\n");
}

TEST(ActiveCellsAndCellValues, Failures) {
  const std::string ac = "active cell file f.txt\n", wt = "weighting file f.txt\n", bad = "\nERROR reading ";
  const std::string end = "\nERROR: end reached reading ", many = "\nERROR: too many values in ";
  const std::string l11 = "1\n2\n3\n4\n5\n6\n7\n8\n9\n10\n11\n";
  const std::string constant = "\nERROR reading constant value for weighting\n";
  const auto f = flags("f.txt"), w = weights("f.txt");
  expect_reports({
      {f, "11*1\n", end + ac}, {f, "5*1 x 6*1\n", bad + ac}, {f, "6*1 0.5 5*1\n", bad + ac},
      {f, "12*1\n0\n", many + ac}, {f, "11*1 2\n1\n", many + ac},  // the length is told before the values
      {f, "11*1 -2\n", "\nERROR: values in the active cell file should be -1, 0 or 1.\nf.txt\n"},
      {flags("Null"), "", "\n ERROR: active cells file not found: Null\n"},
      {w, l11, end + wt}, {w, "1 2 3 4 5 6 7 8 9 10 11 12\n", end + wt}, {w, l11 + "12\n13\n", many + wt},
      {w, "1\n2\n3\n4\n5\nx\n7\n8\n9\n10\n11\n12\n", bad + wt},
      {weights("value 2.5"), "", "\n ERROR: weighting file not found: value 2.5\n"},
      {weights("VALUE"), "", constant + "VALUE\n"}, {weights("VALUE abc"), "", constant + "VALUE abc\n"},
  });
}
