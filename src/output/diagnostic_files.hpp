// The text files beside the matrix file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// write_sensitivity_model: one line per mesh cell in cell order; cells above
// the ground 1e-20, the others the next value of `values` over the cell volume.
void write_sensitivity_model(const std::vector<double>& values,
                             const std::vector<int32_t>& top_index, const std::string& name);

// write_data_file: the observation header, then one line per datum with its
// position (and direction when idir is 0) and values[i].
void write_data_file(const std::string& name, const std::vector<double>& values);
