// The run driver: one fixed pipeline from the command line to the matrix file.
#pragma once

#include <cstdio>

#include "base/channels.hpp"

namespace quolvent {

// sens3d
//   Given:   the command line (argc, argv: the control file and an optional
//            thread count); the run's log, whose screen is where the run's
//            screen goes. Files are read and written as the command line
//            names them, the outputs in the current directory.
//   Returns: after a complete run: every output written, the log closed.
//   Fails:   every failure is a stop (an exception carrying its report);
//            run_command_line delivers it.
void sens3d(int argc, char** argv, run_log& out);

// run_command_line
//   Given:   the command line; the stream the run calls its screen.
//   Returns: the exit status of the program: 0 after a complete run and after
//            every reported stop on its input, 1 when an output can't be
//            written (or the log created), 128 + N when signal N (SIGINT,
//            SIGTERM, SIGHUP) interrupted the run. A stop's report is on the
//            screen, in the log and on the error stream as it says; the log
//            is closed; unfinished outputs are removed and earlier files of
//            their names left as they were. Nothing is left open or held, and
//            the calling thread's signal mask is its own again.
int run_command_line(int argc, char** argv, std::FILE* screen = stdout);

}  // namespace quolvent
