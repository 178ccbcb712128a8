// A reader of the matrix file of its own, for the tests, written from the
// file's description: frames, chained records, the values in a payload, and
// the header records field by field.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/test_support.hpp"

namespace {

// frame_reader: framed records from bytes, checking the frame rules: a frame's
// markers agree in length; a frame before its record's last holds `limit`
// bytes and leads with a negative marker; only the first trails a positive one.
struct frame_reader {
  std::string bytes;
  std::size_t pos = 0;
  int64_t limit;
  std::vector<int> parts;  // frames per record read so far

  int32_t marker() {
    int32_t m = 0;
    EXPECT_LE(pos + 4, bytes.size());
    if (pos + 4 <= bytes.size()) std::memcpy(&m, bytes.data() + pos, 4);
    pos += 4;
    return m;
  }

  std::string record() {
    std::string payload;
    int frames = 0;
    for (;;) {
      const int32_t lead = marker();
      const int64_t len = lead < 0 ? -int64_t{lead} : lead;
      EXPECT_LE(pos + len, bytes.size());
      payload.append(bytes, pos, static_cast<std::size_t>(len));
      pos += static_cast<std::size_t>(len);
      const int32_t trail = marker();
      EXPECT_EQ(trail, frames == 0 ? len : -len) << "trailing marker of frame " << frames;
      ++frames;
      if (lead >= 0) {
        if (frames > 1) EXPECT_GT(len, 0);
        break;
      }
      EXPECT_EQ(len, limit) << "a frame before the last holds the limit";
    }
    parts.push_back(frames);
    return payload;
  }

  bool at_end() const { return pos == bytes.size(); }
};

template <typename T>
std::vector<T> values_of(const std::string& payload, std::size_t offset, std::size_t count) {
  std::vector<T> v(count);
  if (count) std::memcpy(v.data(), payload.data() + offset, count * sizeof(T));
  return v;
}

std::string file_bytes(const std::string& name) { return qt::read_file(name); }

// matrix_records: every record of a matrix file written in the program's
// frames, payloads in order.
inline std::vector<std::string> matrix_records(const std::string& path) {
  frame_reader r{file_bytes(path), 0, 2147483639, {}};
  std::vector<std::string> recs;
  while (r.pos < r.bytes.size()) recs.push_back(r.record());
  return recs;
}


// matrix_header: records 1, 2 and 5 of a matrix file field by field, in the
// file's order: the counts (y before x), the node lines and the mesh top, the
// padded extents (y, x, z).
struct matrix_header {
  int32_t ndata = 0, n = 0, ny = 0, nx = 0, nz = 0;
  std::vector<double> yn, xn, zn;
  double z0 = 0.0;
  int32_t nyp = 0, nxp = 0, nzp = 0;
};
inline matrix_header header_of(const std::vector<std::string>& recs) {
  matrix_header h;
  EXPECT_GE(recs.size(), 6u);
  if (recs.size() < 6) return h;
  EXPECT_EQ(recs[0].size(), 20u);
  const auto counts = values_of<int32_t>(recs[0], 0, 5);
  h.ndata = counts[0], h.n = counts[1], h.ny = counts[2], h.nx = counts[3], h.nz = counts[4];
  const auto ny = static_cast<std::size_t>(h.ny), nx = static_cast<std::size_t>(h.nx),
             nz = static_cast<std::size_t>(h.nz);
  EXPECT_EQ(recs[1].size(), 8 * (ny + nx + nz + 4));
  if (recs[1].size() != 8 * (ny + nx + nz + 4)) return h;
  h.yn = values_of<double>(recs[1], 0, ny + 1);
  h.xn = values_of<double>(recs[1], 8 * (ny + 1), nx + 1);
  h.zn = values_of<double>(recs[1], 8 * (ny + nx + 2), nz + 1);
  h.z0 = values_of<double>(recs[1], 8 * (ny + nx + nz + 3), 1)[0];
  EXPECT_EQ(recs[4].size(), 12u);
  const auto padded = values_of<int32_t>(recs[4], 0, 3);
  h.nyp = padded[0], h.nxp = padded[1], h.nzp = padded[2];
  return h;
}

}  // namespace
