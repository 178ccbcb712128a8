#include <gtest/gtest.h>

#include "model/mesh.hpp"
#include "model/model.hpp"
#include "support/test_support.hpp"

namespace {

// Reads text as a mesh file in a scratch directory; the stop, if any, is
// caught and the screen and log are kept for the caller.
struct mesh_run {
  bool stopped = false;
  std::string screen, log;
};

mesh_run read_mesh_text(const std::string& text) {
  qt::scratch_dir dir("mesh");
  dir.cd();
  qt::write_file("mesh.txt", text);
  qt::capture cap;
  mesh_run r;
  try {
    read_mesh("mesh.txt   ");
  } catch (const qt::stop_caught&) {
    r.stopped = true;
  }
  r.screen = cap.screen();
  r.log = cap.log();
  return r;
}

const std::string kReadError = "\nERROR reading mesh file: mesh.txt\n";

}  // namespace

TEST(Mesh, ReadsCountsOriginWidthsAndAccumulatesNodes) {
  const auto r = read_mesh_text(
      "4 2 3\n"
      "100.0 -50.0 1200.5\n"
      "3*10.0 20.0\n"
      "7.5,2.5  ! extra text on the line is never read\n"
      "1*1 2.0 4D0 99 99\n"
      "trailing lines are ignored\n");
  ASSERT_FALSE(r.stopped) << r.screen;
  EXPECT_EQ(r.screen, "");
  EXPECT_EQ(mesh.nx, 4);
  EXPECT_EQ(mesh.ny, 2);
  EXPECT_EQ(mesh.nz, 3);
  EXPECT_EQ(mesh.dx, (std::vector<double>{10, 10, 10, 20}));
  EXPECT_EQ(mesh.dy, (std::vector<double>{7.5, 2.5}));
  EXPECT_EQ(mesh.dz, (std::vector<double>{1, 2, 4}));
  EXPECT_EQ(mesh.xn, (std::vector<double>{100, 110, 120, 130, 150}));
  EXPECT_EQ(mesh.yn, (std::vector<double>{-50, -42.5, -40}));
  EXPECT_EQ(mesh.zn, (std::vector<double>{0, 1, 3, 7}));
  EXPECT_EQ(mesh.z0, 1200.5);
}

TEST(Mesh, NodesAreRunningSumsNotProducts) {
  // 0.1 added ten times differs from 10 * 0.1 in the last bit: the nodes must
  // be the sums, in file order.
  read_mesh_text("10 1 1\n0 0 0\n10*0.1\n1\n1\n");
  double x = 0.0;
  for (int i = 0; i < 10; ++i) x += 0.1;
  EXPECT_EQ(mesh.xn[10], x);
  EXPECT_NE(mesh.xn[10], 1.0);
}

TEST(Mesh, WidthsMayRunOverSeveralLines) {
  const auto r = read_mesh_text("5 1 2\n0 0 0\n1 2\n3\n4 5\n6\n7 8\n");
  ASSERT_FALSE(r.stopped);
  EXPECT_EQ(mesh.dx, (std::vector<double>{1, 2, 3, 4, 5}));
  EXPECT_EQ(mesh.dy, (std::vector<double>{6}));
  EXPECT_EQ(mesh.dz, (std::vector<double>{7, 8}));
}

TEST(Mesh, CountOfZeroGivesOneNode) {
  const auto r = read_mesh_text("0 1 1\n5 6 7\n\n2\n3\n");
  ASSERT_FALSE(r.stopped) << r.screen;
  EXPECT_TRUE(mesh.dx.empty());
  EXPECT_EQ(mesh.xn, (std::vector<double>{5}));
  EXPECT_EQ(mesh.zn, (std::vector<double>{0, 3}));
}

TEST(Mesh, EveryReadFailureGivesTheSameReport) {
  const char* bad[] = {
      "",                                         // read 1 at the end
      "1 1 x\n0 0 0\n1\n1\n1\n",                  // bad count
      "1 1 1 0 0 0\n1\n1\n1\n",                   // all on one line: read 2 fails
      "2 1 1\n0 0 0\n1\n1\n1\n",                  // too few widths: last read at the end
      "1 1 1\n0 0\n",                              // origin runs into the end
      "1 1 1\n0 0 0\n1\n1\n",                      // dz missing
      "1 1 1\n0 0 0\n1\n! 1\n1\n",                 // no comments in a mesh file
      "1 1 1\n0 0 0\n1e999\n1\n1\n",               // a width out of range
  };
  for (const char* text : bad) {
    const auto r = read_mesh_text(text);
    EXPECT_TRUE(r.stopped) << text;
    EXPECT_EQ(r.screen, kReadError) << text;
    EXPECT_EQ(r.log, kReadError) << text;
  }
}

TEST(Mesh, AbsurdCountsAreReportedBeforeAnyAllocation) {
  const auto neg = read_mesh_text("3 -1 2\n0 0 0\n3*1\n\n2*1\n");
  EXPECT_TRUE(neg.stopped);
  const std::string why_neg = kReadError + "The numbers of cells nx, ny, nz must not be negative.\n";
  EXPECT_EQ(neg.screen, why_neg);
  EXPECT_EQ(neg.log, why_neg);

  const std::string why_big =
      kReadError + "The mesh is too large: nx*ny and nx*ny*nz must be below 2147483648.\n";
  for (const char* text : {"65536 32768 1\n", "2147483647 2147483647 2147483647\n",
                           "1024 1024 2048\n", "2147483647 2 0\n"}) {
    const auto big = read_mesh_text(text);
    EXPECT_TRUE(big.stopped) << text;
    EXPECT_EQ(big.screen, why_big) << text;
  }
}

TEST(Mesh, NodesThatOverflowAreReported) {
  const auto r = read_mesh_text("2 1 1\n0 0 0\n1e308 1e308\n1\n1\n");
  EXPECT_TRUE(r.stopped);
  EXPECT_EQ(r.screen, kReadError + "The node coordinates are too large to be represented.\n");
}

TEST(Mesh, MissingFileIsReportedWithTheWordMesh) {
  qt::scratch_dir dir("mesh");
  dir.cd();
  qt::capture cap;
  EXPECT_THROW(read_mesh("nothere.txt  "), qt::stop_caught);
  EXPECT_EQ(cap.screen(), "\n ERROR: mesh file not found: nothere.txt\n");
  EXPECT_EQ(cap.log(), cap.screen());
}

TEST(Mesh, BundledExampleMesh) {
  qt::capture cap;
  read_mesh(QUOLVENT_SOURCE_DIR "/examples/mesh.txt");
  EXPECT_EQ(mesh.nx, 30);
  EXPECT_EQ(mesh.nz, 15);
  EXPECT_EQ(mesh.xn.back(), 600.0);
  // The sum of all dz is the depth of the mesh bottom.
  EXPECT_EQ(mesh.zn.back(), 5 * 5.0 + 5 * 10.0 + 5 * 20.0);
  EXPECT_EQ(mesh.z0 - mesh.zn.back(), -75.0);
}
