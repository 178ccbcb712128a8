// The control file.
#include "run/control_file.hpp"

#include <cstddef>
#include <string>
#include <vector>

#include "base/stop.hpp"
#include "base/text_io.hpp"

namespace quolvent {

namespace {

constexpr std::size_t field_width = 500;
constexpr std::size_t echo_width = 200;

// sample_lines: the sample control file as it is printed.
std::vector<std::string> sample_lines() {
  return {
      "",
      "Sample quolvent input file: (! must precede comments)",
      "",
      "mesh         ! mesh file",
      "obs.mag      ! data file",
      "topo.dat     ! topography",
      "distance_weight.txt  ! weight file",
      "daub2        ! wavelet: daubx, symmx, NONE",
      "1  0.05      ! itol, eps | null",
      "0-not output, 1-output diagnostic files",
      "",
  };
}

void put_rule(const run_log& out) {
  out.say_log("");
  out.say_log(std::string(64, '-'));
  out.say_log("");
}

// echo_file: the control file, as it stands, into the log between two rules.
void echo_file(text_file& t, const run_log& out) {
  out.say_log("");
  out.say_log("Reading input file: " + t.name);
  put_rule(out);
  std::string line;
  while (read_line(t, line, echo_width) == 0) out.say_log(rtrim(line));
  put_rule(out);
  text_rewind(t);
}

// control_failure: the report on the screen, the sample after it on the
// screen and in the log; the stop carries it all, so that a caller sees why.
[[noreturn]] void control_failure(const std::string& name, bool bad_flag) {
  stop s;
  if (bad_flag)
    s.screen_lines = {"", "ERROR: enter 0 to not output, or 1 to output average uncompressed",
                      "sensitivity model file.", ""};
  s.screen_lines.push_back("ERROR reading sensitivity input file " + rtrim(name));
  s.log_lines = sample_lines();
  s.screen_lines.insert(s.screen_lines.end(), s.log_lines.begin(), s.log_lines.end());
  s.kind = stop_kind::file;
  throw s;
}

}  // namespace

void print_sample(const run_log& out) {
  const std::vector<std::string> lines = sample_lines();
  for (const auto& l : lines) out.say_screen(l);
  for (const auto& l : lines) out.say_log(l);
}

run_params read_control_file(const std::string& name, const run_log& out) {
  if (rtrim(name) == "-inp") {
    print_sample(out);
    stop_plain();
  }
  text_file t;
  if (!text_open(t, name)) file_not_found("input", name);
  echo_file(t, out);

  std::string field[6];
  for (int i = 0; i < 6; ++i) {
    if (read_line(t, field[i], field_width) != 0) control_failure(name, false);
    if (i != 4) cut_comment(field[i]);
  }
  int32_t flag = -1;
  if (ff_read(t, {flag}) != 0) control_failure(name, false);
  if (flag != 0 && flag != 1) control_failure(name, true);
  text_close(t);

  run_params params;
  params.mesh_file = rtrim(field[0]);
  params.obs_file = rtrim(field[1]);
  params.topo_file = rtrim(field[2]);
  params.weight_file = rtrim(field[3]);
  std::string wavelet = field[4].substr(0, 5);
  wavelet.resize(5, ' ');
  if (is_null_name(wavelet)) wavelet = "daub2";
  params.wavelet = wavelet;
  params.eps_line = rtrim(field[5]);
  params.write_diagnostics = flag == 1;
  return params;
}

}  // namespace quolvent
