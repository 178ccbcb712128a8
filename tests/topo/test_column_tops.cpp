#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "model/model.hpp"
#include "run/text_io.hpp"
#include "support/test_support.hpp"
#include "topo/column_tops.hpp"

namespace {

// One column, three layers 10 m thick under a top at 100: boundaries at
// 100, 90, 80 and 70.
const std::vector<double> zn3{0.0, 10.0, 20.0, 30.0};

int32_t one_column(std::vector<double> nine) {
  std::vector<int32_t> top;
  column_tops(nine, 1, 1, 3, zn3, 100.0, top);
  EXPECT_EQ(top.size(), 1u);
  return top.empty() ? -1 : top[0];
}

std::vector<double> flat(double z) { return std::vector<double>(9, z); }

std::vector<double> with_low(double high, std::size_t at, double low) {
  auto s = flat(high);
  s[at] = low;
  return s;
}

}  // namespace

TEST(ColumnTops, GroundAtAndAboveTheMeshTop) {
  EXPECT_EQ(one_column(flat(150.0)), 0);
  EXPECT_EQ(one_column(flat(100.0)), 0);                  // exactly at z0
  EXPECT_EQ(one_column(with_low(120.0, 4, 100.0)), 0);
  EXPECT_EQ(one_column(flat(std::nextafter(100.0, 0.0))), 1);  // just below
  EXPECT_EQ(one_column(with_low(150.0, 8, 99.999)), 1);
}

TEST(ColumnTops, TiesOnLayerBoundariesTakeTheUpperLayer) {
  EXPECT_EQ(one_column(flat(90.0)), 1);
  EXPECT_EQ(one_column(flat(std::nextafter(90.0, 0.0))), 2);
  EXPECT_EQ(one_column(flat(80.0)), 2);
  EXPECT_EQ(one_column(flat(85.0)), 2);
  EXPECT_EQ(one_column(flat(70.0)), 3);                   // the mesh bottom
  EXPECT_EQ(one_column(flat(std::nextafter(70.0, 0.0))), 3);  // below it
  EXPECT_EQ(one_column(flat(-1e300)), 3);
}

TEST(ColumnTops, TheLowestOfTheNineSamplesCounts) {
  for (std::size_t at = 0; at < 9; ++at) {
    EXPECT_EQ(one_column(with_low(95.0, at, 79.0)), 3) << at;
    EXPECT_EQ(one_column(with_low(200.0, at, 95.0)), 1) << at;
  }
}

TEST(ColumnTops, SamplesThatAreNotANumber) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  // Passed over: the other samples decide.
  EXPECT_EQ(one_column(with_low(85.0, 4, nan)), 2);
  EXPECT_EQ(one_column(with_low(nan, 0, 85.0)), 2);
  // None that is a number: no topography in that column.
  EXPECT_EQ(one_column(flat(nan)), 0);
  EXPECT_EQ(one_column(flat(inf)), 0);
  EXPECT_EQ(one_column(flat(-inf)), 3);
}

TEST(ColumnTops, EachColumnSeesItsOwnNineSamples) {
  // 2 x 3 columns: a low sample at each of the 5 x 7 places in turn. It
  // lowers exactly the columns whose footprint holds it: a node sample up to
  // four columns, an edge mid-point two, a centre one.
  const int32_t ny = 2, nx = 3;
  const std::size_t ns = 2 * ny + 1, ms = 2 * nx + 1;
  for (std::size_t i = 0; i < ms; ++i) {
    for (std::size_t j = 0; j < ns; ++j) {
      std::vector<double> surf(ns * ms, 150.0);
      surf[j + i * ns] = 75.0;
      std::vector<int32_t> top;
      column_tops(surf, ny, nx, 3, zn3, 100.0, top);
      ASSERT_EQ(top.size(), 6u);
      int lowered = 0;
      for (int32_t ix = 1; ix <= nx; ++ix)
        for (int32_t iy = 1; iy <= ny; ++iy) {
          const int32_t t = top[(iy - 1) + (ix - 1) * ny];
          // Sample place (j+1, i+1), 1-based, within the column's footprint.
          const bool holds = std::abs(static_cast<int>(j + 1) - 2 * iy) <= 1 &&
                             std::abs(static_cast<int>(i + 1) - 2 * ix) <= 1;
          EXPECT_EQ(t, holds ? 3 : 0) << j << " " << i << " " << iy << " " << ix;
          lowered += holds;
        }
      const bool node_j = j % 2 == 0, node_i = i % 2 == 0;
      const int inner_j = (j == 0 || j == ns - 1) ? 1 : 2;
      const int inner_i = (i == 0 || i == ms - 1) ? 1 : 2;
      EXPECT_EQ(lowered, (node_j ? inner_j : 1) * (node_i ? inner_i : 1));
    }
  }
}

TEST(ColumnTops, NoLayersGiveZero) {
  std::vector<int32_t> top;
  column_tops(flat(50.0), 1, 1, 0, {0.0}, 100.0, top);
  EXPECT_EQ(top, std::vector<int32_t>{0});
}

TEST(ReadTopography, NullNamesGiveZeroWithoutAFile) {
  mesh.nx = 3;
  mesh.ny = 2;
  mesh.nz = 4;
  for (const char* name : {"null", "NULL", "nullify.txt", "NULL topography"}) {
    top_index.assign(1, 7);
    qt::capture cap;
    read_topography(name);
    EXPECT_EQ(top_index, std::vector<int32_t>(6, 0)) << name;
    EXPECT_EQ(cap.screen(), "");
  }
  // Other spellings are file names.
  qt::scratch_dir dir;
  dir.cd();
  qt::capture cap;
  EXPECT_THROW(read_topography("Null"), qt::stop_caught);
  EXPECT_EQ(cap.screen(), "\n ERROR: topography file not found: Null\n");
  EXPECT_EQ(cap.log(), cap.screen());
}
