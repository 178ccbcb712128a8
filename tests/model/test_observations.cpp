#include <gtest/gtest.h>

#include <array>

#include "model/model.hpp"
#include "model/mesh.hpp"
#include "model/observations.hpp"
#include "support/test_support.hpp"

namespace {

struct data_run {
  bool stopped = false;
  std::string screen, log;
};

data_run read_data_text(const std::string& text) {
  qt::scratch_dir dir("obs");
  dir.cd();
  qt::write_file("obs.txt", text);
  qt::capture cap;
  data_run r;
  try {
    read_data_file("obs.txt    ");
  } catch (const qt::stop_caught&) {
    r.stopped = true;
  }
  r.screen = cap.screen();
  r.log = cap.log();
  return r;
}

const std::string kHeader = "60 -10 50000\n45 5 1\n";

}  // namespace

TEST(DataFile, ReadsHeaderAndPositionsSkippingCommentsAndExtraColumns) {
  const auto r = read_data_text(
      "! a survey\n"
      "60.0 -10.0 50000.0  ! field\n"
      "\n"
      "   \n"
      "! another comment line between the header lines\n"
      "45 5 1   ! direction\n"
      "3\n"
      "1 2 3 0.5 0.01\n"
      "!\n"
      "4,5,6\n"
      "7.5 8D0 -9e1 1 2 3 4\n");
  ASSERT_FALSE(r.stopped) << r.screen;
  EXPECT_EQ(r.screen, "");
  EXPECT_EQ(obs.incl, 60.0);
  EXPECT_EQ(obs.decl, -10.0);
  EXPECT_EQ(obs.geomag, 50000.0);
  EXPECT_EQ(obs.aincl, 45.0);
  EXPECT_EQ(obs.adecl, 5.0);
  EXPECT_EQ(obs.idir, 1);
  EXPECT_EQ(obs.ndata, 3);
  EXPECT_EQ(obs.obs_x, (std::vector<double>{1, 4, 7.5}));
  EXPECT_EQ(obs.obs_y, (std::vector<double>{2, 5, 8}));
  EXPECT_EQ(obs.obs_z, (std::vector<double>{3, 6, -90}));
  EXPECT_TRUE(obs.obs_aincl.empty());
  EXPECT_TRUE(obs.obs_adecl.empty());
}

TEST(DataFile, OwnDirectionPerDatum) {
  const auto r = read_data_text("60 -10 50000\n0 0 0\n2\n1 2 3 80 -5 99\n4 5 6 70 15\n");
  ASSERT_FALSE(r.stopped) << r.screen;
  EXPECT_EQ(obs.idir, 0);
  EXPECT_EQ(obs.obs_aincl, (std::vector<double>{80, 70}));
  EXPECT_EQ(obs.obs_adecl, (std::vector<double>{-5, 15}));
}

TEST(DataFile, BundledExample) {
  qt::capture cap;
  read_data_file(QUOLVENT_SOURCE_DIR "/examples/obs.mag");
  EXPECT_EQ(obs.ndata, 403);
  EXPECT_EQ(obs.obs_x.size(), 403u);
  EXPECT_EQ(obs.obs_x[0], 15.0);
  EXPECT_EQ(obs.obs_z[0], 105.0);
}

TEST(DataFile, LinesThatCantBeReadAreQuoted) {
  struct bad_case {
    std::string text, quoted;
  };
  const std::string long_line = std::string(995, ' ') + "1 2 3 4 5";
  const bad_case cases[] = {
      {"60 x 50000\n", "60 x 50000"},
      {"60 -10\n45 5 1\n1\n0 0 0\n", "60 -10"},  // too few values
      {kHeader + "three\n", "three"},
      {kHeader + "2\n1 2 3\n1 2\n", "1 2"},
      {kHeader + "1\n 1 2 ! 3\n", " 1 2 ! 3"},    // "!" behind column 1 is no comment
      {"60 -10 50000\n45 5 0\n1\n1 2 3\t \n", "1 2 3"},  // idir 0 needs five values
      // The buffer holds 1000 characters: the direction is cut off.
      {"60 -10 50000\n45 5 0\n1\n" + long_line + "\n", std::string(995, ' ') + "1 2 3"},
  };
  for (const auto& c : cases) {
    const auto r = read_data_text(c.text);
    const std::string want = "\nERROR reading data file obs.txt\n" + c.quoted + "\n";
    EXPECT_TRUE(r.stopped) << c.text;
    EXPECT_EQ(r.screen, want) << c.text;
    EXPECT_EQ(r.log, want) << c.text;
  }
}

