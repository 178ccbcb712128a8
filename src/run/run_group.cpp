// A run of one process.
#include "run/run_group.hpp"

#include "output/matrix_file.hpp"

namespace quolvent {

std::unique_ptr<streamed_matrix> solo_group::open_streamed_matrix(output_file* file,
                                                                  const survey& s,
                                                                  const compression& c) {
  auto streamed = std::make_unique<streamed_matrix>(*file, s, c);
  streamed->write_head(1);
  return streamed;
}

std::unique_ptr<ordered_matrix> solo_group::open_ordered_matrix(output_set& outputs,
                                                                const std::string& path,
                                                                const survey& s,
                                                                const compression& c,
                                                                matrix_store& store, bool release) {
  return std::make_unique<ordered_matrix>(outputs.open(path, "wb"), s, c, store, 1, release);
}

void solo_group::write_matrix(output_file* file, const survey& s, const compression& c,
                              matrix_store& store, row_range,
                              const std::vector<double>& squared_sensitivity, const run_log& out,
                              streamed_matrix* streamed) {
  if (!streamed) {
    quolvent::write_matrix(*file, s, c, store, 1, squared_sensitivity, out);
    return;
  }
  say_writing_matrix(out);
  streamed->write_tail(squared_sensitivity);
  streamed->finish_part();
  streamed->close(out);
}

}  // namespace quolvent
