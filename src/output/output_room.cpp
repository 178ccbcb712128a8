// The room a run's outputs need.
#include "output/output_room.hpp"

#include <filesystem>
#include <vector>

#include "base/format.hpp"
#include "base/resources.hpp"
#include "base/stop.hpp"
#include "output/matrix_file.hpp"
#include "output/output_file.hpp"

namespace quolvent {

namespace {

// Memory a compressed row takes beside its values: two vectors and the
// allocator's headers of their two blocks.
constexpr int64_t row_overhead_bytes = 2 * 24 + 2 * 16;

int64_t kept_of(const compression& c, datum_kind kind) {
  return kind == datum_kind::borehole ? c.kept_borehole : c.kept_surface;
}

// predicted_kept: the coefficients of every datum's row by its kind's
// estimate, or an empty list when a kind in use has none.
std::vector<int64_t> predicted_kept(const survey& s, const compression& c) {
  const int32_t ndata = s.obs.ndata;
  std::vector<int64_t> kept;
  if (ndata <= 0 || s.datum_kinds.size() < static_cast<std::size_t>(ndata)) return kept;
  kept.reserve(static_cast<std::size_t>(ndata));
  for (int32_t i = 0; i < ndata; ++i) {
    const int64_t k = kept_of(c, s.datum_kinds[static_cast<std::size_t>(i)]);
    if (k < 0) return {};
    kept.push_back(k);
  }
  return kept;
}

std::string directory_of(const std::string& name) {
  const std::filesystem::path dir = std::filesystem::path(name).parent_path();
  return dir.empty() ? std::string(".") : dir.string();
}

}  // namespace

int64_t predicted_matrix_bytes(const survey& s, const compression& c) {
  if (!c.compressed) {
    const int64_t row = uncompressed_row_payload(s.n);
    return matrix_file_bytes(s, c, [row](int32_t) { return row; });
  }
  const std::vector<int64_t> kept = predicted_kept(s, c);
  if (kept.empty() && s.obs.ndata > 0) return -1;
  return matrix_file_bytes(s, c, [&kept](int32_t i) {
    return compressed_row_payload(kept[static_cast<std::size_t>(i)]);
  });
}

void check_output_room(const survey& s, const compression& c, const std::string& matrix_name,
                       const run_log& out, int32_t rows_held) {
  const int32_t held = rows_held >= 0 ? rows_held : (s.obs.ndata > 0 ? s.obs.ndata : 0);
  output_file::probe(matrix_name);
  const int64_t file_bytes = predicted_matrix_bytes(s, c);
  if (file_bytes < 0) return;
  const int64_t free_bytes = free_disk_bytes(directory_of(matrix_name));
  const int64_t memory = available_memory_bytes();
  const bool file_short = free_bytes >= 0 && file_bytes > free_bytes;

  if (!c.compressed) {
    // The rows go to the file as they are made: the disk alone must hold
    // the matrix.
    if (!file_short) return;
    stop st;
    st.screen_lines.push_back("");
    st.screen_lines.push_back("ERROR: " + matrix_name + " needs " + bytes_text(file_bytes) + ",");
    st.screen_lines.push_back("       but its file system has " + bytes_text(free_bytes) + " free.");
    st.screen_lines.push_back("Try using compression. The run is stopped before its first row.");
    st.screen_lines.push_back("");
    st.log_lines = st.screen_lines;
    st.status = 1;
    st.kind = stop_kind::output;
    throw st;
  }

  out.report_log({"", fmt_right("Predicted matrix file size:", 30) + " " + bytes_text(file_bytes)});
  if (file_short) {
    out.report(
        {"", "WARNING: " + matrix_name + " is predicted to take " + bytes_text(file_bytes) + ",",
         "         more than the " + bytes_text(free_bytes) + " free in its file system.", ""});
  }
  int64_t rows_bytes = 0;
  const std::vector<int64_t> kept = predicted_kept(s, c);
  for (std::size_t i = 0; i < kept.size() && static_cast<int64_t>(i) < held; ++i)
    rows_bytes = add_sizes(rows_bytes, add_sizes(mul_sizes(kept[i], 8), row_overhead_bytes));
  if (memory >= 0 && rows_bytes > memory) {
    out.report({"", "WARNING: the compressed rows are predicted to need " + bytes_text(rows_bytes),
                "         of memory, more than the " + bytes_text(memory) + " available.", ""});
  }
}

}  // namespace quolvent
