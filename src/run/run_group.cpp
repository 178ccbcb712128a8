// A run of one process.
#include "run/run_group.hpp"

#include "output/matrix_file.hpp"

namespace quolvent {

void solo_group::write_matrix(output_file* file, const survey& s, const compression& c,
                              matrix_store& store, row_range,
                              const std::vector<double>& squared_sensitivity, const run_log& out) {
  quolvent::write_matrix(*file, s, c, store, 1, squared_sensitivity, out);
}

}  // namespace quolvent
