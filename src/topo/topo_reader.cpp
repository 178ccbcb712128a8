// Topography reader.
#include "topo/topo_reader.hpp"

#include <cstdint>

#include "base/stop.hpp"
#include "base/text_io.hpp"

namespace quolvent {

namespace {

// The count line is read into a buffer of this width; the rest is lost.
constexpr std::size_t count_width = 40;

}  // namespace

topo_points read_topo_file(const std::string& file_name) {
  const std::string name = rtrim(file_name);
  text_file f;
  if (!text_open(f, name)) file_not_found("topography", name);

  // Comment lines, then the count line.
  std::string line;
  for (;;) {
    if (read_line(f, line, count_width) != 0) {
      stop_reading({"", "ERROR reading topography file " + name + ": no count line"});
    }
    if (line.empty() || line[0] != '!') break;
  }
  int32_t count = 0;
  if (ff_read_text(line, {count}) != 0) {
    stop_reading(
        {"", "ERROR reading topography file " + name + ": no number of points on its count line"});
  }

  topo_points p;
  for (int32_t i = 1; i <= count; ++i) {
    double east = 0.0, north = 0.0, elev = 0.0;
    if (ff_read(f, {east, north, elev}) != 0) {
      stop_reading({"", "ERROR reading topography file " + name});
    }
    p.east.push_back(east);
    p.north.push_back(north);
    p.elev.push_back(elev);
  }
  return p;
}

}  // namespace quolvent
