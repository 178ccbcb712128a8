// The control file: seven positional lines naming the inputs of a run.
#pragma once

#include <string>

#include "base/channels.hpp"

namespace quolvent {

// run_params: the parsed control file.
struct run_params {
  std::string mesh_file;    // line 1, comment cut, trailing blanks cut
  std::string obs_file;     // line 2
  std::string topo_file;    // line 3
  std::string weight_file;  // line 4 (a file name, or "VALUE " and a number)
  std::string wavelet;      // line 5, always exactly 5 characters, blank-padded
  std::string eps_line;     // line 6, comment cut: "itol eps" or "null"
  bool write_diagnostics = false;  // line 7
};

// read_control_file
//   Given:   the first command-line argument; the run's log.
//   Returns: the parameters, after the control file was copied to the log.
//            For the name "-inp" it prints the sample control file to the
//            screen and the log and stops.
//   Fails:   a missing file gets the file-not-found report ("input"); a file
//            that ends before line 7, or a line 7 that is no 0 or 1, gets the
//            failure report with the sample, then a stop.
run_params read_control_file(const std::string& name, const run_log& out);

// print_sample: the sample control file, to the screen and then to the log.
void print_sample(const run_log& out);

}  // namespace quolvent
