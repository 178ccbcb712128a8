// The run driver: the program's one pipeline, top to bottom, once per process.
#include "run/sens3d.hpp"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <omp.h>
#include <string>
#include <vector>
#include <xmmintrin.h>

#include "model/active_cells.hpp"
#include "model/cell_values.hpp"
#include "model/mesh.hpp"
#include "model/model.hpp"
#include "model/observations.hpp"
#include "output/diagnostic_files.hpp"
#include "output/matrix_file.hpp"
#include "run/control_file.hpp"
#include "run/format.hpp"
#include "run/text_io.hpp"
#include "run/timing.hpp"
#include "sens/grid_check.hpp"
#include "sens/kernel2_mod.hpp"
#include "sens/kernel_mod.hpp"
#include "topo/column_tops.hpp"
#include "wavelet/compression.hpp"

namespace {

constexpr const char* program_name = "quolvent";
constexpr std::size_t field_width = 500;

// set_denormals_to_zero: denormal results are flushed to zero and denormal
// operands count as zero on this thread (the row loops gain nothing from them).
void set_denormals_to_zero() { _mm_setcsr(_mm_getcsr() | 0x8040); }

// thread_count_from: nThreads of the second argument, or 0 when it can't be
// parsed; 0 and below leave the runtime's default.
int thread_count_from(const char* arg) {
  std::string text(arg);
  if (text.size() > field_width) text.resize(field_width);
  int32_t n = 0;
  if (ff_read_text(text, {n}) != 0) return 0;
  return n;
}

void print_usage() {
  say_screen("");
  say_screen(std::string("   Usage: ") + program_name + " " + program_name + ".inp  [nThreads]");
  say_screen("");
  say_screen(std::string("   For a sample input file, type: ") + program_name + " -inp");
}

// threshold_echo: the text behind " Wavelet   threshold: " for the eps line.
std::string threshold_echo(const std::string& eps_line) {
  if (is_null_name(eps_line)) return "default";
  int32_t itol = 0;
  double eps = 0.0;
  if (ff_read_text(eps_line, {itol, eps}) != 0) {
    report({"", "Unrecognized input for compression threshold,", "program is terminated."});
    stop_plain();
  }
  return (itol == 1 ? "relative accuracy =" : "relative threshold =") + fmt_fixed(eps, 6, 4);
}

void print_parameters(const std::string& input_name) {
  say_log("with the following parameters:");
  say_log("");
  say_log("          Input file: " + rtrim(input_name));
  say_log("   Observations file: " + rtrim(params.obs_file));
  say_log("           Mesh file: " + rtrim(params.mesh_file));
  say_log("     Topography file: " + rtrim(params.topo_file));
  say_log(" Wavelet compression: " + params.wavelet);
  say_log(" Wavelet   threshold: " + threshold_echo(params.eps_line));
  say_log("");
}

// worker_stack_bytes: each worker of the row loops keeps row-sized arrays,
// 40 bytes per row entry, never less than a comfortable default stack.
std::size_t worker_stack_bytes(int32_t n) {
  constexpr std::size_t floor_bytes = std::size_t{8} << 20;
  return std::max(floor_bytes, std::size_t{40} * static_cast<std::size_t>(std::max(n, 0)));
}

// run_pipeline: steps 13 to 33, from the mesh to the uncompress stage.
void run_pipeline() {
  // init: the model, the data, the ground and the weighting.
  read_mesh(params.mesh_file);
  read_data_file(params.obs_file);
  std::vector<int32_t> obs_type(static_cast<std::size_t>(obs.ndata));
  read_topography(params.topo_file);
  get_active_cells("null", top_index);
  int32_t data_kind = 0;
  classify_data(obs_type, data_kind);
  const int32_t n = cells.nbelow;
  kmp_set_stacksize_s(worker_stack_bytes(n));
  std::fflush(screen_out());
  std::fflush(log_out());
  std::vector<double> wtz(static_cast<std::size_t>(n));
  read_cell_values(params.weight_file, "weighting", wtz);
  bool regular = false;
  int32_t ref_datum = 0;
  double cell_dy = 0.0, cell_dx = 0.0;
  grid_check(data_kind, obs.idir, regular, ref_datum, cell_dy, cell_dx);
  phase_timer("init", 1, screen_out(), log_out());
  std::fflush(log_out());

  // sens: the rows, the sensitivity model and the matrix file.
  std::vector<double> sens_sq, sens_avg;
  try {
    sens_sq.assign(static_cast<std::size_t>(n), 0.0);
    sens_avg.assign(static_cast<std::size_t>(n), 0.0);
  } catch (const std::bad_alloc&) {
    alloc_failed("sens3d");
  }
  setup_compression(n, wtz, top_index, obs_type, params.wavelet, params.eps_line);
  if (regular) {
    KERNEL2(n, wtz, top_index, obs_type, ref_datum, cell_dy, cell_dx, sens_sq, sens_avg);
  } else {
    KERNEL(n, wtz, top_index, obs_type, sens_sq, sens_avg);
  }
  phase_timer("sens", 1, screen_out(), log_out());
  write_sensitivity_model(sens_avg, top_index, "sensitivity.txt");
  write_matrix(n, wtz, top_index, 1, sens_sq);
  std::vector<double>().swap(sens_sq);

  // uncompress: what the compressed rows make of the average sensitivity.
  if (compressed && params.diag_flag) {
    UNCOMPRESSG(n, wtz, sens_avg);
    write_sensitivity_model(sens_avg, top_index, "sensitivity_compressed.txt");
    phase_timer("uncompress", 1, screen_out(), log_out());
  }
}

}  // namespace

int sens3d(int argc, char** argv) {
  const int nargs = argc - 1;

  // Set-up: floating-point control, affinity and threads, before any
  // parallel region starts.
  set_denormals_to_zero();
  setenv("KMP_AFFINITY", "scatter", 1);
  if (nargs == 2) {
    const int n = thread_count_from(argv[2]);
    if (n > 0) omp_set_num_threads(n);
  }
  phase_timer("start", 0, screen_out(), nullptr);
  print_banner("QUOLVENT", nullptr);
  if (nargs < 1) {
    print_usage();
    stop_plain();
  }
  std::string input_name(argv[1]);
  if (input_name.size() > field_width) input_name.resize(field_width);

  log_create();
  print_banner("QUOLVENT", log_out());
  read_control_file(input_name);
  print_timestamp("QUOLVENT started on: ", log_out());
  print_parameters(input_name);
  try {
    run_pipeline();
  } catch (const std::bad_alloc&) {
    // An allocation without a report of its own: say so plainly and stop.
    report({"", "ERROR: not enough memory for this run.", ""});
    stop_plain();
  }

  phase_timer("TOTAL", -1, screen_out(), log_out());
  print_timestamp("QUOLVENT ended on: ", log_out());
  log_close();
  std::fflush(nullptr);
  return 0;
}
