// Topography reader: scattered surface points to column tops, through a
// Delaunay triangulation and the surface sampled over the mesh.
//
// File: optional comment lines ("!" in the first column) ahead of a count
// line (its first 40 characters hold the number of points), then one point
// per line: easting, northing, elevation. Inside, the nodes hold the
// northing as their first coordinate and the easting as their second.
#pragma once

#include <string>

// read_topo_file
//   Given:   the file name (trailing blanks are cut); the global mesh.
//   Returns: the global top_index filled through column_tops. Warns ("Warning:
//            Topography region is not large enough.") and goes on when the
//            points cover less than 0.3 of the mesh plan.
//   Fails:   a file that can't be opened -> file-not-found report "topography";
//            no count line, or no integer on it -> "ERROR reading topography
//            file <name>: ..." with the reason; a point cut short or a bad
//            value -> "ERROR reading topography file <name>"; points outside
//            the mesh -> "Error: Topography is outside the mesh."; coincident
//            points -> each listed, then "Error: <count> duplicate points found
//            in topography file."; all nodes on one line -> "Error: Points in
//            the topography file are collinear.". Each ends in a plain stop.
//   Calls:   text_open, read_line, ff_read_text, ff_read, order_nodes,
//            triangulate, eval_surface, column_tops, report, stop_plain,
//            file_not_found.
void read_topo_file(const std::string& file_name);
