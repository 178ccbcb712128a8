// A reader of the matrix file of its own, for the tests: frames, chained
// records, and the values in a payload.
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

}  // namespace
