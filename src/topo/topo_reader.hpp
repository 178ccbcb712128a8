// Topography reader: scattered surface points to column tops, through a
// Delaunay triangulation and the surface sampled over the mesh.
//
// File: optional comment lines ("!" in the first column) ahead of a count
// line (its first 40 characters hold the number of points), then one point
// per line: easting, northing, elevation. Inside, the nodes hold the
// northing as their first coordinate and the easting as their second.
#pragma once

#include <string>

// read_topo_file: given the file name and the mesh of the global record.
// Returns the global top_index filled through column_tops. Fails by a report
// and a stop when the file can't be opened, has no count line or no integer
// on it, ends or holds a bad value inside its points, lies outside the mesh,
// holds coincident points (each pair listed first) or has all its nodes on
// one line; warns and goes on when it covers less than 0.3 of the mesh plan.
// Calls text_open, read_line, ff_read_text, ff_read, order_nodes,
// triangulate, eval_surface, column_tops, report, stop_plain,
// file_not_found.
void read_topo_file(const std::string& file_name);
