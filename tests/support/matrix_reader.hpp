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
  int32_t ndata, n, ny, nx, nz, nyp, nxp, nzp;
  std::vector<double> yn, xn, zn;
  double z0;
};
inline matrix_header header_of(const std::vector<std::string>& recs) {
  const bool sized = recs.size() > 5 && recs[0].size() == 20 && recs[4].size() == 12;
  EXPECT_TRUE(sized);
  if (!sized) return {};
  const auto c = values_of<int32_t>(recs[0], 0, 5), p = values_of<int32_t>(recs[4], 0, 3);
  const std::size_t y = std::size_t(c[2]) + 1, x = std::size_t(c[3]) + 1, z = std::size_t(c[4]) + 1;
  EXPECT_EQ(recs[1].size(), 8 * (y + x + z + 1));
  if (recs[1].size() != 8 * (y + x + z + 1)) return {};
  const auto v = values_of<double>(recs[1], 0, y + x + z + 1);
  return {c[0], c[1], c[2], c[3], c[4], p[0], p[1], p[2], {v.begin(), v.begin() + y},
          {v.begin() + y, v.end() - z - 1}, {v.end() - z - 1, v.end() - 1}, v.back()};
}

}  // namespace