TEST(DataFile, HeaderValuesOutOfRange) {
  const auto idir = read_data_text("60 -10 50000\n45 5 2   ! idir\n1\n1 2 3\n");
  EXPECT_TRUE(idir.stopped);
  const std::string want_idir =
      "\nERROR: idir in data file should be 0 or 1.\n45 5 2   ! idir\n";
  EXPECT_EQ(idir.screen, want_idir);
  EXPECT_EQ(idir.log, want_idir);

  for (const char* count : {"0\n", "-5\n"}) {
    const auto r = read_data_text(kHeader + count + "1 2 3\n");
    EXPECT_TRUE(r.stopped);
    EXPECT_EQ(r.screen, "\nERROR: Number of data should be positive.\nobs.txt\n");
    EXPECT_EQ(r.log, r.screen);
  }
}

TEST(DataFile, EndReachedWhereALineIsDue) {
  const std::string want = "\nERROR: end reached when reading data file obs.txt\n";
  // An absurd count with two lines ends here, without arrays of that size.
  for (const std::string& text :
       {std::string(""), std::string("! only a comment\n\n"), kHeader, kHeader + "3\n1 2 3\n\n! c\n4 5 6\n",
        kHeader + "2147483647\n1 2 3\n4 5 6\n"}) {
    const auto r = read_data_text(text);
    EXPECT_TRUE(r.stopped) << text;
    EXPECT_EQ(r.screen, want) << text;
    EXPECT_EQ(r.log, want) << text;
  }
}

TEST(DataFile, MissingFileIsReportedWithTheWordData) {
  qt::scratch_dir dir("obs");
  dir.cd();
  qt::capture cap;
  EXPECT_THROW(read_data_file("none.obs"), qt::stop_caught);
  EXPECT_EQ(cap.screen(), "\n ERROR: data file not found: none.obs\n");
  EXPECT_EQ(cap.log(), cap.screen());
}

TEST(Locate, CellsAndNodes) {
  const std::vector<double> nodes = {0, 10, 20, 30};
  struct loc_case {
    double v;
    int32_t cell;
    double node;
  };
  const loc_case cases[] = {
      {5, 1, 10},       {15, 2, 20},     {25, 3, 30},
      {10, 1, 10},      {20, 2, 20},     {30, 3, 30},  // an inner node gets the lower cell
      {0, 1, 0},        {-5e-7, 1, 0},   {-1, 0, 0},   // the first node counts within 1e-6
      {30.5, 4, 30},    {1e300, 4, 30},
      {10 - 1e-7, 1, 10},
  };
  for (const auto& c : cases) {
    int32_t cell = -9;
    double node = -9;
    locate(c.v, nodes, 3, cell, node);
    EXPECT_EQ(cell, c.cell) << c.v;
    EXPECT_EQ(node, c.node) << c.v;
  }
  int32_t cell = -9;
  double node = -9;
  locate(3.0, std::vector<double>{1.0}, 0, cell, node);  // no cell at all
  EXPECT_EQ(cell, 1);
  EXPECT_EQ(node, 1.0);
}

namespace {

// A 3 x 2 x 4 mesh, 10 m columns, 5 m layers, top at 100 m. Column tops
// (iy, ix): (1,1)=2 (2,1)=2 (1,2)=0 (2,2)=0 (1,3)=4 (2,3)=1.
void set_classify_mesh() {
  mesh = mesh_model{};
  mesh.nx = 3;
  mesh.ny = 2;
  mesh.nz = 4;
  mesh.dx = {10, 10, 10};
  mesh.dy = {10, 10};
  mesh.dz = {5, 5, 5, 5};
  mesh.xn = {0, 10, 20, 30};
  mesh.yn = {0, 10, 20};
  mesh.zn = {0, 5, 10, 15, 20};
  mesh.z0 = 100;
  top_index = {2, 2, 0, 0, 4, 1};
}

void set_data(const std::vector<std::array<double, 3>>& xyz) {
  obs = obs_set{};
  obs.ndata = static_cast<int32_t>(xyz.size());
  for (const auto& p : xyz) {
    obs.obs_x.push_back(p[0]);
    obs.obs_y.push_back(p[1]);
    obs.obs_z.push_back(p[2]);
  }
}

struct classify_run {
  bool stopped = false;
  std::vector<int32_t> type;
  int32_t kind = -99;
  std::string screen, log;
};

classify_run classify(const std::vector<std::array<double, 3>>& xyz) {
  set_classify_mesh();
  set_data(xyz);
  classify_run r;
  r.type.assign(xyz.size(), 7);
  qt::capture cap;
  try {
    classify_data(r.type, r.kind);
  } catch (const qt::stop_caught&) {
    r.stopped = true;
  }
  r.screen = cap.screen();
  r.log = cap.log();
  return r;
}

std::string counts(int nsurf, int nbore) {
  return "           # of surface  data:" + std::string(8 - std::to_string(nsurf).size(), ' ') +
         std::to_string(nsurf) + "\n           # of borehole data:" +
         std::string(8 - std::to_string(nbore).size(), ' ') + std::to_string(nbore) + "\n\n";
}

}  // namespace

