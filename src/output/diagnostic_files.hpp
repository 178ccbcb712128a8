// The text files beside the matrix file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "model/model.hpp"
#include "output/output_file.hpp"

namespace quolvent {

// write_sensitivity_model
// Given: one value per cell below the ground in cell order, the mesh and its
//   column tops, and the file (opened, empty).
// Returns: the file holds one line per mesh cell in cell order: 1e-20 above
//   the ground, value / cell volume below (0 for a cell of no volume); it is
//   finished, waiting to be put in place.
// Fails: a file that can't be written: cannot_write (an earlier file of that
//   name stays); fewer values than cells below the ground stop the run with a
//   text.
void write_sensitivity_model(const std::vector<double>& values, const mesh_model& mesh,
                             const std::vector<int32_t>& top_index, output_file& file);

// write_data_file
// Given: the file (opened, empty), the data and one value per datum.
// Returns: the file holds the observation header, then one line per datum
//   with its position (and direction when idir is 0) and values[i]; it is
//   finished, waiting to be put in place.
// Fails: a file that can't be written: cannot_write (an earlier file of that
//   name stays); fewer values than data stop the run with a text.
void write_data_file(output_file& file, const obs_set& obs, const std::vector<double>& values);

}  // namespace quolvent
