// The run driver: one fixed pipeline from the command line to the matrix file.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "base/channels.hpp"

namespace quolvent {

class run_group;
class row_engine;

// run_summary: what a run found and made, for a caller that embeds it.
struct run_summary {
  int status = 0;         // the exit status the program would give
  std::string report;     // a stop's report (screen lines, error text); empty after a complete run
  std::string stop_kind;  // the stop's kind (stop_kind_name); empty after a complete run
  bool complete = false;  // every output written
  int32_t ndata = 0, nsurface = 0, nborehole = 0;
  int64_t ncells = 0;   // nx * ny * nz
  int32_t nbelow = 0;   // cells below the ground: the row length
  std::string wavelet;  // the wavelet field of the control file
  bool compressed = false;
  double threshold_surface = 0.0, threshold_borehole = 0.0;
  int64_t nnz = 0;  // kept coefficients (n * ndata uncompressed)
  double compression_ratio = 0.0, achieved_error = 0.0;
  double row_error_mean = 0.0, row_error_max = 0.0;  // exact, over the rows measured
  int32_t rows_measured = 0;                          // one datum in 32, from the first
  double row_bound_mean = 0.0, row_bound_max = 0.0;  // a bound, over every row
  std::vector<std::pair<std::string, double>> phase_seconds;  // "init", "sens", ..., "TOTAL"
};

// run_options: where a run's outputs go (the log included; empty: the
// current directory), and where its summary goes (nullptr: nowhere).
// A program sets its own thread affinity; a caller that embeds runs in a
// process of its own may keep the runtime from binding its threads. group:
// the processes that share the run (nullptr: this one alone); only the first
// of them writes the screen and the log. engine: what makes the rows
// (nullptr: this process's threads).
struct run_options {
  std::string outdir;
  run_summary* summary = nullptr;
  bool set_affinity = true;
  run_group* group = nullptr;
  row_engine* engine = nullptr;
};

// execute_run
//   Given:   the command line (argc, argv: the control file and an optional
//            thread count); the run's log, whose screen is where the run's
//            screen goes (nullptr: nowhere); the options. Files are read as
//            the command line names them, the outputs written in the
//            options' directory, which the caller holds (folder_lock), and
//            the lines of the lock's warning, if any.
//   Returns: after a complete run: every output written, the log closed.
//   Fails:   every failure is a stop (an exception carrying its report);
//            run_command_line delivers it.
void execute_run(int argc, char** argv, run_log& out, const run_options& options = {},
                 const std::vector<std::string>& lock_warning = {});

// run_command_line
//   Given:   the command line; the stream the run calls its screen (nullptr:
//            nowhere); the options.
//   Returns: the exit status of the program: 0 after a complete run and after
//            every reported stop on its input, 1 when an output can't be
//            written (or the log created), 75 when another run holds the
//            output folder (this one then touches nothing there), 128 + N
//            when signal N (SIGINT, SIGTERM, SIGHUP) interrupted the run. A stop's report is on the
//            screen, in the log and on the error stream as it says; the log
//            is closed; unfinished outputs are removed and earlier files of
//            their names left as they were. Nothing is left open or held, and
//            the calling thread's signal mask is its own again.
int run_command_line(int argc, char** argv, std::FILE* screen = stdout,
                     const run_options& options = {});

}  // namespace quolvent