TEST(ClassifyData, SurfaceAndBoreholeByDepthAgainstTheColumnTop) {
  const auto r = classify({
      {5, 5, 99},    // 1: in the air above a column with two air layers
      {5, 5, 88},    // 2: in the ground (layer 3)
      {5, 5, 90},    // 3: on the ground: the bottom node of the last air layer
      {5, 5, 93},    // 4: inside the last air cell
      {5, 5, 95},    // 5: on a node between two air layers
      {15, 5, 100},  // 6: at the mesh top where there is no air: on the ground
      {15, 5, 100.0000005},  // 7: within 1e-6 above it, still on the ground
      {15, 5, 101},  // 8: above the mesh top
      {25, 15, 99},  // 9: one air layer there, layer 1
      {25, 15, 94},  // 10: layer 2, below the ground
  });
  ASSERT_FALSE(r.stopped) << r.screen;
  EXPECT_EQ(r.type, (std::vector<int32_t>{1, -1, -1, 1, 1, -1, -1, 1, 1, -1}));
  EXPECT_EQ(r.kind, 0);
  EXPECT_EQ(r.screen, counts(5, 5));
  EXPECT_EQ(r.log, counts(5, 5) + "\n  Indices of borehole data:\n     2\n     3\n     6\n     7\n    10\n\n");
}

TEST(ClassifyData, ColumnBoundaryTakesTheLowestNeighbour) {
  const auto r = classify({
      {10, 5, 97},   // 1: on x = 10 between tops 2 and 0: judged by 0
      {9.99, 5, 97}, // 2: just inside column (1,1): air
      {20, 15, 99},  // 3: on x = 20 between tops 0 and 1 (iy 2): judged by 0
      {25, 10, 94},  // 4: on y = 10 between tops 4 and 1: judged by 1, layer 2
      {25, 9.9, 94}, // 5: inside the column with top 4: air
  });
  ASSERT_FALSE(r.stopped) << r.screen;
  EXPECT_EQ(r.type, (std::vector<int32_t>{-1, 1, -1, -1, 1}));
}

TEST(ClassifyData, OutsideTheMeshInPlanIsSurface) {
  const auto r = classify({{-5, 5, 80}, {35, 5, 80}, {5, -1, 80}, {5, 25, 80}, {-1e300, 1e300, -1e300}});
  ASSERT_FALSE(r.stopped);
  EXPECT_EQ(r.type, (std::vector<int32_t>(5, 1)));
  EXPECT_EQ(r.kind, 1);
  EXPECT_EQ(r.log, counts(5, 0));  // no index list without borehole data
}

TEST(ClassifyData, AllBorehole) {
  const auto r = classify({{15, 15, 50}, {5, 15, 85}});
  ASSERT_FALSE(r.stopped);
  EXPECT_EQ(r.type, (std::vector<int32_t>{-1, -1}));
  EXPECT_EQ(r.kind, -1);
}

TEST(ClassifyData, BoreholeDataOnEdgesAreLoggedThenStop) {
  const auto r = classify({
      {5, 5, 80},     // 1: borehole, inside a cell
      {10, 5, 90},    // 2: borehole on x = 10 and on a layer node: an edge
      {10, 10, 105},  // 3: surface datum on a vertical edge: not reported
      {10, 10, 93},   // 4: on x and y: the lowest touching column has no air
      {15, 15, 95},   // 5: on a layer node only: a face, not an edge
  });
  EXPECT_TRUE(r.stopped);
  EXPECT_EQ(r.screen, "\nError: there are data points on cell edges.\n");
  EXPECT_EQ(r.log,
            "Point       2: (  1.000000E+01,  5.000000E+00,  9.000000E+01) is on an edge.\n"
            "Point       4: (  1.000000E+01,  1.000000E+01,  9.300000E+01) is on an edge.\n"
            "\nError: there are data points on cell edges.\n");
}

TEST(ClassifyData, BundledExampleWithoutTopography) {
  qt::capture cap;
  read_mesh(QUOLVENT_SOURCE_DIR "/examples/mesh.txt");
  read_data_file(QUOLVENT_SOURCE_DIR "/examples/obs.mag");
  top_index.assign(static_cast<std::size_t>(mesh.nx) * mesh.ny, 0);
  std::vector<int32_t> obs_type(static_cast<std::size_t>(obs.ndata));
  int32_t data_kind = 9;
  classify_data(obs_type, data_kind);
  EXPECT_EQ(data_kind, 0);
  EXPECT_EQ(cap.screen(), counts(400, 3));
  EXPECT_EQ(cap.log(), counts(400, 3) + "\n  Indices of borehole data:\n   401\n   402\n   403\n\n");
}
