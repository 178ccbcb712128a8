// Topography reader: the scattered surface points of the topography file.
//
// File: optional comment lines ("!" in the first column) ahead of a count
// line (its first 40 characters hold the number of points), then one point
// per line: easting, northing, elevation.
#pragma once

#include <string>
#include <vector>

namespace quolvent {

// topo_points: the points in file order.
struct topo_points {
  std::vector<double> east, north, elev;
};

// read_topo_file
//   Given:   the file name (trailing blanks are cut).
//   Returns: the points of the file, as many as its count line says.
//   Fails:   a file that can't be opened -> file-not-found report "topography";
//            no count line, or no integer on it -> "ERROR reading topography
//            file <name>: ..." with the reason; a point cut short or a bad
//            value -> "ERROR reading topography file <name>". Each ends in a
//            stop. The points are read as they come, so a count larger than
//            the file meets the end of the file, never a huge allocation.
topo_points read_topo_file(const std::string& file_name);

}  // namespace quolvent
