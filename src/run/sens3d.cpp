// The run driver: the program's one pipeline, top to bottom, once per process.
#include "run/sens3d.hpp"

#include <cstdlib>
#include <omp.h>
#include <string>
#include <vector>
#include <xmmintrin.h>

#include "model/model.hpp"
#include "run/control_file.hpp"
#include "run/format.hpp"
#include "run/text_io.hpp"
#include "run/timing.hpp"

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

  phase_timer("TOTAL", -1, screen_out(), log_out());
  print_timestamp("QUOLVENT ended on: ", log_out());
  log_close();
  std::fflush(nullptr);
  return 0;
}
